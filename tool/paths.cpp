#include "paths.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "log.h"

#ifdef __ANDROID__
// The C library's own; its headers declare it only where fortified calls are switched on.
extern "C" size_t __strlen_chk(const char* text, size_t size);
#endif

namespace {

constexpr size_t PATH_BUFFER_SIZE = 255;
constexpr mode_t DIRECTORY_MODE = 0770;

// The length of the buffer's string; ends the process when the buffer holds no NUL.
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

// Anything that stat finds counts as present; what is no directory fails the next mkdir below it.
int32_t mkdirIfMissing(const char* path) {
    struct stat path_stat = {};
    return stat(path, &path_stat) == 0 ? 0 : mkdir(path, DIRECTORY_MODE);
}

}  // namespace

void splitDirsString(const std::string& text, char delimiter, std::vector<std::string>& pieces) {
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = std::min(text.find(delimiter, begin), text.size());
        if (end > begin) {
            pieces.push_back(text.substr(begin, end - begin));
        }
        begin = end + 1;
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
