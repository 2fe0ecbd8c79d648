// SPDX-License-Identifier: Apache-2.0
// The file system's operations, as libfuse calls them.
#pragma once

#include <fuse_lowlevel.h>

#include <unordered_map>
#include <vector>

#include "emulator/inode.h"
#include "emulator/listing.h"

namespace emulator {

// The state that the operations share. Its address is the session's user data.
struct Server {
    Volume volume;
    fuse_session* session = nullptr;
    std::unordered_map<int, Listing> listings;  // of open directories, by descriptor
    std::vector<char> buffer;                   // for data on the way to the kernel
};

// The operations, for fuse_session_new.
fuse_lowlevel_ops operations();

}  // namespace emulator
