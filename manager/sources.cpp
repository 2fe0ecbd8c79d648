// SPDX-License-Identifier: Apache-2.0
#include "manager/sources.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "manager/failure.h"
#include "snapshot/f2fs_ioctl.h"

namespace manager {

namespace {

// The library ends the process if the mirror of a source has a path of 255 bytes or more.
constexpr size_t MAX_MIRROR = 254;
// Descriptors of the helper besides one for each level of the tree.
constexpr size_t OTHER_DESCRIPTORS = 64;
// Not in all headers that the manager is built with.
constexpr uint64_t ATTRIBUTE_MOUNT_ROOT = 0x2000;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw Failure(F2FS_SNAPSHOT_ERROR_SOURCE, path,
                  "cannot snapshot \"" + shown(path) + "\": " + why);
}

Source openSource(const std::string& given) {
    if (given.empty() || given[0] != '/') {
        throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, given,
                      "cannot snapshot \"" + shown(given) + "\": the path is " +
                          (given.empty() ? "empty" : "relative; give it from / on"));
    }
    Source source = {given, {}, {}};
    try {
        source.fd = openResolved(source.path);
    } catch (const Failure& failure) {
        refuse(given,
               failure.os_error == ENOTDIR ? "it is not a directory" : reasonOf(failure.os_error));
    }
    const int error = attributesOf(source.fd.get(), ".", source.identity);
    if (error != 0) {
        refuse(given, reasonOf(error));
    }
    return source;
}

void checkPlace(const Source& source, const Store& store) {
    if (source.path == "/") {
        refuse(source.path, "the root directory contains the store");
    }
    if (isAtOrBelow(source.path, store.path())) {
        refuse(source.path, "it is in the store " + shown(store.path()));
    }
    if (isAtOrBelow(store.path(), source.path)) {
        refuse(source.path, "the store " + shown(store.path()) + " is in it");
    }
}

void checkApart(const Source& source, const Source& other) {
    if (isSame(source.identity, other.identity)) {
        refuse(source.path, source.path == other.path
                                ? "it is given twice"
                                : "it is the same directory as " + shown(other.path));
    }
    if (isAtOrBelow(source.path, other.path)) {
        refuse(source.path, "it is in " + shown(other.path) + ", which is given as well");
    }
    if (isAtOrBelow(other.path, source.path)) {
        refuse(other.path, "it is in " + shown(source.path) + ", which is given as well");
    }
}

void lockDirectory(int fd, int operation, const std::string& path) {
    if (flock(fd, operation | LOCK_NB) == 0) {
        return;
    }
    if (errno == EWOULDBLOCK) {
        throw Failure(F2FS_SNAPSHOT_ERROR_BUSY, path,
                      "another call snapshots " + shown(path) +
                          ", or a directory in it or around it: wait for its end");
    }
    failSystem("lock", path);
}

