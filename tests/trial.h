// Tests that try their luck: a seed that is printed and can be given, a long form, and the tool as
// a running process whose log is followed line by line.
//
// F2FS_SNAPSHOT_SEED=N repeats a run's choices, F2FS_SNAPSHOT_LONG=1 runs the long form.
#pragma once

#include <stdlib.h>

#include <iostream>
#include <random>
#include <utility>

#include "process.h"

inline int rounds(int in_short, int in_long) {
    return getenv("F2FS_SNAPSHOT_LONG") != nullptr ? in_long : in_short;
}

class Random {
  public:
    Random() {
        const char* given = getenv("F2FS_SNAPSHOT_SEED");
        const auto seed = given != nullptr ? static_cast<uint32_t>(strtoul(given, nullptr, 0))
                                           : std::random_device{}();
        std::cout << "F2FS_SNAPSHOT_SEED=" << seed << std::endl;
        engine_.seed(seed);
    }
    size_t below(size_t bound) {
        return engine_() % bound;
    }
    uint32_t seed() {
        return static_cast<uint32_t>(engine_());
    }

  private:
    std::mt19937 engine_;
};

class ToolRun {
  public:
    explicit ToolRun(const std::vector<std::string>& command_line) {
        int ends[2] = {-1, -1};
        if (pipe2(ends, O_CLOEXEC) == 0) {
            const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
            pid = startProcess(command_line, null, ends[1]);
            close(null);
            close(ends[1]);
            log_ = fdopen(ends[0], "r");
        }
    }
    ~ToolRun() {
        if (pid > 0) {
            endChild(pid, SIGKILL);
        }
        free(line_);
        fclose(log_);
    }
    ToolRun(const ToolRun&) = delete;
    ToolRun& operator=(const ToolRun&) = delete;

    // The next line of the log, or nullptr at its end. The host's log puts empty ones between.
    const char* nextLine() {
        ssize_t length = 0;
        while ((length = getline(&line_, &size_, log_)) == 1) {
        }
        return length < 0 ? nullptr : line_;
    }
    // The exit status, or 128 + the signal that ended it.
    int wait() {
        while (nextLine() != nullptr) {
        }
        return endChild(std::exchange(pid, -1));
    }

    pid_t pid = -1;

  private:
    FILE* log_ = nullptr;
    char* line_ = nullptr;
    size_t size_ = 0;
};
