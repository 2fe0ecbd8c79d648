// SPDX-License-Identifier: Apache-2.0
// The driver's six requests. Nothing here depends on FUSE.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "emulator/inode.h"

namespace emulator {

// One request: the open file that it was sent to, the calling process and the argument.
struct Request {
    Inode& inode;
    int fd;     // the emulator's descriptor of the file
    pid_t pid;  // whose descriptor numbers the argument contains; may be a thread id
    unsigned int number;
    const void* in;
    size_t in_size;
    void* out;  // may be written up to out_size, also on failure
    size_t out_size;
};

// Serves a request. `answered` is the number of bytes of `out` to return to the caller.
// `size_changed` is true if the file's size may have changed, whatever the result.
// ENOTTY: not one of the six requests, or not a regular file. EINVAL: the record is too short.
// EROFS: the request would change a read-only volume. The source states further errors of each
// request.
int serveRequest(const Volume& volume, const Request& request, size_t& answered,
                 bool& size_changed);

}  // namespace emulator
