// SPDX-License-Identifier: Apache-2.0
// manifest.mtree and xattrs.dump: what the sources were.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "manager/listing.h"

namespace manager {

constexpr char MANIFEST_FILE[] = "manifest.mtree";
constexpr char ATTRIBUTES_FILE[] = "xattrs.dump";

// One line of a manifest.
struct Recorded {
    std::string path;   // absolute, as the source's
    uint32_t mode = 0;  // with the type
    uint32_t owner = 0;
    uint32_t group = 0;
    int64_t seconds = 0;  // of the modification time
    uint32_t nanoseconds = 0;
    uint64_t size = 0;
    uint64_t inode = 0;  // of the source, together with:
    uint32_t names = 0;  // its link count; 0 and 1: no other name
    std::string link;    // text of a symbolic link
    std::string digest;  // SHA-256, 32 bytes; empty: none
};

// Calls visit for each line of the generation's manifest, in the file's order: siblings are sorted
// by name, and all entries of a directory come before those of its subdirectories. Directories
// above the sources are left out. Throws ERROR_FORMAT for a damaged manifest.
void readManifest(int generation, const std::string& path,
                  const std::function<void(const Recorded&)>& visit);

// Extended attributes by path (absolute) and name.
using Attributes = std::map<std::string, std::map<std::string, std::string>>;

// Reads the generation's attributes; none if it has no such file. Throws ERROR_FORMAT.
Attributes readAttributes(int generation, const std::string& path);

// The SHA-256 digest of what is left to read of a file, 32 bytes.
std::string digestOf(int file, const std::string& path);

}  // namespace manager
