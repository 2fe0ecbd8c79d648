// Runs a program and keeps what it said.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

struct Outcome {
    int status = -1;  // the exit status, or 128 + the signal that ended it
    std::string out;
    std::string err;
};

inline std::string contentOf(FILE* file) {
    std::string text;
    rewind(file);
    for (int byte = 0; (byte = fgetc(file)) != EOF;) {
        text += static_cast<char>(byte);
    }
    fclose(file);
    return text;
}

inline Outcome runProcess(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    FILE* out = tmpfile();
    FILE* err = tmpfile();
    const pid_t child = fork();
    if (child == 0) {
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), contentOf(out),
            contentOf(err)};
}
