// SPDX-License-Identifier: Apache-2.0
// What the tests share: files, trees, processes, and random choices.
//
// F2FS_SNAPSHOT_SEED=N repeats a run's random choices, F2FS_SNAPSHOT_LONG=1 runs the long form of
// randomised tests. F2FS_SNAPSHOT_TEST_VOLUME=DIR names a directory on a volume of a real driver.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/memfd.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

// Without a build tree, on a device, the tool is the one on the search path.
#ifndef F2FS_SNAPSHOT_TOOL_PATH
#define F2FS_SNAPSHOT_TOOL_PATH "f2fs_snapshot"
#endif

namespace fs = std::filesystem;

inline void write(const fs::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    ASSERT_TRUE(file.flush()) << path;
}

inline std::string read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// -1 if the path does not exist.
inline int modeOf(const fs::path& path) {
    struct stat path_stat = {};
    return lstat(path.c_str(), &path_stat) == 0 ? static_cast<int>(path_stat.st_mode & 07777) : -1;
}

using Dump = std::vector<std::string>;

// A line per entry below top: directory/, link->text, file:content (a long one by size and hash).
// Sorted, so that std::includes tells whether one tree is a part of another.
inline Dump dump(const fs::path& top) {
    Dump lines;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top)) {
        std::string line = entry.path().lexically_relative(top).string();
        // The type of the entry itself: a link can lead to itself, where its target has no type.
        const fs::file_type type = entry.symlink_status().type();
        if (type == fs::file_type::symlink) {
            line += "->" + fs::read_symlink(entry).string();
        } else if (type == fs::file_type::directory) {
            line += "/";
        } else if (type == fs::file_type::regular) {
            const std::string content = read(entry);
            line += ":" + (content.size() <= 20
                               ? content
                               : std::to_string(content.size()) + " bytes " +
                                     std::to_string(std::hash<std::string>()(content)));
        }
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

inline const char* givenVolume() {
    return getenv("F2FS_SNAPSHOT_TEST_VOLUME");
}

// Makes a directory of an unused name.
inline fs::path makeDirectory(const fs::path& parent) {
    std::string name = parent / "f2fs_snapshot.XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr) << name;
    return fs::canonical(name);
}

// The test's directory by a path that is the same in every run.
const std::string HERE = "/proc/self/cwd";

// A test in a directory of its own, which is the working directory.
class TestTree : public testing::Test {
  protected:
    void SetUp() override {
        fs::current_path(root);
        umask_ = umask(0);
    }
    void TearDown() override {
        umask(umask_);
        fs::current_path("/");
        fs::remove_all(root);
    }
    std::string at(const std::string& path) const {
        return root.string() + "/" + path;
    }

    // In memory if possible, because thousands of trees are made.
    const fs::path root =
        makeDirectory(givenVolume() != nullptr        ? givenVolume()
                      : access("/dev/shm", W_OK) == 0 ? "/dev/shm"
                                                      : fs::temp_directory_path());

  private:
    mode_t umask_ = 0;
};

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
        alarm(3600);  // a child that waits for ever fails the test and does not block it
        _exit(body());
    }
    return child;
}

// Sends a signal (0: none) to a child and waits for its end. Returns the status, as above, or -1 if
// there is no child.
inline int endChild(pid_t child, int signal = 0) {
    int status = 0;
    if (child <= 0) {
        return -1;
    }
    kill(child, signal);
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Becomes a program that writes to these descriptors. Returns only if it cannot be executed.
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
    const auto out = static_cast<int>(syscall(__NR_memfd_create, "out", MFD_CLOEXEC));
    const auto err = static_cast<int>(syscall(__NR_memfd_create, "err", MFD_CLOEXEC));
    const int status = endChild(startChild([&] { return execute(arguments, out, err); }));
    Outcome outcome = {status, read("/proc/self/fd/" + std::to_string(out)),
                       read("/proc/self/fd/" + std::to_string(err))};
    close(out);
    close(err);
    return outcome;
}

// What commands print, errors included.
inline std::string shell(const std::string& script) {
    return runProcess({"sh", "-c", "exec 2>&1; export LC_ALL=C; " + script}).out;
}

inline int rounds(int in_short, int in_long) {
    return getenv("F2FS_SNAPSHOT_LONG") != nullptr ? in_long : in_short;
}

class Random {
  public:
    explicit Random(uint32_t seed) : engine_(seed) {}
    Random() {
        const char* given = getenv("F2FS_SNAPSHOT_SEED");
        const auto seed = given != nullptr ? static_cast<uint32_t>(strtoul(given, nullptr, 0))
                                           : std::random_device{}();
        std::cout << "F2FS_SNAPSHOT_SEED=" << seed << std::endl;
        engine_.seed(seed);
    }
    // The same on every machine, which the distributions of the standard library are not.
    size_t below(size_t bound) {
        return engine_() % bound;
    }

  private:
    std::mt19937 engine_;
};
