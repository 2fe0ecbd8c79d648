// SPDX-License-Identifier: Apache-2.0
// Files and directories by descriptor. Functions throw Failure; `path` is for its message.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

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

using DirectoryStream = std::unique_ptr<DIR, int (*)(DIR*)>;

// Opens a directory for reading, never through a link at its last name.
UniqueFd openDirectory(int parent, const char* name, const std::string& path);

// A stream over the directory's entries, from the first one. The descriptor stays the caller's.
DirectoryStream readEntries(int directory, const std::string& path);

// Reads the next entry except "." and ".."; nullptr at the end.
const dirent* nextEntry(DIR* stream, const std::string& path);

std::string readFile(int parent, const char* name, const std::string& path);

// Makes a new file (0600), writes and syncs it.
void writeFile(int parent, const char* name, const std::string& path, const std::string& content);

void syncFile(int fd, const std::string& path);

// Removes a name and all that is below it, following no link and leaving no mounted file system. A
// name that is not there is no failure. on_file is called after each name that is gone.
template <typename OnRemoved>
void removeTree(int parent, const char* name, const std::string& path, OnRemoved on_removed);
void removeTree(int parent, const char* name, const std::string& path);

// The path that leads to what a descriptor has open.
std::string procPath(int fd);

}  // namespace manager
