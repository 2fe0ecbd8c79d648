// The file system as FUSE asks for it.
#pragma once

#include <sys/types.h>

#include "fuse_api.h"
#include "inode.h"

namespace emulator {

// How long the kernel may answer from its cache.
constexpr double kCacheSeconds = 1.0;

// The operations, for fuse_session_new. The session's user data is the Volume.
fuse_lowlevel_ops operations();

// The rest is also for the message that libfuse has no operation for.

struct Caller {
    uid_t uid;
    gid_t gid;
};

// Node ids are inode numbers, except that the root's and FUSE_ROOT_ID change places.
Inode& inodeOf(const Volume& volume, fuse_ino_t id);
fuse_ino_t idOf(const Volume& volume, const Inode& inode);

// What of a caller's open flags concerns the backing file. O_DIRECT would ask for aligned buffers;
// O_APPEND comes with each write and can change in between.
int backingFlags(int flags);

// Gives a new object, named in `at` or (with an empty name) open as `at`, to the caller. Its group
// is the folder's where the folder's set-group-ID bit has put it there.
int giveToCaller(const Volume& volume, const Caller& caller, int folder, int at, const char* name);

}  // namespace emulator
