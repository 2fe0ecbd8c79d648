// SPDX-License-Identifier: Apache-2.0
#include "manager/ctl/session.h"

#include <time.h>
#include <unistd.h>

#include <csignal>

#include "manager/ctl/json.h"
#include "manager/ctl/status.h"

namespace ctl {

namespace {

volatile std::sig_atomic_t caught_signal = 0;

void remember(int signal) {
    if (caught_signal == 0) {
        caught_signal = signal;
    }
}

}  // namespace

void catchSignals() {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        struct sigaction action = {};
        sigaction(signal, nullptr, &action);
        if (action.sa_handler != SIG_IGN) {
            action.sa_handler = remember;
            action.sa_flags = SA_RESTART;
            sigaction(signal, &action, nullptr);
        }
    }
}

int caughtSignal() {
    return caught_signal;
}

Session::Session(const Options& options, uint32_t flags)
    : options_(options),
      progress_(stderr, styleFor(STDERR_FILENO, options.quiet || options.json),
                columnsOf(STDERR_FILENO)),
      has_made_store_((flags & F2FS_SNAPSHOT_STORE_CREATE) != 0 &&
                      access(options.store.c_str(), F_OK) != 0) {
    callbacks_.context = &progress_;
    callbacks_.progress = [](void* context, const f2fs_snapshot_progress* progress) {
        static_cast<Progress*>(context)->show(*progress, std::chrono::steady_clock::now());
    };
    callbacks_.cancel = [](void*) { return caughtSignal(); };
    store_ = obtain<f2fs_snapshot_store>([&](auto* store, auto* error) {
        return f2fs_snapshot_store_open(options.store.c_str(), flags, store, error);
    });
}

Owned<f2fs_snapshot_info> Session::create(bool is_temporary) {
    f2fs_snapshot_create_options options = options_.create;
    options.callbacks = callbacks();
    options.strict = options_.strict ? 1 : 0;
    options.digests = options_.digests ? 1 : 0;
    options.temporary = is_temporary ? 1 : 0;
    const std::vector<const char*> sources = pointers(options_.sources);
    try {
        auto info = obtainWhenFree<f2fs_snapshot_info>([&](auto* made, auto* error) {
            return f2fs_snapshot_create(store(), sources.data(), sources.size(), &options, made,
                                        error);
        });
        clearProgress();
        return info;
    } catch (const CallFailed&) {
        if (has_made_store_) {
            rmdir(f2fs_snapshot_store_path(store()));  // unless it holds the log of the failure
        }
        throw;
    }
}

Owned<f2fs_snapshot_report> Session::check() {
    f2fs_snapshot_check_options options = F2FS_SNAPSHOT_CHECK_OPTIONS_INIT;
    options.callbacks = callbacks();
    options.name = options_.create.name;
    const std::vector<const char*> sources = pointers(options_.sources);
    Owned<f2fs_snapshot_report> found = obtain<f2fs_snapshot_report>([&](auto* made, auto* error) {
        return f2fs_snapshot_check(store(), sources.data(), sources.size(), &options, made, error);
    });
    clearProgress();
    return found;
}

Owned<f2fs_snapshot_list> Session::list() const {
    return obtain<f2fs_snapshot_list>(
        [&](auto* list, auto* error) { return f2fs_snapshot_list_all(store(), list, error); });
}

Owned<f2fs_snapshot_info> Session::info(const std::string& name) const {
    return obtain<f2fs_snapshot_info>([&](auto* info, auto* error) {
        return f2fs_snapshot_show(store(), name.c_str(), info, error);
    });
}

uint64_t Session::diskUsage(const std::string& name) const {
    uint64_t bytes = 0;
    require([&](f2fs_snapshot_error* error) {
        return f2fs_snapshot_disk_usage(store(), name.c_str(), &bytes, error);
    });
    return bytes;
}

void Session::destroy(const std::string& name, const f2fs_snapshot_callbacks* callbacks) const {
    f2fs_snapshot_destroy_options options = F2FS_SNAPSHOT_DESTROY_OPTIONS_INIT;
    options.callbacks = callbacks;
    require([&](f2fs_snapshot_error* error) {
        return f2fs_snapshot_destroy(store(), name.c_str(), &options, error);
    });
}

Owned<f2fs_snapshot_hold> Session::hold(const std::string& name) const {
    return obtain<f2fs_snapshot_hold>([&](auto* hold, auto* error) {
        return f2fs_snapshot_hold_take(store(), name.c_str(), hold, error);
    });
}

// Tells once why.
void Session::pause(const CallFailed& failure, bool& is_told) {
    clearProgress();
    if (!is_told && !options_.quiet && !options_.json) {
        fprintf(stderr, "f2fs_snapshotctl: waiting: %s\n", failure.error.message);
    }
    is_told = true;
    constexpr timespec PAUSE = {0, 50'000'000};
    nanosleep(&PAUSE, nullptr);
    if (caughtSignal() != 0) {
        f2fs_snapshot_error cancelled = {sizeof cancelled, F2FS_SNAPSHOT_ERROR_CANCELLED, 0, "",
                                         "cancelled"};
        throw CallFailed(cancelled);
    }
}

int report(const CallFailed& failure, const Options& options, const char* verb) {
    if (failure.error.code == F2FS_SNAPSHOT_ERROR_ARGUMENT ||
        failure.error.code == F2FS_SNAPSHOT_ERROR_NAME) {
        return wrongUsage(verb, failure.error.message);
    }
    fprintf(stderr, "f2fs_snapshotctl: %s\n", failure.error.message);
    if (options.json) {
        print({{"verb", verb}, {"error", errorJson(failure.error)}});
    }
    const bool cancelled =
        failure.error.code == F2FS_SNAPSHOT_ERROR_CANCELLED && caughtSignal() != 0;
    return cancelled ? SIGNALLED + caughtSignal() : FAILURE;
}

std::vector<const char*> pointers(const std::vector<std::string>& words) {
    std::vector<const char*> list;
    list.reserve(words.size());
    for (const std::string& word : words) {
        list.push_back(word.c_str());
    }
    return list;
}

}  // namespace ctl
