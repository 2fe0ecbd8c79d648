// SPDX-License-Identifier: Apache-2.0
#include "emulator/requests.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "emulator/copy.h"
#include "emulator/file_state.h"
#include "snapshot/f2fs_ioctl.h"

namespace emulator {
namespace {

// The argument is copied to and from a `Record`, since a caller's buffer has no known alignment.
template <typename Record>
Record argumentOf(const Request& request) {
    Record record;
    memcpy(&record, request.in, sizeof(record));
    return record;
}

template <typename Record>
int giveBack(const Request& request, const Record& record) {
    memcpy(request.out, &record, sizeof(record));
    return 0;
}

// A descriptor as /proc/PID/fdinfo describes it. One read returns all values of one moment.
struct DescriptorInfo {
    unsigned int flags = 0;  // of open, O_PATH included
    unsigned long long mount = 0;
    unsigned long long inode = 0;
};

bool readDescriptorInfo(pid_t pid, int descriptor, DescriptorInfo& info) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/fdinfo/%d", static_cast<int>(pid), descriptor);
    const UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    char text[256] = {};
    return fd.valid() && read(fd.get(), text, sizeof(text) - 1) > 0 &&
           sscanf(text, "pos: %*s flags: %o mnt_id: %llu ino: %llu", &info.flags, &info.mount,
                  &info.inode) == 3;
}

// Finds the file that a descriptor of the calling process has open.
// EBADF: there is none, or it is not open for reading; EXDEV: not on this mount; EINVAL: not a
// regular file.
//
// Another thread of the caller may replace the descriptor at any time. So access mode and file must
// be of one moment, which is the read of its description. That has the numbers of the mount and the
// inode. `file` is opened before and has the device and type that belong to these numbers; while it
// is open, no other mount gets the same number. A copy of the descriptor (pidfd_getfd) would not
// do: closing it can flush the file, which waits for the file's own daemon, and an ordinary user
// may not be allowed to make it.
//
// The calling thread waits for the reply, so its id cannot be reused meanwhile. O_PATH and
// AT_STATX_DONT_SYNC make no call to this daemon, which could not serve it now.
int findCallersFile(const Volume& volume, pid_t pid, int32_t descriptor, Inode*& found) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/fd/%d", static_cast<int>(pid), descriptor);
    const UniqueFd file(open(path, O_PATH | O_CLOEXEC));
    struct statx place;
    DescriptorInfo info;
    if (!file.valid() ||
        statx(file.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC,
              STATX_TYPE | STATX_INO | STATX_MNT_ID, &place) != 0 ||
        !readDescriptorInfo(pid, descriptor, info)) {
        return EBADF;
    }
    const bool is_readable = (info.flags & O_PATH) == 0 && ((info.flags & O_ACCMODE) == O_RDONLY ||
                                                            (info.flags & O_ACCMODE) == O_RDWR);
    if (!is_readable || info.mount != place.stx_mnt_id || info.inode != place.stx_ino) {
        return EBADF;
    }
    if (makedev(place.stx_dev_major, place.stx_dev_minor) != volume.mount_device) {
        return EXDEV;
    }
    const auto known = volume.inodes.find(static_cast<ino_t>(place.stx_ino));
    if (known == volume.inodes.end() || !S_ISREG(place.stx_mode)) {
        return EINVAL;
    }
    found = known->second.get();
    return 0;
}

// A volume that was mounted read-only gives descriptors for reading, which some requests accept.
int changeState(const Volume& volume, const Request& request, const FileState& state) {
    return volume.read_only ? EROFS : storeState(request.inode, request.fd, state);
}

// Replaces the data of the request's file by those of the source. Clears the mark and sets
// is_deduped before changing any data.
int replaceBySource(const Volume& volume, const Request& request, int source) {
    FileState state = *request.inode.state;
    state.flag &= ~MODIFY_CHECK_UNCHANGED;
    state.is_deduped = 1;
    if (const int error = changeState(volume, request, state)) {
        return error;
    }
    request.inode.cloned_from = 0;
    const int error = replaceData(source, request.fd);
    if (error != 0) {
        state.is_deduped = 0;
        storeState(request.inode, request.fd, state);  // the copy's error is the one to return
    }
    return error;
}

// Finds and opens the file to take data from. EBADF, EXDEV, EINVAL: as findCallersFile; EBADF also
// if the request's file is not open for writing, EINVAL also if it is the source.
int openSource(const Volume& volume, const Request& request, int32_t descriptor, Inode*& source,
               UniqueFd& fd) {
    if (const int error = findCallersFile(volume, request.pid, descriptor, source)) {
        return error;
    }
    if ((fcntl(request.fd, F_GETFL) & O_ACCMODE) == O_RDONLY) {
        return EBADF;
    }
    return source == &request.inode ? EINVAL : openInode(volume, *source, O_RDONLY, fd);
}

