// SPDX-License-Identifier: Apache-2.0
// A kernel for tests: stands in for every system call that the library makes.
//
// During a run, the library's file calls pass through the fake to the real temporary directory, a
// model of the driver answers its requests, and one trace records calls and log lines in order. A
// test can script calls, fail them by number, or watch them. Directories are read in name order and
// descriptors are shown as paths, so that traces are the same on every machine.
#pragma once

#include <dirent.h>
#include <errno.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// A text with `to` wherever it held `from`.
std::string replaced(std::string text, const std::string& from, const std::string& to);

class FakeKernel {
  public:
    // Paths below root are written as "$" in the trace.
    explicit FakeKernel(std::string root) : root_(std::move(root)) {}
    ~FakeKernel();
    FakeKernel(const FakeKernel&) = delete;
    FakeKernel& operator=(const FakeKernel&) = delete;

    // Runs an operation of the library on this kernel, with a new trace.
    template <typename Operation>
    auto run(Operation operation) {
        trace.clear();
        calls = 0;
        active = this;
        auto result = operation();
        active = nullptr;
        return result;
    }

    struct Answer {
        int result = -1;
        int error = EIO;
        std::optional<uint32_t> word;  // stored as the first word of a request's record
    };
    // Scripts one answer: the call whose trace line begins with `call`, after `skip` matches,
    // returns `given` and is not executed.
    void answer(const std::string& call, Answer given, int skip = 0);

    // Entry types that the directory stream reports instead of the true ones, by name.
    std::map<std::string, unsigned char> types;
    // False: requests go to the driver of the volume that root is on.
    bool has_driver = true;
    // True: paths in /data/media lead to the same paths below root.
    bool has_media = false;
    // Called before each call with its trace line. It may change files as a concurrent writer
    // would.
    std::function<void(const std::string& call)> before;

    // Fails the nth call (from 1) with error, or every call from the nth on.
    struct Fault {
        size_t call = 0;
        bool from_then_on = false;
        int error = 0;
    };
    Fault fault;

    // "open $/a O_RDWR", "I text", "E text", ...; " = -1" follows a failed call. Newlines in a text
    // are shown as \n.
    std::vector<std::string> trace;
    size_t calls = 0;   // of the last run; log lines do not count
    size_t faults = 0;  // calls that a fault has failed
    // The trace's lines that begin with one of these; by default, all of them.
    std::string text(const std::vector<std::string>& beginnings = {""}) const;
    // What the library opened and has not closed.
    size_t openDescriptors() const {
        return descriptors_.size() + streams_.size();
    }

    // For the functions that stand in for the C library's; null outside of a run.
    inline static FakeKernel* active = nullptr;
    std::string shown(std::string text) const;
    // Answers a call: by the script, or by `real`.
    int call(const std::string& line, const std::function<int()>& real, void* record = nullptr);
    int request(int fd, unsigned long code, void* record);
    std::string nameOf(int fd) const;
    std::string where(const char* path) const;

    std::map<int, std::string> descriptors_;
    struct Stream {
        std::string path;
        std::vector<dirent> entries;
        size_t next = 0;
    };
    std::map<DIR*, Stream> streams_;

  private:
    struct File {
        int kept_fd = -1;  // keeps the inode number from being reused
        int16_t is_layered = 0;
        uint32_t flag = 0;
        std::string marked_content;
    };
    File& file(int fd);
    int model(int fd, const std::string& name, void* record);

    std::string root_;
    struct Scripted {
        std::string call;
        Answer answer;
        int skip = 0;
    };
    std::vector<Scripted> script_;
    std::map<ino_t, File> files_;
};
