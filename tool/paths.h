// Path routines that the front ends and the engine share.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "export.h"

// Splits text at each delimiter and appends the pieces to pieces, in order; empty pieces are
// dropped, nothing is trimmed, and entries already in pieces are kept.
F2FS_SNAPSHOT_EXPORT void splitDirsString(const std::string& text, char delimiter,
                                          std::vector<std::string>& pieces);

// Internal to the library from here on: these symbols are not exported.

// Makes the directory path and every missing directory above it, with mode 0770 less the umask.
// The path is limited to 254 bytes: a longer one aborts the process.
//
// Returns 0 (also for an empty path, and when the path exists as something else), or the -1 of the
// mkdir that failed; directories made before it stay.
int32_t mkdirsLoop(const char* path);

// Tells whether a path is accepted: any path without a "/../" step is. Logs a rejection.
bool checkPathRegulate(const std::string& path);
