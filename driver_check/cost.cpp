// SPDX-License-Identifier: Apache-2.0
// Measurements, reported as notes. Nothing is judged by them: a driver may be slow.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "driver_check/checks.h"

namespace driver_check::cost {
namespace {

// Microseconds that a call takes, the median of several.
template <typename Call>
double median(Call call) {
    constexpr size_t RUNS = 7;
    std::vector<double> times;
    while (times.size() < RUNS) {
        const double start = now();
        call();
        times.push_back(1e6 * (now() - start));
    }
    std::nth_element(times.begin(), times.begin() + RUNS / 2, times.end());
    return times[RUNS / 2];
}

void measure(size_t size) {
    const File source = newFile("source", pattern(size));
    layer(source);
    const File snapshot = newFile("snapshot", "");
    const File clone = unnamedFile();
    const double to_clone = median([&] { cloneFrom(clone, source); });
    const double to_create = median([&] { createFrom(snapshot, source); });
    expectContent(snapshot, pattern(size), "the bytes of its source");
    note("%5zu KiB: CLONE_FILE %.0f us, SNAPSHOT_CREATE %.0f us", size / 1024, to_clone, to_create);
    need(unlink("source"), "unlink");
    need(unlink("snapshot"), "unlink");
}

}  // namespace

void time() {
    const File source = newFile("small", pattern(SMALL));
    note("median of 7: MODIFY_CHECK set %.0f us, get %.0f us, DEDUP_GET_FILE_INFO %.0f us",
         median([&] { setMark(source); }), median([&] { isMarked(source); }),
         median([&] { isLayered(source); }));
    for (const size_t size : {BLOCK, size_t{1} << 20, size_t{8} << 20}) {
        measure(size);
    }
}

// The least of several tries, since other programs may write to the volume meanwhile.
void space() {
    constexpr size_t SIZE = 8 << 20;
    const File source = newFile("source", pattern(SIZE));
    layer(source);
    long long least = static_cast<long long>(SIZE) * 2;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const long long before = freeBytes();
        expectContent(snapshotOf(source), pattern(SIZE), "the bytes of its source");
        least = std::min(least, std::max(0LL, before - freeBytes()));
        need(unlink("snapshot"), "unlink");
    }
    note("a snapshot of 8 MiB takes %lld KiB: it %s", least / 1024,
         least < static_cast<long long>(SIZE) / 2 ? "shares blocks" : "copies");
}

}  // namespace driver_check::cost
