// SPDX-License-Identifier: Apache-2.0
// How sizes, times, paths and findings are shown to people.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "manager/ctl/library.h"

namespace ctl {

// Like "0 B", "1023 B", "1.0 KiB", "12.3 GiB".
std::string sizeText(uint64_t bytes);

// Nanoseconds since the epoch as ISO 8601: in local time with seconds, or in UTC with all digits.
std::string localTime(int64_t time);
std::string utcTime(int64_t time);

// Like "1 file" and "5 files".
std::string countText(uint64_t count, const char* noun);

// Like "5 files, 1 directory, 0 links, 1.0 KiB". For reports and snapshots' infos.
template <typename T>
std::string countsText(const T& counted) {
    return countText(counted.files, "file") + ", " +
           (counted.directories == 1 ? "1 directory"
                                     : std::to_string(counted.directories) + " directories") +
           ", " + countText(counted.links, "link") + ", " + sizeText(counted.bytes);
}

// A name or path without control characters.
std::string shown(const char* path);

// Prints one line for each, indented; "... and N more" after `limit` of them.
void printFindings(FILE* out, const Findings& findings, size_t limit);

// All that is known about a snapshot, its findings included.
void printInfo(const f2fs_snapshot_info& info, uint64_t disk_bytes);

// Prints a line about a snapshot that is not whole, for those who use it.
void printIfNotWhole(FILE* out, const f2fs_snapshot_info& info);

// Like "whole" and "not whole, temporary".
std::string stateText(const f2fs_snapshot_info& info);

}  // namespace ctl
