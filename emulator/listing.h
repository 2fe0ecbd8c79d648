// SPDX-License-Identifier: Apache-2.0
// Reading a directory of the backing directory.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace emulator {

// Reads the entries that follow `offset` (0, or the d_off of an entry) as an array of dirent64.
// `length` is its size in bytes, 0 at the end of the directory. The descriptor's own position is
// the only thing that is kept between two calls, so an open directory needs no memory.
int readEntries(int directory, off_t offset, char* entries, size_t room, size_t& length);

}  // namespace emulator
