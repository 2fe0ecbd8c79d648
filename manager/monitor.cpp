// SPDX-License-Identifier: Apache-2.0
#include "manager/monitor.h"

#include "manager/abi.h"

namespace manager {

namespace {

constexpr std::chrono::milliseconds INTERVAL(100);

}  // namespace

Monitor::Monitor(const f2fs_snapshot_callbacks* callbacks) : callbacks_(optionsOf(callbacks)) {
    now.size = sizeof now;
}

void Monitor::begin(f2fs_snapshot_phase phase, uint64_t files_total) {
    now.phase = phase;
    now.files_done = 0;
    now.files_total = files_total;
    report();
    throwIfCancelled();
}

void Monitor::step(uint64_t files) {
    now.files_done += files;
    if (std::chrono::steady_clock::now() >= next_report_) {
        report();
        throwIfCancelled();
    }
}

void Monitor::report() {
    next_report_ = std::chrono::steady_clock::now() + INTERVAL;
    if (callbacks_.progress != nullptr) {
        callbacks_.progress(callbacks_.context, &now);
    }
}

void Monitor::throwIfCancelled() const {
    if (!cancel_ignored_ && callbacks_.cancel != nullptr &&
        callbacks_.cancel(callbacks_.context) != 0) {
        throw Failure(F2FS_SNAPSHOT_ERROR_CANCELLED, "", "cancelled");
    }
}

void Monitor::log(int32_t priority, const char* line) const {
    if (callbacks_.log != nullptr) {
        callbacks_.log(callbacks_.context, priority, line);
    }
}

}  // namespace manager
