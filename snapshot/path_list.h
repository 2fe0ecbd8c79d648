// SPDX-License-Identifier: Apache-2.0
// Lists of paths as users write them: one string, separated by a delimiter.
#pragma once

#include <string>
#include <vector>

#include "export.h"

// Splits text at each delimiter and appends the pieces to pieces, in order. Empty pieces are
// dropped, nothing is trimmed, and entries already in pieces are kept.
F2FS_SNAPSHOT_EXPORT void splitDirsString(const std::string& text, char delimiter,
                                          std::vector<std::string>& pieces);
