// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "driver_check/runner.h"

namespace driver_check {

struct System {
    std::string directory;
    std::string file_system;
    std::string kernel;
    std::string caller;  // 32-bit or 64-bit, and the user
};

// Writes the results to standard output, in one format.
class Report {
  public:
    virtual ~Report() = default;
    // `is_bare`: the file system answers none of the requests.
    virtual void begin(const System& system, size_t checks, bool is_bare) = 0;
    virtual void add(const Result& result) = 0;
    virtual void end(const std::vector<Result>& results) = 0;
};

enum class Format { text, ktap, json };
std::unique_ptr<Report> makeReport(Format format);

// Shown on standard error while a check runs, where that is a terminal.
void showProgress(const std::string& text);
void hideProgress();

}  // namespace driver_check
