// SPDX-License-Identifier: Apache-2.0
#include "driver_check/scratch.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

namespace driver_check {
namespace {

constexpr int DIRECTORY = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// A check that was killed may leave a file that it made immutable.
void makeRemovable(int parent, const char* name) {
    const int fd = openat(parent, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    unsigned flags = 0;
    if (fd >= 0 && ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
        (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)) != 0) {
        flags &= ~static_cast<unsigned>(FS_IMMUTABLE_FL | FS_APPEND_FL);
        ioctl(fd, FS_IOC_SETFLAGS, &flags);
    }
    if (fd >= 0) {
        close(fd);
    }
}

bool removeFile(int parent, const char* name) {
    if (unlinkat(parent, name, 0) == 0) {
        return true;
    }
    if (errno == EPERM) {
        makeRemovable(parent, name);
    }
    return unlinkat(parent, name, 0) == 0 || errno == ENOENT;
}

bool clearDirectory(int fd, dev_t device);

bool removeEntry(int parent, const char* name, dev_t device) {
    struct stat attributes;
    if (fstatat(parent, name, &attributes, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno == ENOENT;
    }
    if (!S_ISDIR(attributes.st_mode)) {
        return removeFile(parent, name);
    }
    const int fd = attributes.st_dev == device ? openat(parent, name, DIRECTORY) : -1;
    return fd >= 0 && clearDirectory(fd, device) && unlinkat(parent, name, AT_REMOVEDIR) == 0;
}

// Closes the descriptor.
bool clearDirectory(int fd, dev_t device) {
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(fd), closedir);
    if (stream == nullptr) {
        close(fd);
        return false;
    }
    bool is_empty = true;
    while (const dirent* const entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            is_empty = removeEntry(dirfd(stream.get()), name.c_str(), device) && is_empty;
        }
    }
    return is_empty;
}

}  // namespace

Scratch::Scratch(const std::string& parent) : path_(parent + "/f2fs_driver_check.XXXXXX") {
    if (mkdtemp(&path_[0]) == nullptr) {
        error_ = errno;
        return;
    }
    enter();
}

Scratch::Scratch(const std::string& parent, const std::string& name, Stage stage)
    : path_(parent + "/" + name) {
    if (stage == Stage::before && mkdir(path_.c_str(), 0700) != 0) {
        error_ = errno;
    } else if (stage != Stage::none) {
        enter();
    }
}

void Scratch::enter() {
    fd_ = open(path_.c_str(), DIRECTORY);
    error_ = fd_ < 0 ? errno : 0;
}

bool Scratch::clear() const {
    struct stat attributes;
    const int own = openat(fd_, ".", DIRECTORY);
    return own >= 0 && fstat(own, &attributes) == 0 && clearDirectory(own, attributes.st_dev);
}

Scratch::~Scratch() {
    if (fd_ < 0) {
        return;
    }
    if (!is_kept_) {
        clear();
        rmdir(path_.c_str());
    }
    close(fd_);
}

}  // namespace driver_check
