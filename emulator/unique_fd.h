// SPDX-License-Identifier: Apache-2.0
// A file descriptor that is closed when its owner goes away.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace emulator {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() {
        reset();
    }

    int get() const {
        return fd_;
    }
    bool valid() const {
        return fd_ >= 0;
    }
    int release() {
        return std::exchange(fd_, -1);
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

// The path that leads to what a descriptor has open, whatever became of its name. It turns an
// O_PATH descriptor into one for reading or writing, and stands in for the calls that have no
// descriptor form for O_PATH (chmod, truncate, the attribute calls).
struct ProcPath {
    explicit ProcPath(int fd) {
        snprintf(text, sizeof(text), "/proc/self/fd/%d", fd);
    }
    char text[sizeof("/proc/self/fd/-2147483648")];
};

}  // namespace emulator
