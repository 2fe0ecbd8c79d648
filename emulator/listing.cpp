// SPDX-License-Identifier: Apache-2.0
#include "emulator/listing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace emulator {
namespace {

// Some file systems leave the type out. Not synchronized: a mount on the entry may be this volume.
void fillType(int directory, dirent64& entry) {
    struct statx attributes;
    if (entry.d_type == DT_UNKNOWN &&
        statx(directory, entry.d_name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC,
              STATX_TYPE, &attributes) == 0) {
        entry.d_type = static_cast<unsigned char>(IFTODT(attributes.stx_mode));
    }
}

}  // namespace

int readEntries(int directory, off_t offset, char* entries, size_t room, size_t& length) {
    // Moved only if necessary: offsets that are counts would go wrong among removals.
    if (lseek(directory, 0, SEEK_CUR) != offset && lseek(directory, offset, SEEK_SET) < 0) {
        return errno;
    }
    const ssize_t got = getdents64(directory, entries, room);
    if (got < 0) {
        return errno;
    }
    length = static_cast<size_t>(got);
    for (size_t begin = 0; begin < length;) {
        auto* const entry = reinterpret_cast<dirent64*>(entries + begin);
        fillType(directory, *entry);
        begin += entry->d_reclen;
    }
    return 0;
}

}  // namespace emulator
