// SPDX-License-Identifier: Apache-2.0
// Makes a snapshot through the manager's C interface and prints what each phase took, in seconds,
// and the memory that it needed, as JSON.
//
// usage: bench_manager STORE SOURCE plain|digests
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "manager/f2fs_snapshot_manager.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* NAMES[] = {"other",  "list", "create",  "check",
                                 "record", "sync", "compare", "sum"};
constexpr int COMPARE = 6;  // the second time in the phase "list"
constexpr int SUM = 7;

double processorSeconds() {
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

struct Phases {
    double seconds[sizeof NAMES / sizeof *NAMES] = {};
    double listings = 0;  // processor time of both
    int current = 0;
    Clock::time_point since = Clock::now();
    double processor_since = processorSeconds();

    void enter(int phase) {
        const Clock::time_point now = Clock::now();
        const double processor_now = processorSeconds();
        seconds[current] += std::chrono::duration<double>(now - since).count();
        if (current == F2FS_SNAPSHOT_PHASE_LIST || current == COMPARE) {
            listings += processor_now - processor_since;
        }
        since = now;
        processor_since = processor_now;
        current = phase;
    }
};

void onProgress(void* context, const f2fs_snapshot_progress* progress) {
    auto& phases = *static_cast<Phases*>(context);
    const bool is_compare = progress->phase == F2FS_SNAPSHOT_PHASE_LIST && progress->pass > 0;
    phases.enter(is_compare                                    ? COMPARE
                 : progress->phase <= F2FS_SNAPSHOT_PHASE_SYNC ? progress->phase
                                                               : 0);
}

void require(int32_t code, const f2fs_snapshot_error& error) {
    if (code != F2FS_SNAPSHOT_OK) {
        fprintf(stderr, "%s\n", error.message);
        exit(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        fputs("usage: bench_manager STORE SOURCE plain|digests\n", stderr);
        return 2;
    }
    f2fs_snapshot_error error = F2FS_SNAPSHOT_ERROR_INIT;
    f2fs_snapshot_store* store = nullptr;
    require(f2fs_snapshot_store_open(argv[1], F2FS_SNAPSHOT_STORE_CREATE, &store, &error), error);
    Phases phases;
    f2fs_snapshot_callbacks callbacks = F2FS_SNAPSHOT_CALLBACKS_INIT;
    callbacks.context = &phases;
    callbacks.progress = onProgress;
    f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    options.callbacks = &callbacks;
    options.name = "bench";
    options.strict = 1;
    options.digests = strcmp(argv[3], "digests") == 0 ? 1 : 0;
    const char* sources[] = {argv[2]};
    const Clock::time_point begin = Clock::now();
    require(f2fs_snapshot_create(store, sources, 1, &options, nullptr, &error), error);
    phases.enter(0);
    phases.seconds[SUM] = std::chrono::duration<double>(Clock::now() - begin).count();
    for (size_t i = 0; i < sizeof NAMES / sizeof *NAMES; ++i) {
        printf("%s\"%s\": %f", i == 0 ? "{" : ", ", NAMES[i], phases.seconds[i]);
    }
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    printf(", \"listings_processor\": %f, \"peak_kib\": %ld}\n", phases.listings, usage.ru_maxrss);
    require(f2fs_snapshot_destroy(store, "bench", nullptr, &error), error);
    f2fs_snapshot_store_close(store);
}
