// SPDX-License-Identifier: Apache-2.0
// A check holds the driver to one clause of docs/kernel-interface.md.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace driver_check {

// The requests that a check needs, as bits.
enum Needs : unsigned {
    NOTHING = 0,
    INFO = 1 << 0,
    MARK = 1 << 1,
    CLONE = 1 << 2,
    PREPARE = 1 << 3,
    CREATE = 1 << 4,
    REVOKE = 1 << 5,
    LAYER = CLONE | PREPARE,
    SNAPSHOT = LAYER | CREATE,
    ALL = SNAPSHOT | INFO | MARK | REVOKE,
};

enum class Stage { none, before, after };

struct Check {
    std::string name;    // GROUP.NAME
    const char* clause;  // a heading of docs/kernel-interface.md
    unsigned needs;      // Needs
    const char* means;   // what a failure means to users of the library
    std::function<void()> run;
    unsigned provides = NOTHING;  // the request that is missing when it fails
    Stage stage = Stage::none;    // belongs to a run with this --stage only
};

// Every check, in the order in which they run.
const std::vector<Check>& allChecks();

}  // namespace driver_check
