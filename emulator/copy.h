// Giving one backing file the data of another.
#pragma once

#include "inode.h"

namespace emulator {

// Finds out whether the file system below a folder can do what the emulator needs: unnamed
// temporary files and user attributes, else `missing` names which. Tells in shares_blocks whether
// two files can share blocks. Leaves nothing behind.
int probeBacking(const char* proc_path, const char*& missing, bool& shares_blocks);

// Takes the set-user-ID and set-group-ID bits away, as the kernel does on a write by anyone but
// root. It does so for an emulator that is not root; for one that is, this is to be done.
int dropSetidBits(int fd);

// Makes destination's data and size those of source: by sharing blocks where that works, else by a
// copy that keeps holes. On failure destination is empty. Neither is opened with O_APPEND.
int replaceData(int source, int destination, bool share_blocks);

}  // namespace emulator
