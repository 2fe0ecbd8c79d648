// SPDX-License-Identifier: Apache-2.0
// Tells people how far a call is.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

#include "manager/f2fs_snapshot_manager.h"

namespace ctl {

class Progress {
  public:
    using Time = std::chrono::steady_clock::time_point;

    enum class Style { SILENT, LINES, BAR };

    // columns  of the terminal, for a bar
    Progress(FILE* out, Style style, size_t columns = 80)
        : out_(out), style_(style), columns_(columns) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() {
        clear();
    }

    // Lines come every few seconds, a bar is drawn again each time.
    void show(const f2fs_snapshot_progress& progress, Time now);
    // Takes the bar away, so that something else can be printed.
    void clear();

  private:
    std::string describe(const f2fs_snapshot_progress& progress, Time now) const;

    FILE* out_;
    Style style_;
    size_t columns_;
    bool is_bar_drawn_ = false;
    int32_t phase_ = 0;
    uint32_t pass_ = 0;
    Time phase_began_;
    Time next_line_;
};

// That of a program whose standard error is `fd`.
Progress::Style styleFor(int fd, bool quiet);
size_t columnsOf(int fd);

}  // namespace ctl
