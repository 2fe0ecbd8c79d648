// SPDX-License-Identifier: Apache-2.0
// A file descriptor that its owner closes.
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

// A path to the file that a descriptor has open, even if the file has no name any more. With it an
// O_PATH descriptor can be opened again for reading or writing, and can be passed to calls that
// refuse O_PATH descriptors: chmod, truncate and the attribute calls.
struct ProcPath {
    explicit ProcPath(int fd) {
        snprintf(text, sizeof(text), "/proc/self/fd/%d", fd);
    }
    char text[sizeof("/proc/self/fd/-2147483648")];
};

}  // namespace emulator
