// SPDX-License-Identifier: Apache-2.0
// Path routines that the front ends and the engine share. Only splitDirsString is exported.
#pragma once

#include <stdint.h>

#include <string>

#include "snapshot/path_list.h"  // IWYU pragma: export

// Makes the directory path and every missing directory above it, with mode 0770 less the umask.
// The path is limited to 254 bytes: a longer one aborts the process.
//
// Returns 0 (also for an empty path, and when the path exists as something else), or the -1 of the
// mkdir that failed; directories made before it stay.
int32_t mkdirsLoop(const char* path);

// Tells whether a path is accepted: any path without a "/../" step is. Logs a rejection.
bool checkPathRegulate(const std::string& path);
