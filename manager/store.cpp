// SPDX-License-Identifier: Apache-2.0
#include "manager/store.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "manager/failure.h"

namespace manager {

namespace {

constexpr size_t MAX_NAME = 100;

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

void lockOrFail(int fd, int operation, const std::string& path, const char* why) {
    if (flock(fd, operation | LOCK_NB) == 0) {
        return;
    }
    if (errno == EWOULDBLOCK) {
        throw Failure(F2FS_SNAPSHOT_ERROR_BUSY, path, shown(path) + " is in use: " + why);
    }
    failSystem("lock", path);
}

}  // namespace

void checkName(const std::string& name) {
    const auto refuse = [&](const char* why) {
        throw Failure(F2FS_SNAPSHOT_ERROR_NAME, name,
                      "a snapshot cannot have the name \"" + shown(name) + "\": " + why);
    };
    if (name.empty()) {
        refuse("it is empty");
    }
    if (name.size() > MAX_NAME) {
        refuse("it has more than 100 bytes");
    }
    if (name[0] == '.') {
        refuse("it begins with a dot");
    }
    for (const char character : name) {
        if (character == '/' || static_cast<unsigned char>(character) < ' ' || character == 0x7F) {
            refuse("it contains a slash or a control character");
        }
    }
}

UniqueFd openResolved(std::string& path) {
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid()) {
        failSystem("open the directory", path);
    }
    const std::string resolved = readLink(AT_FDCWD, procPath(fd.get()).c_str(), path);
    // For a directory that is removed or out of reach, the kernel's text is not a path.
    struct statx here = {};
    struct statx there = {};
    if (attributesOf(fd.get(), ".", here) != 0 ||
        attributesOf(AT_FDCWD, resolved.c_str(), there) != 0 || !isSame(here, there)) {
        failSystem("find the path of the directory", path, ENOENT);
    }
    path = resolved;
    return fd;
}

Store::Store(const std::string& path, bool create) : path_(path) {
    if (path.empty()) {
        throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, "", "the path of the store is empty");
    }
    if (create && mkdir(path.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
        failSystem("make the store", path);
    }
    fd_ = openResolved(path_);
    checkAccess();
}

void Store::checkAccess() const {
    struct statx attributes = {};
    const int error = attributesOf(fd(), ".", attributes);
    if (error != 0) {
        failSystem("look at the store", path_, error);
    }
    const auto refuse = [&](const std::string& why) {
        throw Failure(F2FS_SNAPSHOT_ERROR_STORE, path_, shown(path_) + " is no store: " + why);
    };
    if (attributes.stx_uid != geteuid()) {
        refuse("it belongs to another user");
    }
    if ((attributes.stx_mode & (S_IRWXG | S_IRWXO)) != 0) {
        refuse("others than its owner can enter it, which chmod 700 ends");
    }
}

UniqueFd Store::lock(Monitor& monitor) const {
    // An open file of its own, so that calls on one handle exclude each other, too.
    UniqueFd fd = openDirectory(fd_.get(), ".", path_);
    lockOrFail(fd.get(), LOCK_EX, path_, "another call changes the store");
    for (const std::string& name : entries()) {
        if (name[0] == '.' && (endsWith(name, ".partial") || endsWith(name, ".removed"))) {
            remove(name, monitor);
        }
    }
    return fd;
}

std::vector<std::string> Store::entries() const {
    Names names;
    const int error = readNames(fd(), names);
    if (error != 0) {
        failSystem("read the store", path_, error);
    }
    return std::move(names.names);
}

std::vector<std::string> Store::names() const {
    std::vector<std::string> names = entries();
    const auto is_hidden = [](const std::string& name) { return name[0] == '.'; };
    names.erase(std::remove_if(names.begin(), names.end(), is_hidden), names.end());
    return names;
}

void Store::removeLogs() const {
    for (const std::string& name : entries()) {
        if (name[0] == '.' && endsWith(name, ".log")) {
            removeTree(fd(), name, pathOf(name), [] {});
        }
    }
}

void Store::requireFree(const std::string& name) const {
    checkName(name);
    struct statx there = {};
    if (attributesOf(fd(), name.c_str(), there) != ENOENT) {
        throw Failure(F2FS_SNAPSHOT_ERROR_EXISTS, pathOf(name),
                      "there is a snapshot " + shown(name) + " already in " + shown(path_) +
                          ": destroy it first, or take another name");
    }
}

UniqueFd Store::open(const std::string& name) const {
    checkName(name);
    UniqueFd fd(openat(fd_.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid() && errno == ENOENT) {
        throw Failure(F2FS_SNAPSHOT_ERROR_NOT_FOUND, pathOf(name),
                      "there is no snapshot " + shown(name) + " in " + shown(path_), ENOENT);
    }
    if (!fd.valid() && (errno == ENOTDIR || errno == ELOOP)) {
        throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, pathOf(name),
                      shown(pathOf(name)) + " is no snapshot: it is not a directory");
    }
    if (!fd.valid()) {
        failSystem("open the snapshot", pathOf(name));
    }
    return fd;
}

UniqueFd Store::openShared(const std::string& name) const {
    UniqueFd fd = open(name);
    lockOrFail(fd.get(), LOCK_SH, pathOf(name), "it is being destroyed");
    // A snapshot that was destroyed between these two steps can be locked, but has lost its name.
    const UniqueFd again = open(name);
    struct statx here = {};
    struct statx there = {};
    if (attributesOf(fd.get(), ".", here) != 0 || attributesOf(again.get(), ".", there) != 0 ||
        !isSame(here, there)) {
        throw Failure(F2FS_SNAPSHOT_ERROR_BUSY, pathOf(name),
                      "the snapshot " + shown(name) + " was replaced meanwhile: call again");
    }
    return fd;
}

void Store::destroy(const std::string& name, Monitor& monitor) const {
    const UniqueFd fd = open(name);
    lockOrFail(fd.get(), LOCK_EX, pathOf(name),
               "somebody verifies or restores the snapshot, or works on it");
    monitor.throwIfCancelled();
    monitor.ignoreCancel();
    const std::string removed = "." + name + ".removed";
    if (renameat(fd_.get(), name.c_str(), fd_.get(), removed.c_str()) != 0) {
        failSystem("rename the snapshot", pathOf(name));
    }
    // After a power cut, the name must not come back with only some of the files.
    if (fsync(fd_.get()) != 0) {
        failSystem("sync the store", path_);
    }
    remove(removed, monitor);
}

void Store::remove(const std::string& entry, Monitor& monitor) const {
    monitor.begin(F2FS_SNAPSHOT_PHASE_REMOVE);
    removeTree(fd(), entry, pathOf(entry), [&] { monitor.step(); });
}

}  // namespace manager
