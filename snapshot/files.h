// SPDX-License-Identifier: Apache-2.0
// Internal: the two steps of a file, by whole paths as the walks have them at hand.
#pragma once

#include <stdint.h>

#include <string>

// PreCreateSingleFileSnapshot of srcfilepath, a file of srcdirpath.
int32_t prepareFile(const std::string& srcdirpath, const std::string& srcfilepath);

// CreateSingleFileSnapshot of srcfilepath as dstfilepath.
int32_t snapshotFile(const std::string& srcfilepath, const std::string& dstfilepath);
