// SPDX-License-Identifier: Apache-2.0
#include "tool/paths.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "snapshot/log.h"

#ifdef __ANDROID__
// bionic's headers declare it only if fortified calls are switched on.
extern "C" size_t __strlen_chk(const char* text, size_t size);
#endif

namespace {

constexpr size_t PATH_BUFFER_SIZE = 255;
constexpr mode_t DIRECTORY_MODE = 0770;

// The length of the buffer's string; aborts if the buffer holds no NUL.
size_t checkedLength(const char* buffer) {
#ifdef __ANDROID__
    return __strlen_chk(buffer, PATH_BUFFER_SIZE);
#else
    const size_t length = strnlen(buffer, PATH_BUFFER_SIZE);
    if (length == PATH_BUFFER_SIZE) {
        abort();
    }
    return length;
#endif
}

// Anything that stat finds counts as present. Below a plain file the next mkdir fails.
int32_t mkdirIfMissing(const char* path) {
    struct stat path_stat = {};
    return stat(path, &path_stat) == 0 ? 0 : mkdir(path, DIRECTORY_MODE);
}

}  // namespace

void splitDirsString(const std::string& text, char delimiter, std::vector<std::string>& pieces) {
    // A copy, since text may be an element of pieces, which move when the vector grows.
    const std::string rest = text;  // NOLINT(performance-unnecessary-copy-initialization)
    for (size_t begin = 0, end = 0; begin < rest.size(); begin = end + 1) {
        end = std::min(rest.find(delimiter, begin), rest.size());
        if (end > begin) {
            pieces.push_back(rest.substr(begin, end - begin));
        }
    }
}

int32_t mkdirsLoop(const char* path) {
    char buffer[PATH_BUFFER_SIZE] = {};
    memcpy(buffer, path, strnlen(path, sizeof buffer));
    const size_t length = checkedLength(buffer);
    for (size_t i = 1; i < length; ++i) {
        if (buffer[i] != '/') {
            continue;
        }
        buffer[i] = '\0';
        const int32_t ret = mkdirIfMissing(buffer);
        if (ret != 0) {
            LOG_ERROR("Failed to mkdir %s ret = %d\n", buffer, ret);
            return ret;
        }
        buffer[i] = '/';
    }
    const int32_t ret = length == 0 ? 0 : mkdirIfMissing(buffer);
    if (ret != 0) {
        LOG_ERROR("final Failed to mkdir %s ret = %d\n", buffer, ret);
    }
    return ret;
}

bool checkPathRegulate(const std::string& path) {
    if (path.find("/../") == std::string::npos) {
        return true;
    }
    LOG_ERROR("checkPathRegulate path %s failed\n", path.c_str());
    return false;
}
