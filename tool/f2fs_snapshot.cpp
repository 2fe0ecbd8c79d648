// SPDX-License-Identifier: Apache-2.0
// The executable around the library's main: what a process has to take care of, before and after.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

// The verdict is still in stdio's buffer when main returns. Where it cannot be written (a full
// disk), an exit status of 0 would be a success that nobody was told of.
void flushVerdict() {
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        _exit(EXIT_FAILURE);
    }
}

// Runs before main. A missing standard descriptor is replaced: the next file opened would take its
// number, and log lines written to standard error would land in a user's photo.
[[gnu::constructor]] void guardStandardStreams() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // The lowest number that is free: all below fd are taken by now.
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) {
            _exit(EXIT_FAILURE);
        }
    }
    atexit(flushVerdict);
}

}  // namespace
