// The kernel's messages, with what libfuse does not pass on.
#pragma once

#include "fuse_api.h"
#include "inode.h"

namespace emulator {

// Serves one message. All go through the session except O_TMPFILE's, for which libfuse has no
// operation: it is answered here.
void serveMessage(Volume& volume, const fuse_buf& message);

}  // namespace emulator
