// SPDX-License-Identifier: Apache-2.0
#include "manager/replica.h"

#include <fcntl.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "manager/failure.h"

namespace manager {

namespace {

constexpr char TEMPORARY[] = ".f2fs_snapshot_restore.partial";
constexpr size_t BUFFER = size_t{1} << 18;
constexpr size_t BLOCK = 4096;
constexpr mode_t PERMISSIONS = 07777;

// A new entry. If it replaces another, it has a temporary name until it is finished.
class NewEntry {
  public:
    explicit NewEntry(const Spot& spot)
        : spot_(spot), name_(spot.replace ? TEMPORARY : spot.name.c_str()) {
        if (spot.replace) {
            unlinkat(spot.directory, name_, 0);  // left by a process that was killed
        }
    }
    NewEntry(const NewEntry&) = delete;
    NewEntry& operator=(const NewEntry&) = delete;
    ~NewEntry() {
        if (spot_.replace && !is_in_place_) {
            unlinkat(spot_.directory, name_, 0);
        }
    }

    const char* name() const {
        return name_;
    }
    void putInPlace(const std::string& path) {
        if (spot_.replace &&
            renameat(spot_.directory, name_, spot_.directory, spot_.name.c_str()) != 0) {
            failSystem("replace", path);
        }
        is_in_place_ = true;
    }

