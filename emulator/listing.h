// SPDX-License-Identifier: Apache-2.0
// Reading a directory of the backing directory.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

namespace emulator {

// The offset of an entry is the number of entries before it. The file system's own offsets can need
// 63 bits, which a 32-bit reader may not accept.
//
// An open directory keeps only the file system's offsets of the entries that were read last, since
// the kernel continues there or behind them. The descriptor's position is behind the last of them.
struct Listing {
    off_t first = 0;          // offset of the first entry that was read last
    std::vector<off_t> ends;  // the file system's offset behind each of these entries
};

// Reads the entries from `offset` on as an array of dirent64. `length` is its size in bytes, 0 at
// the end of the directory.
int readEntries(int directory, Listing& listing, off_t offset, char* entries, size_t room,
                size_t& length);

}  // namespace emulator
