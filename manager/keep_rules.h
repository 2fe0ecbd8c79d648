// SPDX-License-Identifier: Apache-2.0
// Which snapshots a set of keep rules keeps.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "manager/f2fs_snapshot_manager.h"

namespace manager {

// The properties of a snapshot that the rules use.
struct Dated {
    std::string name;
    int64_t created = 0;  // nanoseconds since the epoch
    bool whole = true;
};

struct Verdict {
    Dated snapshot;
    std::vector<std::string> reasons;  // the rules that keep it; empty: none does
};

// Converts a time to date and time of day in some time zone.
using Calendar = std::tm (*)(std::time_t);

// The calendar of the process's time zone.
std::tm localCalendar(std::time_t time);

// Judges all snapshots, newest first. Each rule counts separately. A rule that finds fewer periods
// than it may keep also keeps the oldest snapshot, so that the history can grow to its full length.
// The newest whole snapshot is always kept. Throws ERROR_ARGUMENT if no rule is given.
std::vector<Verdict> judge(std::vector<Dated> snapshots, const f2fs_snapshot_prune_options& rules,
                           Calendar calendar);

}  // namespace manager
