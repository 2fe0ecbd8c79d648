// SPDX-License-Identifier: Apache-2.0
// Preloaded into f2fs_snapshot_helper: holds the library at one call until the test has acted, or
// kills it there.
//
// F2FS_SNAPSHOT_TEST_HOLD="CALL PATH" names the call, F2FS_SNAPSHOT_TEST_NTH which one of them
// (from 1), F2FS_SNAPSHOT_TEST_PIPES two pipes, DIR/held and DIR/go. Without a call, the nth call
// of any kind ends the process.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/stand_in.h"

namespace {

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string setting(const char* name) {
    const char* text = getenv(name);
    return text == nullptr ? "" : text;
}

bool isNth(const std::string& call, const char* path) {
    static const std::string wanted = setting("F2FS_SNAPSHOT_TEST_HOLD");
    static int left = atoi(setting("F2FS_SNAPSHOT_TEST_NTH").c_str());
    return (wanted.empty() || wanted == call + " " + path) && left > 0 && --left == 0;
}

DIR* ended = nullptr;

int openPipe(const char* name, int flags) {
    const std::string path = setting("F2FS_SNAPSHOT_TEST_PIPES") + name;
    return next<int(const char*, int, ...)>(LARGE(open))(path.c_str(), flags | O_CLOEXEC);
}

void before(const std::string& call, const char* path) {
    if (!isNth(call, path)) {
        return;
    }
    if (setting("F2FS_SNAPSHOT_TEST_HOLD").empty()) {
        raise(SIGKILL);
    }
    const int held = openPipe("/held", O_WRONLY);
    const int go = openPipe("/go", O_RDONLY);
    char byte = 0;
    const bool is_told = write(held, &byte, 1) == 1 && read(go, &byte, 1) == 1;
    close(held);
    close(go);
    if (!is_told) {
        abort();
    }
}

}  // namespace

STAND_IN(LARGE(open), int, standInOpen, const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    before((flags & O_CREAT) != 0            ? "create"
           : (flags & O_ACCMODE) == O_RDONLY ? "read"
                                             : "open",
           path);
    return next<int(const char*, int, ...)>(LARGE(open))(path, flags, mode);
}

STAND_IN("opendir", DIR*, standInOpendir, const char* path) {
    before("opendir", path);
    DIR* const stream = next<DIR*(const char*)>("opendir")(path);
    if (!setting("F2FS_SNAPSHOT_TEST_HOLD").empty() && isNth("end", path)) {
        ended = stream;
    }
    return stream;
}

STAND_IN(LARGE(readdir), dirent*, standInReaddir, DIR* stream) {
    if (stream == ended) {
        errno = EIO;
        return nullptr;
    }
    return next<dirent*(DIR*)>(LARGE(readdir))(stream);
}

STAND_IN(LARGE(fallocate), int, standInFallocate, int fd, int mode, off_t offset, off_t length) {
    char path[PATH_MAX] = "";
    // Not /proc/self, which is a link: the helper can follow none.
    const std::string open = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
    if (readlink(open.c_str(), path, sizeof path - 1) > 0 &&
        !setting("F2FS_SNAPSHOT_TEST_HOLD").empty() && isNth("allocate", path)) {
        errno = ENOSPC;
        return -1;
    }
    return next<int(int, int, off_t, off_t)>(LARGE(fallocate))(fd, mode, offset, length);
}

STAND_IN("__android_log_set_logger", void, standInSetLogger, void* logger) {
    if (setting("F2FS_SNAPSHOT_TEST_NO_LOG").empty()) {
        next<void(void*)>("__android_log_set_logger")(logger);
    }
}

STAND_IN("mkdir", int, standInMkdir, const char* path, mode_t mode) {
    before("mkdir", path);
    return next<int(const char*, mode_t)>("mkdir")(path, mode);
}

STAND_IN("unlink", int, standInUnlink, const char* path) {
    before("unlink", path);
    return next<int(const char*)>("unlink")(path);
}
