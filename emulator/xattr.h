// SPDX-License-Identifier: Apache-2.0
// The extended attributes that users of the volume see: all but the one that holds the state.
#pragma once

#include <cstddef>
#include <string>

namespace emulator {

// The calls of sys/xattr.h on a path, with the errors of these. The state's attribute does not
// exist for get and remove (ENODATA) and must not be set (EPERM).
int setXattr(const char* path, const char* name, const char* value, size_t size, int flags);
int removeXattr(const char* path, const char* name);
int getXattr(const char* path, const char* name, std::string& value);
int listXattrs(const char* path, std::string& names);

}  // namespace emulator
