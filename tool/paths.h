// SPDX-License-Identifier: Apache-2.0
// Path routines that the front ends and the engine share. Only splitDirsString is exported.
#pragma once

#include <stdint.h>

#include <string>

#include "snapshot/path_list.h"  // IWYU pragma: export

// Makes the directory path and every missing directory above it, with mode 0770 less the umask.
// A path longer than 254 bytes aborts the process.
//
// Returns 0 (also for an empty path, and for a path that exists but is not a directory), or -1 if a
// mkdir failed; directories made before it stay.
int32_t mkdirsLoop(const char* path);

// Returns whether a path is accepted: any path without a "/../" step is. Logs a rejection.
bool checkPathRegulate(const std::string& path);
