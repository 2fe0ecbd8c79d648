// SPDX-License-Identifier: Apache-2.0
#include "emulator/copy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace emulator {
namespace {

int copyData(int source, int destination) {
    struct stat attributes;
    if (fstat(source, &attributes) != 0 || ftruncate(destination, attributes.st_size) != 0) {
        return errno;
    }
    off64_t from = 0;
    while ((from = lseek(source, from, SEEK_DATA)) >= 0) {
        const off_t end = lseek(source, from, SEEK_HOLE);
        if (end < 0) {
            return errno;
        }
        for (off64_t to = from; to < end;) {
            const ssize_t copied =
                copy_file_range(source, &from, destination, &to, static_cast<size_t>(end - to), 0);
            if (copied <= 0) {
                return copied < 0 ? errno : EIO;
            }
        }
    }
    return errno == ENXIO ? 0 : errno;  // no data any more
}

}  // namespace

int replaceData(int source, int destination) {
    // FICLONE leaves the data of a longer destination behind the source's end.
    if (ftruncate(destination, 0) != 0) {
        return errno;
    }
    if (ioctl(destination, FICLONE, source) == 0) {
        return 0;
    }
    const int error = copyData(source, destination);
    if (error != 0 && ftruncate(destination, 0) != 0) {
        return EIO;  // neither copied nor emptied
    }
    return error;
}

}  // namespace emulator
