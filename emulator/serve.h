// SPDX-License-Identifier: Apache-2.0
// Mounts a volume and serves it.
#pragma once

#include <fuse_opt.h>

#include <string>

namespace emulator {

struct Options {
    std::string backing;
    std::string mount_point;
    bool foreground = false;
    fuse_args mount_arguments = FUSE_ARGS_INIT(0, nullptr);
};

// Serves the volume until it is unmounted or a signal ends it. In the background unless
// `foreground` is set: then the calling process exits with status 0 as soon as the volume is
// mounted. A failed start leaves one line on standard error.
int serve(Options& options);

}  // namespace emulator
