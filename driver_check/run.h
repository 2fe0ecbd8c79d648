// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "driver_check/check.h"
#include "driver_check/report.h"

namespace driver_check {

// Exit statuses of the program.
constexpr int HOLDS = 0;
constexpr int FAILS = 1;
constexpr int CANNOT_RUN = 2;

struct Options {
    std::string directory;
    std::vector<std::string> only;  // names of checks or of groups; empty: all
    Stage stage = Stage::none;
    Format format = Format::text;
    unsigned time_limit = 60;  // seconds for one check
};

bool isNamed(const Check& check, const std::string& name);

// Runs the checks that the options ask for and reports them. Returns the exit status. SIGINT,
// SIGTERM and SIGHUP end the program once everything is removed.
int run(const Options& options);

}  // namespace driver_check