  private:
    const Spot& spot_;
    const char* name_;
    bool is_in_place_ = false;
};

size_t readFully(int fd, char* buffer, off64_t offset, const std::string& path) {
    size_t done = 0;
    while (done < BUFFER) {
        const ssize_t length =
            pread64(fd, buffer + done, BUFFER - done, offset + static_cast<off64_t>(done));
        if (length < 0) {
            failSystem("read the snapshot of", path);
        }
        if (length == 0) {
            break;
        }
        done += static_cast<size_t>(length);
    }
    return done;
}

bool isZero(const char* data, size_t size) {
    return data[0] == 0 && memcmp(data, data + 1, size - 1) == 0;
}

void writeBlock(int fd, const char* data, size_t size, off64_t offset, const std::string& path) {
    for (size_t done = 0; done < size;) {
        const ssize_t length =
            pwrite64(fd, data + done, size - done, offset + static_cast<off64_t>(done));
        if (length < 0) {
            failSystem("write", path);
        }
        done += static_cast<size_t>(length);
    }
}

// Skips holes, and blocks of zeros as well: the library allocates a snapshot file in full, so holes
// of its source are such blocks.
void copyData(int from, int to, const std::string& path, const std::function<void()>& on_data) {
    std::string buffer(BUFFER, '\0');
    off64_t end = 0;
    for (off64_t offset; (offset = lseek64(from, end, SEEK_DATA)) >= 0;) {
        const size_t length = readFully(from, buffer.data(), offset, path);
        if (length == 0) {
            break;
        }
        for (size_t block = 0; block < length; block += BLOCK) {
            const size_t size = std::min(BLOCK, length - block);
            if (!isZero(&buffer[block], size)) {
                writeBlock(to, &buffer[block], size, offset + static_cast<off64_t>(block), path);
            }
        }
        end = offset + static_cast<off64_t>(length);
        on_data();
    }
    const off64_t size = lseek64(from, 0, SEEK_END);
    if (size < 0 || ftruncate64(to, size) != 0) {
        failSystem("set the size of", path);
    }
}

bool hasSameData(int one, int other, const std::string& path) {
    std::string here(BUFFER, '\0');
    std::string there(BUFFER, '\0');
    for (off64_t offset = 0;; offset += static_cast<off64_t>(BUFFER)) {
        const size_t length = readFully(one, here.data(), offset, path);
        if (readFully(other, there.data(), offset, path) != length ||
            memcmp(here.data(), there.data(), length) != 0) {
            return false;
        }
        if (length < BUFFER) {
            return true;
        }
    }
}

ino64_t inodeOf(int fd) {
    struct stat64 attributes = {};
    return fstat64(fd, &attributes) == 0 ? attributes.st_ino : 0;
}

timespec modified(const Recorded& recorded) {
    constexpr int64_t SECOND = 1000000000;
    const int64_t rest = (recorded.modified % SECOND + SECOND) % SECOND;
    timespec time = {};
    time.tv_sec = static_cast<time_t>((recorded.modified - rest) / SECOND);
    time.tv_nsec = static_cast<long>(rest);
    return time;
}

}  // namespace

UniqueFd openBelow(int top, const std::string& path, int flags) {
    UniqueFd directory(openat(top, ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    size_t begin = path.find_first_not_of('/');
    for (size_t slash; directory.valid() && (slash = path.find('/', begin)) != std::string::npos;
         begin = slash + 1) {
        directory.reset(openat(directory.get(), path.substr(begin, slash - begin).c_str(),
                               O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    }
    return UniqueFd(
        openat(directory.get(), path.substr(begin).c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
}

void Replica::find(const std::string& path, f2fs_snapshot_finding_kind kind,
                   f2fs_snapshot_severity severity, const std::string& why, int error) {
    const std::string reason = error == 0 ? "" : ": " + reasonOf(error);
    report_.findings.push_back({path, kind, severity, shown(path) + ": " + why + reason, error});
}

void Replica::makeFile(const Recorded& recorded, int source, const Spot& spot, int top) {
    if (linkToCopy(recorded, source, spot, top)) {
        return;
    }
    NewEntry entry(spot);
    const UniqueFd copy(openat(spot.directory, entry.name(),
                               O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                               S_IRUSR | S_IWUSR));
    if (!copy.valid()) {
        failSystem("make the file", recorded.path);
    }
    copyData(source, copy.get(), recorded.path, on_data_);
    checkDigest(recorded, copy.get());
    setAttributes(recorded, copy.get());
    entry.putInPlace(recorded.path);
    if (recorded.names > 1) {
        copies_.insert({recorded.inode, {recorded.path, inodeOf(copy.get())}});
    }
}

// Makes a hard link to the copy of another name of the file. Returns false if there is none with
// the same content.
bool Replica::linkToCopy(const Recorded& recorded, int source, const Spot& spot, int top) {
    const auto first = recorded.names > 1 ? copies_.find(recorded.inode) : copies_.end();
    if (first == copies_.end()) {
        return false;
    }
    const UniqueFd copy = openBelow(top, first->second.path, O_RDONLY | O_NONBLOCK);
    if (!copy.valid() || inodeOf(copy.get()) != first->second.inode ||
        !hasSameData(source, copy.get(), recorded.path)) {
        find(recorded.path, F2FS_SNAPSHOT_FOUND_LINK_NOT_SET, F2FS_SNAPSHOT_UNCOVERED,
             "restored as a file of its own, since it differs from " + shown(first->second.path) +
                 ", which was another name of it");
        return false;
    }
    NewEntry entry(spot);
    if (linkat(AT_FDCWD, procPath(copy.get()).c_str(), spot.directory, entry.name(),
               AT_SYMLINK_FOLLOW) != 0) {
        failSystem("make the hard link", recorded.path);
    }
    entry.putInPlace(recorded.path);
    return true;
}

void Replica::makeLink(const Recorded& recorded, const Spot& spot) {
    NewEntry entry(spot);
    if (symlinkat(recorded.link.c_str(), spot.directory, entry.name()) != 0) {
        failSystem("make the link", recorded.path);
    }
    if (fchownat(spot.directory, entry.name(), recorded.owner, recorded.group,
                 AT_SYMLINK_NOFOLLOW) != 0) {
        find(recorded.path, F2FS_SNAPSHOT_FOUND_OWNER_NOT_SET, F2FS_SNAPSHOT_UNCOVERED,
             "cannot set the owner", errno);
    }
    setExtended(recorded, procPath(spot.directory) + "/" + entry.name());
    const timespec times[] = {{0, UTIME_OMIT}, modified(recorded)};
    if (utimensat(spot.directory, entry.name(), times, AT_SYMLINK_NOFOLLOW) != 0) {
        find(recorded.path, F2FS_SNAPSHOT_FOUND_ATTRIBUTE_NOT_SET, F2FS_SNAPSHOT_UNCOVERED,
             "cannot set the time", errno);
    }
    entry.putInPlace(recorded.path);
}

void Replica::finishDirectory(const Recorded& recorded, int directory) {
    setAttributes(recorded, directory);
}

void Replica::checkDigest(const Recorded& recorded, int copy) {
    if (!recorded.digest.empty() &&
        digestOf(copy, recorded.size, recorded.path, on_data_) != recorded.digest) {
        find(recorded.path, F2FS_SNAPSHOT_FOUND_DIGEST_DIFFERS, F2FS_SNAPSHOT_FAILS,
             "the content that was restored is not the one that was recorded");
    }
}

// The order matters: a new owner clears set-user-ID modes and capabilities, and the mode can forbid
// setting the others.
void Replica::setAttributes(const Recorded& recorded, int fd) {
    mode_t mode = recorded.mode & PERMISSIONS;
    if (fchown(fd, recorded.owner, recorded.group) != 0) {
        find(recorded.path, F2FS_SNAPSHOT_FOUND_OWNER_NOT_SET, F2FS_SNAPSHOT_UNCOVERED,
             "cannot set the owner", errno);
        mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);  // they would be the wrong owner's rights
    }
    setExtended(recorded, procPath(fd));
    const timespec times[] = {{0, UTIME_OMIT}, modified(recorded)};
    if (fchmod(fd, mode) != 0 || futimens(fd, times) != 0) {
        find(recorded.path, F2FS_SNAPSHOT_FOUND_ATTRIBUTE_NOT_SET, F2FS_SNAPSHOT_UNCOVERED,
             "cannot set mode and time", errno);
    }
}

// target  the path of a symbolic link, which is not followed, or else a descriptor's path in /proc
void Replica::setExtended(const Recorded& recorded, const std::string& target) {
    const auto known = attributes_.find(recorded.path);
    if (known == attributes_.end()) {
        return;
    }
    const auto set = S_ISLNK(recorded.mode) ? lsetxattr : setxattr;
    for (const auto& [name, value] : known->second) {
        if (set(target.c_str(), name.c_str(), value.data(), value.size(), 0) != 0) {
            find(recorded.path, F2FS_SNAPSHOT_FOUND_ATTRIBUTE_NOT_SET, F2FS_SNAPSHOT_UNCOVERED,
                 "cannot set the attribute " + shown(name), errno);
        }
    }
}

}  // namespace manager
