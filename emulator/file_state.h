// SPDX-License-Identifier: Apache-2.0
// The driver's state of a regular file. An extended attribute of the backing file holds it, so that
// it outlives the mount and the daemon.
//
// Functions that return int return 0 or a positive errno value, here and in the other headers.
#pragma once

#include <cstdint>

namespace emulator {

struct Inode;

constexpr char STATE_ATTRIBUTE[] = "user.f2fs_emulator";

// In the form in which it is stored.
struct FileState {
    uint32_t version = 1;
    uint32_t flag = 0;  // the modify-check bits
    uint16_t is_deduped = 0;
    uint16_t is_layered = 0;
};
static_assert(sizeof(FileState) == 12);

// Reads the state on first use. fd is any descriptor of the file, O_PATH included.
int loadState(Inode& inode, int fd);

// Stores the state, first in the backing file, then in the inode. After a failure the next use
// loads it again.
int storeState(Inode& inode, int fd, const FileState& state);

// Clears the modification mark. Every change of data or size calls this first and is refused if
// this fails. So a file with a mark has not changed since the mark was set.
int clearMark(Inode& inode, int fd);

}  // namespace emulator