// EINVAL: the word is not 0.
int dedupRevoke(const Volume& volume, const Request& request) {
    if (argumentOf<uint32_t>(request) != 0) {
        return EINVAL;
    }
    FileState state;
    state.flag = request.inode.state->flag;
    return changeState(volume, request, state);
}

int dedupGetFileInfo(const Volume& /*volume*/, const Request& request) {
    const FileState& state = *request.inode.state;
    dedup_file_info info = {};
    info.is_deduped = state.is_deduped != 0 ? 1 : 0;
    info.is_layered = state.is_layered != 0 ? 1 : 0;
    return giveBack(request, info);
}

// EINVAL, EBADF, EXDEV: as openSource; EINVAL also for flags other than CLONE_FLAGS.
int cloneFile(const Volume& volume, const Request& request) {
    const auto info = argumentOf<clone_file_info>(request);
    if (info.flags != CLONE_FLAGS) {
        return EINVAL;
    }
    Inode* source = nullptr;
    UniqueFd fd;
    if (const int error = openSource(volume, request, info.source_fd, source, fd)) {
        return error;
    }
    if (const int error = replaceBySource(volume, request, fd.get())) {
        return error;
    }
    request.inode.cloned_from = source->number;
    return 0;
}

// EINVAL: neither set nor get.
int modifyCheck(const Volume& volume, const Request& request) {
    auto info = argumentOf<modify_check_info>(request);
    FileState state = *request.inode.state;
    if (info.mode == MODIFY_CHECK_SET) {
        state.flag = info.flag;
        if (const int error = changeState(volume, request, state)) {
            return error;
        }
    } else if (info.mode != MODIFY_CHECK_GET) {
        return EINVAL;
    }
    info.flag = state.flag;
    return giveBack(request, info);
}

// EINVAL, EBADF, EXDEV: as openSource; EINVAL also if there are flags or the source is not layered.
int snapshotCreate(const Volume& volume, const Request& request) {
    const auto info = argumentOf<snapshot_create_info>(request);
    if (info.flags != 0) {
        return EINVAL;
    }
    Inode* source = nullptr;
    UniqueFd fd;
    if (const int error = openSource(volume, request, info.source_fd, source, fd)) {
        return error;
    }
    if (const int error = loadState(*source, fd.get())) {
        return error;
    }
    return source->state->is_layered != 0 ? replaceBySource(volume, request, fd.get()) : EINVAL;
}

// EBADF, EXDEV, EINVAL: as findCallersFile; EINVAL also if the file is no clone of this one.
int snapshotPrepare(const Volume& volume, const Request& request) {
    Inode* clone = nullptr;
    if (const int error =
            findCallersFile(volume, request.pid, argumentOf<int32_t>(request), clone)) {
        return error;
    }
    if (clone->cloned_from != request.inode.number) {
        return EINVAL;
    }
    FileState state = *request.inode.state;
    state.is_layered = 1;
    return changeState(volume, request, state);
}

constexpr struct {
    unsigned int number;
    int (*serve)(const Volume& volume, const Request& request);
} REQUESTS[] = {
    {F2FS_IOC_DEDUP_REVOKE, dedupRevoke},       {F2FS_IOC_DEDUP_GET_FILE_INFO, dedupGetFileInfo},
    {F2FS_IOC_CLONE_FILE, cloneFile},           {F2FS_IOC_MODIFY_CHECK, modifyCheck},
    {F2FS_IOC_SNAPSHOT_CREATE, snapshotCreate}, {F2FS_IOC_SNAPSHOT_PREPARE, snapshotPrepare},
};

}  // namespace

int serveRequest(const Volume& volume, const Request& request, size_t& answered,
                 bool& size_changed) {
    answered = 0;
    size_changed =
        request.number == F2FS_IOC_CLONE_FILE || request.number == F2FS_IOC_SNAPSHOT_CREATE;
    const auto* const kind =
        std::find_if(std::begin(REQUESTS), std::end(REQUESTS),
                     [&](const auto& known) { return known.number == request.number; });
    if (kind == std::end(REQUESTS) || request.inode.type != S_IFREG) {
        return ENOTTY;
    }
    const size_t record = _IOC_SIZE(request.number);
    const size_t in_size = (_IOC_DIR(request.number) & _IOC_WRITE) != 0 ? record : 0;
    const size_t out_size = (_IOC_DIR(request.number) & _IOC_READ) != 0 ? record : 0;
    if (request.in_size < in_size || request.out_size < out_size) {
        return EINVAL;
    }
    if (const int error = loadState(request.inode, request.fd)) {
        return error;
    }
    if (const int error = kind->serve(volume, request)) {
        return error;
    }
    answered = out_size;
    return 0;
}

}  // namespace emulator
