// SPDX-License-Identifier: Apache-2.0
// Follows a create by the lines of the library's log.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

namespace manager {

class LibraryLog {
  public:
    // Takes the next line. time: nanoseconds since the epoch.
    void add(const std::string& line, int64_t time);
    // Takes a line for tail() only.
    void addOther(const std::string& line);

    uint64_t files_taken = 0;  // snapshots begun
    uint32_t passes = 0;       // check passes begun
    // Of the last pass:
    uint64_t files_checked = 0;
    std::string unreadable;  // a directory that it could not read; empty: none
    // The last pass began between these two (nanoseconds since the epoch).
    int64_t earliest = 0;
    int64_t latest = 0;

    // The last lines, oldest first.
    const std::deque<std::string>& tail() const {
        return tail_;
    }

  private:
    void beginPass(int64_t time);

    bool is_checking_ = false;
    int64_t last_time_ = 0;
    std::deque<std::string> tail_;
};

}  // namespace manager
