// SPDX-License-Identifier: Apache-2.0
// Calls the caller's callbacks, as often as the C interface promises.
#pragma once

#include <chrono>

#include "manager/f2fs_snapshot_manager.h"

namespace manager {

class Monitor {
  public:
    // callbacks  may be nullptr
    explicit Monitor(const f2fs_snapshot_callbacks* callbacks);

    // Begins a phase and reports it at once.
    void begin(f2fs_snapshot_phase phase, uint64_t files_total = 0);
    // Counts files done in this phase. About every tenth of a second, reports and asks for cancel.
    void step(uint64_t files = 1);
    // The same without counting. For loops that wait.
    void poll() {
        step(0);
    }
    // Reports at once.
    void report();
    // Throws ERROR_CANCELLED if the caller wants to end the call.
    void throwIfCancelled() const;
    void log(int32_t priority, const char* line) const;
    // Cancel is not asked for any more: a removal that has begun is completed.
    void ignoreCancel() {
        cancel_ignored_ = true;
    }

    // The contents of the next report.
    f2fs_snapshot_progress now = {};

  private:
    f2fs_snapshot_callbacks callbacks_;
    std::chrono::steady_clock::time_point next_report_;
    bool cancel_ignored_ = false;
};

}  // namespace manager
