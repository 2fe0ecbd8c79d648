// SPDX-License-Identifier: Apache-2.0
// What names are in a tree, at one time, and how two such listings differ.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

#include "manager/monitor.h"
#include "manager/results.h"

namespace manager {

// One name. Entries of a directory are sorted by name and follow each other; a directory names its
// first one.
struct Entry {
    uint64_t inode;
    int64_t modified;  // nanoseconds since the epoch
    int64_t changed;   // directories only: the time of the last change of inode or names
    uint64_t size;
    uint32_t mode;  // with the type
    uint32_t owner;
    uint32_t group;
    uint32_t names;  // the link count
    uint32_t name;   // offsets into Listing::texts
    uint32_t text;   // symbolic links
    uint32_t first;  // directories: their entries are [first, first + count)
    uint32_t count;
};

// A source tree. Entry 0 is the source itself; its name is the source's path.
struct Listing {
    std::vector<Entry> entries;
    std::string texts;  // names and link texts, each with a NUL behind it
    Counts counts;
};

}  // namespace manager
