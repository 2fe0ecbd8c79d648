// SPDX-License-Identifier: Apache-2.0
// Files of a check's own directory, which is the working directory of its process. A step is
// recorded for each call here that changes one; a call that fails ends the check.
#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "driver_check/evidence.h"

namespace driver_check {

constexpr size_t BLOCK = 4096;
constexpr size_t SMALL = 4 * BLOCK;  // of a file whose size does not matter

// An open file, and its name in steps and evidence.
class File {
  public:
    // Opens it as open(2) does. title  its name in steps and evidence, if not `name`
    File(const std::string& name, int flags, mode_t mode = 0644, const char* title = nullptr);
    File(File&& from) noexcept;
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File();

    int fd() const {
        return fd_;
    }
    const char* name() const {
        return name_.c_str();
    }
    // How it was opened, for evidence: "source (O_RDONLY)".
    std::string described() const;

  private:
    int fd_;
    std::string name_;
};

// `size` bytes other than 0. All blocks differ from each other and from those of other seeds.
std::string pattern(size_t size, unsigned seed = 1);

// O_RDWR, mode 0644.
File newFile(const std::string& name, const std::string& content);
// An unnamed temporary file of the directory, O_RDWR and mode 0770, as the library makes them.
File unnamedFile();

void writeAt(const File& file, const std::string& data, off_t offset);
void resize(const File& file, off_t size);

off_t sizeOf(const File& file);
// All of its bytes, or those of a range, as read(2) gives them.
std::string contentOf(const File& file);
std::string contentOf(const File& file, off_t offset, size_t size);
// Fails the check unless the file holds exactly these bytes. `what` names them in the evidence.
void expectContent(const File& file, const std::string& expected, const std::string& what);
// The same through a new descriptor, then again after the cached pages were dropped.
void expectStored(const File& file, const std::string& expected, const std::string& what);

// Writes the file back and drops its cached pages.
void dropPages(const File& file);
// Free bytes of the volume, after everything is written back.
long long freeBytes();

// A helper process that runs `body` until it returns or the object is destroyed.
class Process {
  public:
    explicit Process(const std::function<void()>& body);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    // Waits for the end of the process. Returns false if the body did not run to its end.
    bool join();

  private:
    pid_t pid_;
};

// How long processes race each other in this run.
extern double race_seconds;
extern bool is_long;  // --long

double now();  // seconds of a steady clock

// The time for a race. Where processes meet in the kernel only by chance, not at each call, it is
// `factor` times as long.
class Race {
  public:
    explicit Race(double factor = 1) : end_(now() + factor * race_seconds) {}
    bool goesOn() const {
        return now() < end_;
    }

  private:
    double end_;
};

}  // namespace driver_check
