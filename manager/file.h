// SPDX-License-Identifier: Apache-2.0
// Files and directories by descriptor. Functions throw Failure; `path` is for its message.
#pragma once

#include <linux/stat.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace manager {

// A file descriptor that is closed when its owner goes away.
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

// A path to the descriptor's open file that works even after it was renamed or removed.
std::string procPath(int fd);

// Opens a directory for reading, never through a link at its name ("." is the parent itself).
UniqueFd openDirectory(int parent, const char* name, const std::string& path);

// Reads the attributes of a name; a link is not followed. Returns 0 or an errno value.
int attributesOf(int parent, const char* name, struct statx& attributes);

// Whether both are of the same file (device and inode number).
bool isSame(const struct statx& one, const struct statx& other);

// The text of a symbolic link.
std::string readLink(int parent, const char* name, const std::string& path);

std::string readFile(int parent, const char* name, const std::string& path);

// Makes a new file (0600) with this content.
void writeFile(int parent, const char* name, const std::string& path, const std::string& content);

struct Names {
    std::vector<std::string> names;  // sorted by bytes, without "." and ".."
    bool has_unknown_types = false;  // the file system does not report the types of all entries
};
// Reads a directory's names. Returns 0 or an errno value.
int readNames(int directory, Names& names);

// Removes a name and all that is below it. Follows no link, not even one put there meanwhile, and
// needs few descriptors at any depth. A name that does not exist is no failure. on_removed is
// called for each removed entry that is not a directory.
void removeTree(int parent, const std::string& name, const std::string& path,
                const std::function<void()>& on_removed);

}  // namespace manager
