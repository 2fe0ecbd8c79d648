// SPDX-License-Identifier: Apache-2.0
// Giving one backing file the data of another.
#pragma once

namespace emulator {

// Makes destination's data and size those of source: by sharing blocks where that works, else by a
// copy that keeps holes. On failure destination is empty. Neither is opened with O_APPEND.
int replaceData(int source, int destination);

}  // namespace emulator
