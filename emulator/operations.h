// SPDX-License-Identifier: Apache-2.0
// The file system as FUSE asks for it.
#pragma once

#include <fuse_lowlevel.h>

namespace emulator {

// The operations, for fuse_session_new. The session's user data is the Volume.
fuse_lowlevel_ops operations();

// Serves one message through the session; what libfuse does not pass on is brought into a form
// that it does.
void serveMessage(fuse_session* session, const fuse_buf& message);

}  // namespace emulator
