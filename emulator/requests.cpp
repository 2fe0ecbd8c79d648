// SPDX-License-Identifier: Apache-2.0
#include "emulator/requests.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "emulator/copy.h"
#include "emulator/file_state.h"
#include "snapshot/f2fs_ioctl.h"

namespace emulator {
namespace {

// The argument is copied in and out of `Record`, as the kernel does it: no alignment is assumed.
template <typename Record>
Record argumentOf(const Request& request) {
    Record record;
    memcpy(&record, request.in, sizeof(record));
    return record;
}

template <typename Record>
int answer(const Request& request, const Record& record) {
    memcpy(request.out, &record, sizeof(record));
    return 0;
}

// Finds the file that a descriptor of the calling process has open.
// EBADF: there is none, or it is not open for reading; EXDEV: not on this mount; EINVAL: not a
// regular file.
//
// The device number tells the mount, however it is reached (bind mounts and mount namespaces give
// it other paths and mount ids). AT_STATX_DONT_SYNC has the kernel answer for a file of this mount
// from what it knows already; anything else would be a call back to the one thread that asks.
int findCallersFile(const Volume& volume, pid_t pid, int32_t descriptor, Inode*& found) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/fd/%d", static_cast<int>(pid), descriptor);
    struct stat link;
    struct statx file;
    if (descriptor < 0 || lstat(path, &link) != 0 ||
        (link.st_mode & S_IRUSR) == 0 ||  // the link's mode is the descriptor's access mode
        statx(AT_FDCWD, path, AT_STATX_DONT_SYNC, STATX_INO | STATX_TYPE, &file) != 0) {
        return EBADF;
    }
    if (makedev(file.stx_dev_major, file.stx_dev_minor) != volume.mount_device) {
        return EXDEV;
    }
    const auto known = volume.inodes.find(static_cast<ino_t>(file.stx_ino));
    if (known == volume.inodes.end() || !S_ISREG(file.stx_mode)) {
        return EINVAL;
    }
    found = known->second.get();
    return 0;
}

// Gives the request's file the source's data. Its mark is gone and it is deduplicated from before
// the first byte changes.
int takeData(const Request& request, int source) {
    FileState state = *request.inode.state;
    state.flag &= ~MODIFY_CHECK_UNCHANGED;
    state.is_deduped = 1;
    if (const int error = storeState(request.inode, request.fd, state)) {
        return error;
    }
    request.inode.cloned_from = 0;
    const int error = replaceData(source, request.fd);
    if (error != 0) {
        state.is_deduped = 0;
        storeState(request.inode, request.fd, state);  // the copy's error is the one to tell
    }
    return error;
}

// Finds and opens the file to take data from. EBADF, EXDEV, EINVAL: as findCallersFile; EBADF also
// when the request's file is not open for writing, EINVAL when it would take its own data.
int openSource(const Volume& volume, const Request& request, int32_t descriptor, Inode*& source,
               UniqueFd& fd) {
    if (const int error = findCallersFile(volume, request.pid, descriptor, source)) {
        return error;
    }
    if ((fcntl(request.fd, F_GETFL) & O_ACCMODE) == O_RDONLY) {
        return EBADF;
    }
    return source == &request.inode ? EINVAL : openInode(*source, O_RDONLY, fd);
}

// EINVAL: the word is not 0.
int dedupRevoke(const Volume& /*volume*/, const Request& request) {
    if (argumentOf<uint32_t>(request) != 0) {
        return EINVAL;
    }
    FileState state;
    state.flag = request.inode.state->flag;
    return storeState(request.inode, request.fd, state);
}

int dedupGetFileInfo(const Volume& /*volume*/, const Request& request) {
    const FileState& state = *request.inode.state;
    dedup_file_info info = {};
    info.is_deduped = state.is_deduped != 0 ? 1 : 0;
    info.is_layered = state.is_layered != 0 ? 1 : 0;
    return answer(request, info);
}

// EINVAL, EBADF, EXDEV: as openSource; EINVAL also for other flags than CLONE_FLAGS.
int cloneFile(const Volume& volume, const Request& request) {
    const auto info = argumentOf<clone_file_info>(request);
    Inode* source = nullptr;
    UniqueFd fd;
    int error = info.flags == CLONE_FLAGS ? openSource(volume, request, info.source_fd, source, fd)
                                          : EINVAL;
    if (error == 0 && (error = takeData(request, fd.get())) == 0) {
        request.inode.cloned_from = source->number;
    }
    return error;
}

// EINVAL: neither set nor get.
int modifyCheck(const Volume& /*volume*/, const Request& request) {
    auto info = argumentOf<modify_check_info>(request);
    FileState state = *request.inode.state;
    if (info.mode == MODIFY_CHECK_SET) {
        state.flag = info.flag;
        if (const int error = storeState(request.inode, request.fd, state)) {
            return error;
        }
    } else if (info.mode != MODIFY_CHECK_GET) {
        return EINVAL;
    }
    info.flag = state.flag;
    return answer(request, info);
}

// EINVAL, EBADF, EXDEV: as openSource; EINVAL also for flags and for a source that is not layered.
int snapshotCreate(const Volume& volume, const Request& request) {
    const auto info = argumentOf<snapshot_create_info>(request);
    Inode* source = nullptr;
    UniqueFd fd;
    int error = info.flags == 0 ? openSource(volume, request, info.source_fd, source, fd) : EINVAL;
    if (error == 0) {
        error = loadState(*source, fd.get());
    }
    if (error != 0) {
        return error;
    }
    return source->state->is_layered != 0 ? takeData(request, fd.get()) : EINVAL;
}

// EBADF, EXDEV, EINVAL: as findCallersFile; EINVAL also when the file is no clone of this one.
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
    return storeState(request.inode, request.fd, state);
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

int serveRequest(Volume& volume, const Request& request, size_t& answered, bool& size_changed) {
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
    int error = loadState(request.inode, request.fd);
    if (error == 0) {
        error = kind->serve(volume, request);
    }
    answered = error == 0 ? out_size : 0;
    return error;
}

}  // namespace emulator
