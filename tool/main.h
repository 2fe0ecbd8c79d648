// SPDX-License-Identifier: Apache-2.0
// Entries of the command-line tool; the executable takes them from the library.
#pragma once

#include <stdint.h>

#include "snapshot/export.h"

// A trial on a device: prepares and snapshots two fixed directories, /data/media/0/DCIM and
// /data/media/0/Documents, and destroys the snapshot. Its target is
// /data/media/0/snapshotdir_001.
//
// Returns 0, or the first nonzero result; later steps are skipped then.
extern "C" F2FS_SNAPSHOT_EXPORT int32_t default_testcase();

// Runs one command of the help text.
//
// Returns the engine's result, or -22 for wrong usage. The exit status is its low eight bits.
F2FS_SNAPSHOT_EXPORT int main(int argc, char** argv);
