// SPDX-License-Identifier: Apache-2.0
// The driver's state of a file, kept in an extended attribute of the backing file: it outlives the
// mount and the daemon.
#pragma once

#include "emulator/inode.h"

namespace emulator {

constexpr char STATE_ATTRIBUTE[] = "user.f2fs_emulator";

// Reads the state on first use. fd is any descriptor of the file, O_PATH included.
int loadState(Inode& inode, int fd);

// Stores the state, first in the backing file, then in the inode.
int storeState(Inode& inode, int fd, const FileState& state);

// Takes the modification mark away. Every change of data or size goes through here first and is
// not made when this fails: a mark that is still there always tells the truth.
int clearMark(Inode& inode, int fd);

}  // namespace emulator
