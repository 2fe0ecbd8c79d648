// SPDX-License-Identifier: Apache-2.0
#include "emulator/xattr.h"

#include <linux/limits.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>

#include "emulator/file_state.h"

namespace emulator {
namespace {

bool isHidden(const char* name) {
    return strcmp(name, STATE_ATTRIBUTE) == 0;
}

}  // namespace

int setXattr(const char* path, const char* name, const char* value, size_t size, int flags) {
    if (isHidden(name)) {
        return EPERM;
    }
    return setxattr(path, name, value, size, flags) == 0 ? 0 : errno;
}

int removeXattr(const char* path, const char* name) {
    if (isHidden(name)) {
        return ENODATA;
    }
    return removexattr(path, name) == 0 ? 0 : errno;
}

int getXattr(const char* path, const char* name, std::string& value) {
    if (isHidden(name)) {
        return ENODATA;
    }
    value.resize(XATTR_SIZE_MAX);
    const ssize_t length = getxattr(path, name, value.data(), value.size());
    if (length < 0) {
        return errno;
    }
    value.resize(static_cast<size_t>(length));
    return 0;
}

int listXattrs(const char* path, std::string& names) {
    std::string all(XATTR_LIST_MAX, '\0');
    const ssize_t length = listxattr(path, all.data(), all.size());
    if (length < 0) {
        return errno;
    }
    names.clear();
    for (size_t begin = 0; begin < static_cast<size_t>(length);) {
        const char* const name = &all[begin];
        const size_t size = strlen(name) + 1;
        if (!isHidden(name)) {
            names.append(name, size);
        }
        begin += size;
    }
    return 0;
}

}  // namespace emulator
