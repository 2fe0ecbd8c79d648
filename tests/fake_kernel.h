// SPDX-License-Identifier: Apache-2.0
// A kernel for tests: stands in for every system call that the library makes.
//
// In a run, the library's file calls go through the fake to the real temporary folder, its requests
// are answered by a model of the driver, and calls and log lines are written to one trace, in
// order. Calls can be scripted, failed by number, or watched; directories are read in name order
// and descriptors counted from 100, so that traces are the same on every machine. Each thread has
// its own run.
#pragma once

#include <dirent.h>
#include <errno.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

class FakeKernel {
  public:
    // Paths below root are written as "$" in the trace.
    explicit FakeKernel(std::string root) : root_(std::move(root)) {}

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
        std::optional<uint32_t> word;  // put into the first word of a request's record
    };
    // The first call whose trace line begins so, or the one after skip others, is answered by the
    // script, once and without effect.
    void answer(const std::string& call, Answer given, int skip = 0);

    // Entry types that the directory stream reports instead of the true ones, by name.
    std::map<std::string, unsigned char> types;
    // Whether the fake answers requests; else they go to the driver of the volume that root is on.
    bool has_driver = true;
    // Called before each call with its trace line: the place for a concurrent writer.
    std::function<void(const std::string& call)> before;

    // Fails the nth call (from 1) with error, or every call from the nth on.
    struct Fault {
        size_t call = 0;
        bool from_then_on = false;
        int error = 0;
    };
    Fault fault;

    // "open $/a O_RDWR = 100", "I text", "E text", ... with newlines in a text shown as \n.
    std::vector<std::string> trace;
    size_t calls = 0;   // calls of the last run; log lines are none
    size_t faults = 0;  // calls that a fault has failed
    // The trace's lines with one of the beginnings; without any, all of them.
    std::string text(const std::vector<std::string>& beginnings = {""}) const;
    std::string log() const {
        return text({"I ", "E ", "? "});
    }
    // What the library opened and has not closed.
    size_t openDescriptors() const {
        return descriptors_.size() + streams_.size();
    }

    // For the interposed calls, which are the C library's while no fake is active.
    inline static thread_local FakeKernel* active = nullptr;
    std::string shown(std::string text) const;
    std::optional<int> intercept(const std::string& call, void* record = nullptr);
    int note(const std::string& call, int result);
    int request(int fd, unsigned long code, void* record);
    std::set<int> descriptors_;
    struct Stream {
        std::vector<dirent> entries;
        size_t next = 0;
    };
    std::map<DIR*, Stream> streams_;

  private:
    struct File {
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
    std::map<std::pair<uint64_t, int64_t>, File> files_;  // by inode number and birth
};
