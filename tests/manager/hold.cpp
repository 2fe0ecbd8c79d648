// SPDX-License-Identifier: Apache-2.0
// Preloaded into f2fs_snapshot_helper: holds the library at one call until the test has acted, or
// ends it there.
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

namespace {

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// With file sizes of 64 bits on 32 bits, glibc's headers give these functions other names.
#ifdef __USE_FILE_OFFSET64
constexpr const char* OPEN = "open64";
constexpr const char* READDIR = "readdir64";
constexpr const char* ALLOCATE = "fallocate64";
#else
constexpr const char* OPEN = "open";
constexpr const char* READDIR = "readdir";
constexpr const char* ALLOCATE = "fallocate";
#endif

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
    return next<int(const char*, int, ...)>(OPEN)(path.c_str(), flags | O_CLOEXEC);
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

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    before((flags & O_CREAT) != 0            ? "create"
           : (flags & O_ACCMODE) == O_RDONLY ? "read"
                                             : "open",
           path);
    return next<int(const char*, int, ...)>(OPEN)(path, flags, mode);
}

DIR* opendir(const char* path) {
    before("opendir", path);
    DIR* const stream = next<DIR*(const char*)>("opendir")(path);
    if (!setting("F2FS_SNAPSHOT_TEST_HOLD").empty() && isNth("end", path)) {
        ended = stream;
    }
    return stream;
}

dirent* readdir(DIR* stream) {
    if (stream == ended) {
        errno = EIO;
        return nullptr;
    }
    return next<dirent*(DIR*)>(READDIR)(stream);
}

int fallocate(int fd, int mode, off_t offset, off_t length) {
    char path[PATH_MAX] = "";
    // Not /proc/self, which is a link: none is followed here.
    const std::string open = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd);
    if (readlink(open.c_str(), path, sizeof path - 1) > 0 &&
        !setting("F2FS_SNAPSHOT_TEST_HOLD").empty() && isNth("allocate", path)) {
        errno = ENOSPC;
        return -1;
    }
    return next<int(int, int, off_t, off_t)>(ALLOCATE)(fd, mode, offset, length);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier)
void __android_log_set_logger(void* logger) {
    if (setting("F2FS_SNAPSHOT_TEST_NO_LOG").empty()) {
        next<void(void*)>("__android_log_set_logger")(logger);
    }
}

int mkdir(const char* path, mode_t mode) noexcept {
    before("mkdir", path);
    return next<int(const char*, mode_t)>("mkdir")(path, mode);
}

int unlink(const char* path) noexcept {
    before("unlink", path);
    return next<int(const char*)>("unlink")(path);
}

}  // extern "C"
