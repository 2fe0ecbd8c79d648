// SPDX-License-Identifier: Apache-2.0
// The results of calls as C++ values, and their conversion to structures of the C interface.
#pragma once

#include <string>
#include <vector>

#include "manager/f2fs_snapshot_manager.h"

namespace manager {

struct Finding {
    std::string path;
    f2fs_snapshot_finding_kind kind;
    f2fs_snapshot_severity severity;
    std::string message;
    int os_error = 0;
};

struct Counts {
    uint64_t files = 0;
    uint64_t directories = 0;
    uint64_t links = 0;
    uint64_t bytes = 0;
};

struct Report {
    std::vector<Finding> findings;
    Counts counts;
};

// A generation, as info.json records it, except for the path.
struct Info {
    std::string name;
    std::string path;  // .../NAME/snapshot
    std::vector<std::string> sources;
    int64_t created = 0;  // nanoseconds since the epoch, like the next two
    int64_t instant_earliest = 0;
    int64_t instant_latest = 0;
    Counts counts;
    uint32_t attempts = 0;
    uint32_t passes = 0;
    uint64_t files_again = 0;
    bool whole = false;
    bool links_blocked = false;
    bool has_digests = false;
    bool is_temporary = false;
    std::vector<Finding> findings;
};

// Structures of the C interface that own what they point to.
f2fs_snapshot_report* newReport(Report report);
f2fs_snapshot_info* newInfo(Info info);
void freeReport(f2fs_snapshot_report* report);
void freeInfo(f2fs_snapshot_info* info);

}  // namespace manager
