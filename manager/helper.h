// SPDX-License-Identifier: Apache-2.0
// Runs the library in a process of its own, f2fs_snapshot_helper.
//
// A program of its own, not a fork: the caller may be a Java VM or have threads that hold locks,
// after which a forked child may do next to nothing.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "manager/file.h"
#include "manager/library_log.h"
#include "manager/monitor.h"

namespace manager {

struct HelperCall {
    std::string program;  // empty: as installed with this library
    std::string target;   // of CreateDirSnapshot, like the sources
    std::vector<std::string> sources;
    std::vector<int> locks;  // descriptors that the helper shall hold as long as it lives
    std::chrono::seconds time_limit;
};

struct HelperResult {
    int32_t result = 0;  // of CreateDirSnapshot
    bool links_blocked = false;
    bool has_log = false;    // the library's lines were captured: `log` has all of them
    bool is_unsure = false;  // if not: one more check pass did not confirm the last one
    LibraryLog log;
};

// Runs one CreateDirSnapshot. Throws ERROR_CANCELLED, ERROR_TIMEOUT, ERROR_LIBRARY if the helper
// died, ERROR_SYSTEM; the result is then filled in with what was received. The helper has ended
// when this returns or throws.
void runHelper(const HelperCall& call, Monitor& monitor, HelperResult& result);

}  // namespace manager
