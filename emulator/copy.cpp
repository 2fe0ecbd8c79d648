#include "copy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "file_state.h"

namespace emulator {
namespace {

// What the kernel answers when the files or their file system cannot do it, as opposed to a
// failure in doing it.
bool isUnsupported(int error) {
    return error == EOPNOTSUPP || error == EINVAL || error == EXDEV || error == ENOSYS ||
           error == ENOTTY || error == EPERM;
}

int writeAll(int fd, const char* data, size_t size, off_t offset) {
    while (size > 0) {
        const ssize_t written = pwrite(fd, data, size, offset);
        if (written < 0) {
            return errno;
        }
        data += written;
        size -= static_cast<size_t>(written);
        offset += written;
    }
    return 0;
}

int copyThroughMemory(int source, int destination, off_t begin, off_t end) {
    std::vector<char> buffer(1 << 18);
    while (begin < end) {
        const auto want = std::min<off_t>(end - begin, static_cast<off_t>(buffer.size()));
        const ssize_t got = pread(source, buffer.data(), static_cast<size_t>(want), begin);
        if (got <= 0) {
            return got < 0 ? errno : EIO;
        }
        if (const int error =
                writeAll(destination, buffer.data(), static_cast<size_t>(got), begin)) {
            return error;
        }
        begin += got;
    }
    return 0;
}

int copyExtent(int source, int destination, off_t begin, off_t end) {
    while (begin < end) {
        off64_t from = begin;
        off64_t to = begin;
        const auto want = static_cast<size_t>(std::min<off_t>(end - begin, 1 << 30));
        const ssize_t copied = copy_file_range(source, &from, destination, &to, want, 0);
        if (copied < 0 && !isUnsupported(errno)) {
            return errno;
        }
        if (copied <= 0) {
            return copyThroughMemory(source, destination, begin, end);
        }
        begin += copied;
    }
    return 0;
}

int copyExtents(int source, int destination, off_t size) {
    for (off_t end = 0; end < size;) {
        off_t begin = lseek(source, end, SEEK_DATA);
        if (begin < 0) {
            if (errno == ENXIO) {
                break;  // a hole up to the end
            }
            if (errno != EINVAL) {
                return errno;
            }
            begin = end;  // tells nothing about holes: all is data
        }
        end = lseek(source, begin, SEEK_HOLE);
        if (end < 0) {
            end = size;
        }
        if (const int error = copyExtent(source, destination, begin, end)) {
            return error;
        }
    }
    return ftruncate(destination, size) == 0 ? 0 : errno;
}

int shareOrCopy(int source, int destination, bool share_blocks) {
    if (share_blocks) {
        if (ioctl(destination, FICLONE, source) == 0) {
            return 0;
        }
        if (!isUnsupported(errno)) {
            return errno;
        }
    }
    struct stat attributes;
    if (fstat(source, &attributes) != 0) {
        return errno;
    }
    return copyExtents(source, destination, attributes.st_size);
}

}  // namespace

int probeBacking(const char* proc_path, const char*& missing, bool& shares_blocks) {
    const UniqueFd first(open(proc_path, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    const UniqueFd second(open(proc_path, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    missing = "make an unnamed temporary file in";
    if (!first.valid() || !second.valid()) {
        return errno;
    }
    missing = "keep user attributes on files in";
    if (fsetxattr(first.get(), kStateAttribute, "", 0, 0) != 0) {
        return errno;
    }
    missing = "write to a file in";
    const std::vector<char> block(4096, 'x');
    if (const int error = writeAll(first.get(), block.data(), block.size(), 0)) {
        return error;
    }
    shares_blocks = ioctl(second.get(), FICLONE, first.get()) == 0;
    return 0;
}

int dropSetidBits(int fd) {
    if (geteuid() != 0) {
        return 0;
    }
    struct stat attributes;
    if (fstat(fd, &attributes) != 0) {
        return errno;
    }
    const mode_t mode = attributes.st_mode & 07777;
    // Without the group's execute bit the set-group-ID bit asks for mandatory locking.
    const mode_t drop = S_ISUID | ((mode & S_IXGRP) != 0 ? S_ISGID : 0U);
    return (mode & drop) == 0 || fchmod(fd, mode & ~drop) == 0 ? 0 : errno;
}

int replaceData(int source, int destination, bool share_blocks) {
    // Emptied first, since sharing leaves what a longer destination has beyond the source's end.
    if (ftruncate(destination, 0) != 0) {
        return errno;
    }
    const int error = shareOrCopy(source, destination, share_blocks);
    if (error != 0 && ftruncate(destination, 0) != 0) {
        return EIO;  // neither copied nor emptied
    }
    return error;
}

}  // namespace emulator
