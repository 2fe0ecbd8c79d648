// SPDX-License-Identifier: Apache-2.0
// Runs programs and keeps what they said.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/test_tree.h"

struct Outcome {
    int status = -1;  // the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

// Starts a process that runs `body`, ends with its result, and gets a signal when this one ends.
template <typename Body>
pid_t startChild(Body body, int at_the_end = SIGKILL) {
    const pid_t child = fork();
    if (child < 0) {
        perror("fork");
        abort();  // -1 as a process would be every process
    }
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, at_the_end);
        alarm(3600);  // who waits for ever shall fail the test, not block it
        _exit(body());
    }
    return child;
}

// Sends a signal (0: none) to a child and waits for its end. Returns the status, as above.
inline int endChild(pid_t child, int signal = 0) {
    int status = 0;
    kill(child, signal);
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Becomes a program that writes to these descriptors. Returns only when there is none.
inline int execute(const std::vector<std::string>& arguments, int out, int err) {
    std::vector<char*> argv(arguments.size() + 1);  // the last one stays nullptr
    std::transform(arguments.begin(), arguments.end(), argv.begin(),
                   [](const std::string& text) { return const_cast<char*>(text.c_str()); });
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execvp(argv[0], argv.data());
    return 127;
}

inline Outcome runProcess(const std::vector<std::string>& arguments) {
    const int out = memfd_create("out", MFD_CLOEXEC);
    const int err = memfd_create("err", MFD_CLOEXEC);
    const int status = endChild(startChild([&] { return execute(arguments, out, err); }));
    Outcome outcome = {status, read("/proc/self/fd/" + std::to_string(out)),
                       read("/proc/self/fd/" + std::to_string(err))};
    close(out);
    close(err);
    return outcome;
}

// What commands say, errors included.
inline std::string shell(const std::string& script) {
    return runProcess({"sh", "-c", "exec 2>&1; export LC_ALL=C; " + script}).out;
}
