// SPDX-License-Identifier: Apache-2.0
#include "manager/descent.h"

#include "manager/failure.h"

namespace manager {

namespace {

constexpr size_t OPEN_LEVELS = 32;

struct statx identityOf(int fd, const std::string& path) {
    struct statx attributes = {};
    const int error = attributesOf(fd, ".", attributes);
    if (error != 0) {
        failSystem("look at", path, error);
    }
    return attributes;
}

}  // namespace

Descent::Descent(UniqueFd top, std::string path) : path_(std::move(path)) {
    const struct statx identity = identityOf(top.get(), path_);
    levels_.push_back({std::move(top), identity, path_.size()});
}

void Descent::enter(const std::string& name) {
    const std::string path = path_ + "/" + name;
    UniqueFd directory = openDirectory(fd(), name.c_str(), path);
    const struct statx identity = identityOf(directory.get(), path);
    enter(std::move(directory), name, identity);
}

void Descent::enter(UniqueFd directory, const std::string& name, const struct statx& identity) {
    path_ += "/" + name;
    levels_.push_back({std::move(directory), identity, path_.size()});
    if (levels_.size() > OPEN_LEVELS) {
        levels_[levels_.size() - 1 - OPEN_LEVELS].fd.reset();
    }
}

void Descent::leave() {
    const UniqueFd child = std::move(levels_.back().fd);
    levels_.pop_back();
    Level& level = levels_.back();
    path_.resize(level.path_length);
    if (level.fd.valid()) {
        return;
    }
    level.fd = openDirectory(child.get(), "..", path_);
    if (!isSame(identityOf(level.fd.get(), path_), level.identity)) {
        throw Failure(
            F2FS_SNAPSHOT_ERROR_SYSTEM, path_,
            "a directory was moved out of " + shown(path_) + " while it was read: call again");
    }
}

}  // namespace manager
