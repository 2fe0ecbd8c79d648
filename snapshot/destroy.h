// SPDX-License-Identifier: Apache-2.0
// Internal: the recursive removal that destroy and a failed create share.
#pragma once

#include <stdint.h>

#include <string>

// Removes dstpath and everything under it, bottom-up.
//
// Returns the result of removing dstpath itself (0, or -1 if something under it is left), or -2 if
// it cannot be opened.
int32_t DestroyDirSnapshotInter(std::string dstpath);
