// SPDX-License-Identifier: Apache-2.0
#include "manager/destination.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "manager/failure.h"
#include "manager/walk.h"

namespace manager {

namespace {

constexpr char PARTIAL[] = ".f2fs_snapshot_restore.partial";

std::vector<std::string> namesIn(int directory, const std::string& path) {
    Names names;
    const int error = readNames(directory, names);
    if (error != 0) {
        failSystem("read the directory", path, error);
    }
    return std::move(names.names);
}

}  // namespace

Destination::Destination(const Store& store, const std::string& path, bool dry_run) : path_(path) {
    if (path.empty()) {
        throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, "", "the path of the destination is empty");
    }
    struct statx attributes = {};
    if (dry_run && attributesOf(AT_FDCWD, path.c_str(), attributes) == ENOENT) {
        return;
    }
    is_made_ = !dry_run && mkdir(path.c_str(), S_IRWXU) == 0;
    if (!dry_run && !is_made_ && errno != EEXIST) {
        failSystem("make the destination", path);
    }
    try {
        open(store, dry_run);
    } catch (...) {
        removeIfMade();
        throw;
    }
}

Destination::~Destination() {
    removeIfMade();
}

void Destination::removeIfMade() const {
    if (is_made_) {
        rmdir(path_.c_str());
    }
}

void Destination::open(const Store& store, bool dry_run) {
    fd_ = openResolved(path_);
    if (isAtOrBelow(path_, store.path())) {
        throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, path_,
                      "cannot restore into " + shown(path_) + ": it is in the store");
    }
    if (!dry_run && flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
        throw Failure(F2FS_SNAPSHOT_ERROR_BUSY, path_,
                      "cannot restore into " + shown(path_) + ": another call does so");
    }
}

void Destination::requireEmpty() const {
    const std::vector<std::string> names = namesIn(fd_.get(), path_);
    const bool has_partial = std::find(names.begin(), names.end(), PARTIAL) != names.end();
    if (names.size() > (has_partial ? 1U : 0U)) {
        throw Failure(
            F2FS_SNAPSHOT_ERROR_EXISTS, path_,
            "cannot restore into " + shown(path_) + ": it " +
                (has_partial ? "has an earlier restore that was cut short" : "is not empty") +
                "; name an empty or a new directory, or ask for existing files to be overwritten");
    }
}

void Destination::removePartial(Monitor& monitor) const {
    removeTree(fd_.get(), PARTIAL, path_ + "/" + PARTIAL, [&] { monitor.poll(); });
}

PartialTree::PartialTree(const Destination& destination)
    : destination_(destination), path_(destination.path() + "/" + PARTIAL) {
    if (mkdirat(destination.fd(), PARTIAL, S_IRWXU) != 0) {
        failSystem("make", path_);
    }
}

PartialTree::~PartialTree() {
    if (is_kept_) {
        return;
    }
    try {
        for (const std::string& name : published_) {
            removeTree(destination_.fd(), name, destination_.path() + "/" + name, [] {});
        }
        removeTree(destination_.fd(), PARTIAL, path_, [] {});
    } catch (const std::exception&) {
        // The failure that led here is the one to report. The next restore removes the rest.
        return;
    }
}

void PartialTree::keep() {
    if (unlinkat(destination_.fd(), PARTIAL, AT_REMOVEDIR) != 0) {
        failSystem("remove", path_);
    }
    is_kept_ = true;
}

UniqueFd PartialTree::open() const {
    return openDirectory(destination_.fd(), PARTIAL, path_);
}

void PartialTree::publish() {
    const UniqueFd partial = open();
    for (const std::string& name : namesIn(partial.get(), path_)) {
        if (renameat(partial.get(), name.c_str(), destination_.fd(), name.c_str()) != 0) {
            failSystem("rename", path_ + "/" + name);
        }
        published_.push_back(name);
    }
}

}  // namespace manager
