#include "requests.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "copy.h"
#include "f2fs_ioctl.h"
#include "file_state.h"

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
void answer(const Request& request, const Record& record) {
    memcpy(request.out, &record, sizeof(record));
}

// Finds the file that a descriptor of the calling process has open, else nullptr with an error.
// EBADF: there is none, or it is not open for reading; EXDEV: not on this mount; EINVAL: not a
// regular file.
//
// The device number tells the mount, however it is reached (bind mounts and mount namespaces give
// it other paths and mount ids). AT_STATX_DONT_SYNC has the kernel answer for a file of this mount
// from what it knows already; anything else would be a call back to the one thread that asks.
Inode* findCallersFile(Volume& volume, pid_t pid, int32_t descriptor, int& error) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%d/fd/%d", static_cast<int>(pid), descriptor);
    struct stat link;
    struct statx file;
    if (descriptor < 0 || lstat(path, &link) != 0 ||
        (link.st_mode & S_IRUSR) == 0 ||  // the link's mode is the descriptor's access mode
        statx(AT_FDCWD, path, AT_STATX_DONT_SYNC, STATX_INO | STATX_TYPE, &file) != 0) {
        error = EBADF;
        return nullptr;
    }
    if (makedev(file.stx_dev_major, file.stx_dev_minor) != volume.mount_device) {
        error = EXDEV;
        return nullptr;
    }
    const auto known = volume.inodes.find(static_cast<ino_t>(file.stx_ino));
    if (known == volume.inodes.end() || !S_ISREG(file.stx_mode)) {
        error = EINVAL;
        return nullptr;
    }
    return known->second.get();
}

bool isOpenForWriting(int fd) {
    const int mode = fcntl(fd, F_GETFL) & O_ACCMODE;
    return mode == O_WRONLY || mode == O_RDWR;
}

// Makes the request's file share the source's data. Its mark is gone and it is deduplicated from
// before the first byte changes.
int takeData(Volume& volume, const Request& request, const Inode& source, bool& size_changed) {
    UniqueFd source_fd;
    if (const int error = openInode(source, O_RDONLY, source_fd)) {
        return error;
    }
    FileState state = *request.inode.state;
    state.flag &= ~MODIFY_CHECK_UNCHANGED;
    state.is_deduped = true;
    if (const int error = storeState(request.inode, request.fd, state)) {
        return error;
    }
    size_changed = true;
    request.inode.cloned_from = 0;
    if (const int error = dropSetidBits(request.fd)) {
        return error;
    }
    const int error = replaceData(source_fd.get(), request.fd, volume.shares_blocks);
    if (error != 0) {
        state.is_deduped = false;
        storeState(request.inode, request.fd, state);  // the copy's error is the one to tell
    }
    return error;
}

// As findCallersFile. EBADF also when the request's file is not open for writing, EINVAL also when
// it would take its own data.
Inode* findSource(Volume& volume, const Request& request, int32_t descriptor, int& error) {
    Inode* const source = findCallersFile(volume, request.pid, descriptor, error);
    if (source != nullptr && !isOpenForWriting(request.fd)) {
        error = EBADF;
        return nullptr;
    }
    if (source == &request.inode) {
        error = EINVAL;
        return nullptr;
    }
    return source;
}

// EINVAL: the word is not 0.
int dedupRevoke(Volume& /*volume*/, const Request& request, bool& /*size_changed*/) {
    if (argumentOf<uint32_t>(request) != 0) {
        return EINVAL;
    }
    FileState state = *request.inode.state;
    state.is_deduped = false;
    state.is_layered = false;
    return storeState(request.inode, request.fd, state);
}

int dedupGetFileInfo(Volume& /*volume*/, const Request& request, bool& /*size_changed*/) {
    dedup_file_info info = {};
    info.is_deduped = request.inode.state->is_deduped ? 1 : 0;
    info.is_layered = request.inode.state->is_layered ? 1 : 0;
    answer(request, info);
    return 0;
}

