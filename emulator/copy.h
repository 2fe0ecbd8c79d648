// SPDX-License-Identifier: Apache-2.0
// Replaces the data of one backing file by that of another.
#pragma once

namespace emulator {

// Makes destination's data and size those of source. Both share blocks if the file system can do
// that, else the data are copied and holes kept. On failure destination is empty; EIO: it could not
// be emptied. Neither descriptor has O_APPEND.
int replaceData(int source, int destination);

}  // namespace emulator
