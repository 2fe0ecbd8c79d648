// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "driver_check/check.h"
#include "driver_check/evidence.h"

namespace driver_check {

struct Result {
    const Check* check = nullptr;
    Verdict verdict = Verdict::unfinished;
    std::vector<std::string> steps;
    std::vector<std::string> notes;
    std::string expected;
    std::string saw;
    std::string reason;
    double seconds = 0;
    bool is_over_time = false;
    bool lacks_request = false;  // skipped, because the driver lacks a request that it needs
};

// Runs checks one after the other, each in a process group of its own that has a time limit.
class Runner {
  public:
    // From here on SIGINT, SIGTERM and SIGHUP end a check and not the program: see endedBy().
    explicit Runner(unsigned time_limit);
    ~Runner();
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    // `directory` becomes the working directory of the check.
    Result run(const Check& check, int directory);
    // The signal that asked the program to end; 0: none so far.
    int endedBy() const {
        return ended_by_;
    }
    // Ends the program by that signal, once everything is cleaned up.
    [[noreturn]] void dieBySignal() const;

  private:
    void runInChild(const Check& check, int directory) const;
    int await(pid_t child, Result& result);

    unsigned time_limit_;
    int ended_by_ = 0;
    sigset_t waited_for_;
    sigset_t before_;
    Evidence* shared_;
};

}  // namespace driver_check
