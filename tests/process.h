// Runs programs and keeps what they said.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

struct Outcome {
    int status = -1;  // the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

// Starts a process that runs `body`, ends with its result, and gets a signal when this one ends.
template <typename Body>
pid_t startChild(Body body, int at_the_end = SIGKILL) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, at_the_end);
        alarm(3600);  // who waits for ever shall fail the test, not block it
        _exit(body());
    }
    return child;
}

// Starts a program that writes to these descriptors.
inline pid_t startProcess(const std::vector<std::string>& arguments, int out, int err,
                          int at_the_end = SIGKILL) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    return startChild(
        [&] {
            dup2(out, STDOUT_FILENO);
            dup2(err, STDERR_FILENO);
            execvp(argv[0], argv.data());
            return 127;
        },
        at_the_end);
}

// The exit status in what waitpid told, or 128 + the signal that ended the process.
inline int exitStatus(int wait_status) {
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

// Sends a signal (0: none) to a child and waits for its end. Returns the status, as above.
inline int endChild(pid_t child, int signal = 0) {
    int status = 0;
    kill(child, signal);
    waitpid(child, &status, 0);
    return exitStatus(status);
}

inline std::string contentOf(FILE* file) {
    std::string text(static_cast<size_t>(lseek(fileno(file), 0, SEEK_END)), '\0');
    rewind(file);
    text.resize(fread(text.data(), 1, text.size(), file));
    fclose(file);
    return text;
}

inline Outcome runProcess(const std::vector<std::string>& arguments) {
    FILE* out = tmpfile();
    FILE* err = tmpfile();
    const int status = endChild(startProcess(arguments, fileno(out), fileno(err)));
    return {status, contentOf(out), contentOf(err)};
}
