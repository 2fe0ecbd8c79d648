// SPDX-License-Identifier: Apache-2.0
// The driver's six requests, free of FUSE.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "emulator/inode.h"

namespace emulator {

// One request as it comes in: on which open file, from which process.
struct Request {
    Inode& inode;
    int fd;     // the emulator's descriptor of the file
    pid_t pid;  // whose descriptor numbers the argument speaks of; a thread id will do
    unsigned int number;
    const void* in;
    size_t in_size;
    void* out;  // may be written up to out_size, also on failure
    size_t out_size;
};

// Serves a request and tells how many bytes of `out` are the answer. `size_changed` is set when
// the file's size may be another now, whatever the result.
// ENOTTY: not one of the six, or not a regular file. EINVAL: too small a record. The other causes
// are stated with each request in the source.
int serveRequest(Volume& volume, const Request& request, size_t& answered, bool& size_changed);

}  // namespace emulator
