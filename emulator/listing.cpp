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

off_t nextOffset(const Listing& listing) {
    return listing.first + static_cast<off_t>(listing.ends.size());
}

// Reads on from the descriptor's position.
int readNext(int directory, Listing& listing, char* entries, size_t room, size_t& length) {
    const ssize_t got = getdents64(directory, entries, room);
    if (got < 0) {
        return errno;
    }
    listing.first = nextOffset(listing);
    listing.ends.clear();
    length = static_cast<size_t>(got);
    for (size_t begin = 0; begin < length;) {
        auto* const entry = reinterpret_cast<dirent64*>(entries + begin);
        fillType(directory, *entry);
        listing.ends.push_back(entry->d_off);
        begin += entry->d_reclen;
    }
    return 0;
}

// Counts the entries from the start until those that were read last include `offset`.
int readUpTo(off_t offset, int directory, Listing& listing, char* entries, size_t room) {
    listing = {};
    if (lseek(directory, 0, SEEK_SET) < 0) {
        return errno;
    }
    size_t length = 1;
    while (length > 0 && nextOffset(listing) < offset) {
        if (const int error = readNext(directory, listing, entries, room, length)) {
            return error;
        }
    }
    return 0;
}

}  // namespace

int readEntries(int directory, Listing& listing, off_t offset, char* entries, size_t room,
                size_t& length) {
    if (offset <= listing.first || offset > nextOffset(listing)) {
        if (const int error = readUpTo(offset, directory, listing, entries, room)) {
            return error;
        }
    }
    if (offset < nextOffset(listing)) {
        listing.ends.resize(static_cast<size_t>(offset - listing.first));
        if (lseek(directory, listing.ends.back(), SEEK_SET) < 0) {
            return errno;
        }
    }
    return readNext(directory, listing, entries, room, length);
}

}  // namespace emulator