// Locks the directories above a source, shared, as far as they are on its volume and can be read.
void lockAbove(const Source& source, std::vector<UniqueFd>& locks) {
    std::string path = source.path;
    UniqueFd fd(openat(source.fd.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    while (fd.valid() && path.find_last_of('/') != 0 && path.find('/') != std::string::npos) {
        path.resize(path.find_last_of('/'));
        fd = UniqueFd(openat(fd.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        struct statx identity = {};
        if (!fd.valid() || attributesOf(fd.get(), ".", identity) != 0 ||
            identity.stx_dev_major != source.identity.stx_dev_major ||
            identity.stx_dev_minor != source.identity.stx_dev_minor) {
            return;
        }
        lockDirectory(fd.get(), LOCK_SH, path);
        locks.emplace_back(fcntl(fd.get(), F_DUPFD_CLOEXEC, 0));
    }
}

size_t descriptorLimit() {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_max == RLIM_INFINITY ? SIZE_MAX : static_cast<size_t>(limit.rlim_max);
}

const char* typeName(uint32_t type) {
    return type == S_IFIFO    ? "a pipe"
           : type == S_IFSOCK ? "a socket"
           : type == S_IFCHR  ? "a character device"
           : type == S_IFBLK  ? "a block device"
                              : "of an unknown type";
}

f2fs_snapshot_severity severityOf(f2fs_snapshot_finding_kind kind) {
    return kind == F2FS_SNAPSHOT_FOUND_HARD_LINK   ? F2FS_SNAPSHOT_UNCOVERED
           : kind == F2FS_SNAPSHOT_FOUND_SEMICOLON ? F2FS_SNAPSHOT_NOTE
                                                   : F2FS_SNAPSHOT_FAILS;
}

bool isWritable(const TreeWalk& walk) {
#ifdef __ANDROID__
    constexpr int EFFECTIVE = 0;  // bionic takes no flags here
#else
    constexpr int EFFECTIVE = AT_EACCESS;
#endif
    return faccessat(walk.parent(), ".", W_OK | X_OK, EFFECTIVE) == 0;
}

}  // namespace

std::vector<Source> openSources(const Store& store, const std::vector<std::string>& paths) {
    if (paths.empty()) {
        throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, "", "no source is given");
    }
    std::vector<Source> sources;
    for (const std::string& path : paths) {
        Source source = openSource(path);
        checkPlace(source, store);
        for (const Source& other : sources) {
            checkApart(source, other);
        }
        sources.push_back(std::move(source));
    }
    std::sort(sources.begin(), sources.end(), [](const Source& one, const Source& other) {
        return comparePaths(one.path, other.path) < 0;
    });
    return sources;
}

std::vector<UniqueFd> lockSources(const std::vector<Source>& sources) {
    std::vector<UniqueFd> locks;
    for (const Source& source : sources) {
        lockDirectory(source.fd.get(), LOCK_EX, source.path);
        locks.emplace_back(fcntl(source.fd.get(), F_DUPFD_CLOEXEC, 0));
        lockAbove(source, locks);
    }
    return locks;
}

UniqueFd reopenSource(const Source& source) {
    return UniqueFd(open(source.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

std::string mirrorRoot(const Store& store, const std::string& name) {
    return store.path() + "/." + name + ".partial/snapshot";
}

Rules::Rules(const Store& store, const std::vector<Source>& sources, const std::string& name)
    : store_(store),
      sources_(sources),
      root_length_(mirrorRoot(store, name).size()),
      max_depth_(descriptorLimit() - std::min(descriptorLimit(), OTHER_DESCRIPTORS)) {
    struct statx identity = {};
    attributesOf(store.fd(), ".", identity);
    for (const Source& source : sources) {
        if (source.identity.stx_dev_major != identity.stx_dev_major ||
            source.identity.stx_dev_minor != identity.stx_dev_minor) {
            add(F2FS_SNAPSHOT_FOUND_OTHER_VOLUME, source.path,
                "it is on another volume than the store " + shown(store.path()));
        }
        if (root_length_ + source.path.size() > MAX_MIRROR) {
            add(F2FS_SNAPSHOT_FOUND_PATH_LENGTH, source.path,
                "its path in the store would have " +
                    std::to_string(root_length_ + source.path.size()) +
                    " bytes, 254 at most are possible: use a store with a shorter path or a "
                    "shorter name");
        }
        if (source.path.find(';') != std::string::npos) {
            add(F2FS_SNAPSHOT_FOUND_SEMICOLON, source.path,
                "the tool f2fs_snapshot would split its path at ';'");
        }
    }
    probeStore();
}

void Rules::probeStore() {
    const UniqueFd fd(openat(store_.fd(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
    dedup_file_info info = {};
    if (fd.valid() && ioctl(fd.get(), F2FS_IOC_DEDUP_GET_FILE_INFO, &info) == 0) {
        return;
    }
    const int error = errno;
    const bool has_no_such_files = error == EOPNOTSUPP || error == EISDIR;  // as F2FS has
    if (fd.valid() || has_no_such_files) {
        add(F2FS_SNAPSHOT_FOUND_NO_DRIVER, store_.path(),
            "its volume has no driver for snapshots (" + reasonOf(error) + ")", error);
    } else {
        add(F2FS_SNAPSHOT_FOUND_DIRECTORY_ACCESS, store_.path(),
            "no file can be made in it: " + reasonOf(error), error);
    }
}

void Rules::add(f2fs_snapshot_finding_kind kind, const std::string& path, const std::string& why,
                int error) {
    findings_.push_back({path, kind, severityOf(kind), shown(path) + ": " + why, error});
}

bool Rules::judge(const TreeWalk& walk) {
    const std::string& path = walk.path();
    if (walk.error() != 0) {
        const bool is_directory = walk.type() == S_IFDIR;
        add(is_directory ? F2FS_SNAPSHOT_FOUND_DIRECTORY_ACCESS : F2FS_SNAPSHOT_FOUND_FILE_ACCESS,
            path, std::string("it cannot be read: ") + reasonOf(walk.error()), walk.error());
        return false;
    }
    if (walk.depth() > 0 && isOnOtherMount(walk)) {
        add(F2FS_SNAPSHOT_FOUND_MOUNT, path, "another file system is mounted there: unmount it");
        return false;
    }
    if (root_length_ + 1 + path.size() >= PATH_MAX) {
        add(F2FS_SNAPSHOT_FOUND_PATH_LENGTH, path, "its path in the store would be too long");
        return false;
    }
    switch (walk.type()) {
        case S_IFDIR:
            judgeDirectory(walk);
            break;
        case S_IFREG:
            judgeFile(walk);
            break;
        case S_IFLNK:
            break;
        default:
            add(F2FS_SNAPSHOT_FOUND_ENTRY_TYPE, path,
                std::string("it is ") + typeName(walk.type()) + ", which no snapshot can hold");
    }
    return true;
}

void Rules::judgeDirectory(const TreeWalk& walk) {
    if (walk.hasUnknownTypes()) {
        add(F2FS_SNAPSHOT_FOUND_ENTRY_TYPE, walk.path(),
            "its file system does not report the types of entries");
    }
    if (walk.depth() >= max_depth_) {
        add(F2FS_SNAPSHOT_FOUND_DEPTH, walk.path(),
            "the tree is deeper than the limit of open files (ulimit -Hn) allows");
    }
    struct statx store = {};
    attributesOf(store_.fd(), ".", store);
    if (isSame(walk.attributes(), store)) {
        refuse(walk.path(), "it is the store");
    }
    for (const Source& source : sources_) {
        if (walk.depth() > 0 && isSame(walk.attributes(), source.identity)) {
            refuse(walk.path(), "it is the source " + shown(source.path));
        }
    }
}

void Rules::judgeFile(const TreeWalk& walk) {
    const auto low = static_cast<uint32_t>(walk.attributes().stx_size);
    if (walk.attributes().stx_size > 0 && (low == 0 || low > INT32_MAX)) {
        add(F2FS_SNAPSHOT_FOUND_FILE_SIZE, walk.path(),
            "the library cannot snapshot files of " + std::to_string(walk.attributes().stx_size) +
                " bytes: of 2 to 4 GiB, 6 to 8 GiB, and so on");
    }
    if (walk.attributes().stx_nlink > 1) {
        linked_.emplace_back(walk.attributes().stx_ino, walk.path());
    }
}

bool Rules::isOnOtherMount(const TreeWalk& walk) const {
    const struct statx& attributes = walk.attributes();
    const struct statx& top = sources_.front().identity;
    return (attributes.stx_attributes & ATTRIBUTE_MOUNT_ROOT) != 0 ||
           attributes.stx_dev_major != top.stx_dev_major ||
           attributes.stx_dev_minor != top.stx_dev_minor;
}

std::vector<Finding> Rules::take() {
    std::sort(linked_.begin(), linked_.end());
    for (size_t i = 0; i < linked_.size(); ++i) {
        const bool has_other = (i > 0 && linked_[i - 1].first == linked_[i].first) ||
                               (i + 1 < linked_.size() && linked_[i + 1].first == linked_[i].first);
        if (has_other) {
            add(F2FS_SNAPSHOT_FOUND_HARD_LINK, linked_[i].second,
                "it is one of several names of a file, which are not covered against each other");
        }
    }
    linked_.clear();
    std::stable_sort(findings_.begin(), findings_.end(),
                     [](const Finding& one, const Finding& two) {
                         return comparePaths(one.path, two.path) < 0;
                     });
    return std::move(findings_);
}

void tryFile(const TreeWalk& walk, Rules& rules) {
    const UniqueFd fd(
        openat(walk.parent(), walk.name(), O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    dedup_file_info info = {};
    if (!fd.valid() || ioctl(fd.get(), F2FS_IOC_DEDUP_GET_FILE_INFO, &info) != 0) {
        const int error = errno;
        rules.add(F2FS_SNAPSHOT_FOUND_FILE_ACCESS, walk.path(),
                  std::string(fd.valid() ? "the driver refuses it: "
                                         : "it cannot be opened to read and write: ") +
                      reasonOf(error),
                  error);
    } else if (info.is_layered == 0 && !isWritable(walk)) {
        const int error = errno;
        rules.add(F2FS_SNAPSHOT_FOUND_DIRECTORY_ACCESS, walk.path(),
                  "no temporary file can be made in its directory: " + reasonOf(error), error);
    }
}

}  // namespace manager