// EINVAL, EBADF, EXDEV: as findSource; EINVAL also for other flags than CLONE_FLAGS.
int cloneFile(Volume& volume, const Request& request, bool& size_changed) {
    const auto info = argumentOf<clone_file_info>(request);
    if (info.flags != CLONE_FLAGS) {
        return EINVAL;
    }
    int error = 0;
    Inode* const source = findSource(volume, request, info.source_fd, error);
    if (source == nullptr) {
        return error;
    }
    error = takeData(volume, request, *source, size_changed);
    if (error == 0) {
        request.inode.cloned_from = source->number;
    }
    return error;
}

// EINVAL: neither set nor get.
int modifyCheck(Volume& /*volume*/, const Request& request, bool& /*size_changed*/) {
    auto info = argumentOf<modify_check_info>(request);
    if (info.mode == MODIFY_CHECK_SET) {
        FileState state = *request.inode.state;
        state.flag = info.flag;
        if (const int error = storeState(request.inode, request.fd, state)) {
            return error;
        }
    } else if (info.mode != MODIFY_CHECK_GET) {
        return EINVAL;
    }
    info.flag = request.inode.state->flag;
    answer(request, info);
    return 0;
}

// EINVAL, EBADF, EXDEV: as findSource; EINVAL also for flags and for a source that is not layered.
int snapshotCreate(Volume& volume, const Request& request, bool& size_changed) {
    const auto info = argumentOf<snapshot_create_info>(request);
    if (info.flags != 0) {
        return EINVAL;
    }
    int error = 0;
    Inode* const source = findSource(volume, request, info.source_fd, error);
    if (source == nullptr) {
        return error;
    }
    UniqueFd source_fd;
    error = openInode(*source, O_PATH, source_fd);
    if (error == 0) {
        error = loadState(*source, source_fd.get());
    }
    if (error == 0 && !source->state->is_layered) {
        error = EINVAL;
    }
    if (error != 0) {
        return error;
    }
    return takeData(volume, request, *source, size_changed);
}

// EBADF, EXDEV, EINVAL: as findCallersFile; EINVAL also when the file is no clone of this one.
int snapshotPrepare(Volume& volume, const Request& request, bool& /*size_changed*/) {
    int error = 0;
    const Inode* const clone =
        findCallersFile(volume, request.pid, argumentOf<int32_t>(request), error);
    if (clone == nullptr) {
        return error;
    }
    if (clone->cloned_from != request.inode.number) {
        return EINVAL;
    }
    FileState state = *request.inode.state;
    state.is_layered = true;
    return storeState(request.inode, request.fd, state);
}

struct RequestKind {
    unsigned int number;
    int (*serve)(Volume& volume, const Request& request, bool& size_changed);
};

constexpr RequestKind kRequests[] = {
    {F2FS_IOC_DEDUP_REVOKE, dedupRevoke},       {F2FS_IOC_DEDUP_GET_FILE_INFO, dedupGetFileInfo},
    {F2FS_IOC_CLONE_FILE, cloneFile},           {F2FS_IOC_MODIFY_CHECK, modifyCheck},
    {F2FS_IOC_SNAPSHOT_CREATE, snapshotCreate}, {F2FS_IOC_SNAPSHOT_PREPARE, snapshotPrepare},
};

}  // namespace

int serveRequest(Volume& volume, const Request& request, size_t& answered, bool& size_changed) {
    answered = 0;
    size_changed = false;
    const auto* const kind =
        std::find_if(std::begin(kRequests), std::end(kRequests),
                     [&](const RequestKind& known) { return known.number == request.number; });
    if (kind == std::end(kRequests) || request.inode.type != S_IFREG) {
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
    const int error = kind->serve(volume, request, size_changed);
    answered = error == 0 ? out_size : 0;
    return error;
}

}  // namespace emulator
