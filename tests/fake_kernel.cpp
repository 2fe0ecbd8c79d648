#include "fake_kernel.h"

#include <android/log.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "f2fs_ioctl.h"

namespace {

FakeKernel* active = nullptr;

constexpr int FIRST_DESCRIPTOR = 100;
constexpr size_t MODELLED_BYTES = 1 << 16;  // of a file's content; beyond it only the size counts

// The C library's own call behind the name that the headers map it to.
template <typename Function>
Function real(const char* name, bool large_file_variant = false) {
    const std::string symbol =
        std::string(name) + (large_file_variant && sizeof(void*) == 4 ? "64" : "");
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol.c_str()));
}

std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));
std::string vformat(const char* text, va_list arguments) {
    char buffer[16384];
    vsnprintf(buffer, sizeof buffer, text, arguments);
    return buffer;
}
std::string format(const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    std::string result = vformat(text, arguments);
    va_end(arguments);
    return result;
}

std::string openFlags(int flags, mode_t mode) {
    std::string text = (flags & O_ACCMODE) == O_RDWR ? "O_RDWR" : "O_RDONLY";
    int rest = flags & ~(O_ACCMODE | O_LARGEFILE);
    const std::pair<int, const char*> names[] = {
        {O_TMPFILE, "|O_TMPFILE"}, {O_CREAT, "|O_CREAT"}, {O_TRUNC, "|O_TRUNC"}};
    for (const auto& [bits, name] : names) {
        if ((rest & bits) == bits) {
            text += name;
            rest &= ~bits;
        }
    }
    text += rest != 0 ? format("|%#o", static_cast<unsigned>(rest)) : "";
    return mode != 0 ? text + format(" %04o", static_cast<unsigned>(mode)) : text;
}

std::string content(int fd) {
    std::string text(MODELLED_BYTES, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(0, pread(fd, text.data(), text.size(), 0))));
    return text;
}

off_t sizeOf(int fd) {
    struct stat file_stat = {};
    fstat(fd, &file_stat);
    return file_stat.st_size;
}

void copyContent(int source_fd, int destination_fd) {
    const std::string text = content(source_fd);
    const bool copied =
        ftruncate(destination_fd, 0) == 0 &&
        pwrite(destination_fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
        ftruncate(destination_fd, sizeOf(source_fd)) == 0;
    if (!copied) {
        perror("fake kernel: copy");
    }
}

std::string nameOf(unsigned long code) {
    switch (code) {
        case F2FS_IOC_DEDUP_REVOKE:
            return "DEDUP_REVOKE";
        case F2FS_IOC_DEDUP_GET_FILE_INFO:
            return "DEDUP_GET_FILE_INFO";
        case F2FS_IOC_CLONE_FILE:
            return "CLONE_FILE";
        case F2FS_IOC_MODIFY_CHECK:
            return "MODIFY_CHECK";
        case F2FS_IOC_SNAPSHOT_CREATE:
            return "SNAPSHOT_CREATE";
        case F2FS_IOC_SNAPSHOT_PREPARE:
            return "SNAPSHOT_PREPARE";
        default:
            return format("%#lx", code);
    }
}

}  // namespace

void FakeKernel::switchOn(bool on) {
    active = on ? this : nullptr;
}

std::string FakeKernel::text() const {
    std::string text;
    for (const std::string& line : trace) {
        text += line + "\n";
    }
    return text;
}

std::string FakeKernel::log() const {
    std::string text;
    for (const std::string& line : trace) {
        text += line[1] == ' ' ? line + "\n" : "";
    }
    return text;
}

std::string FakeKernel::shown(std::string text) const {
    const std::pair<std::string, std::string> shorter[] = {{root_, "$"}, {"\n", "\\n"}};
    for (const auto& [from, to] : shorter) {
        for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
            text.replace(at, from.size(), to);
        }
    }
    return text;
}

void FakeKernel::answer(const std::string& call, Answer given, int skip) {
    script_.push_back({call, given, skip});
}

// Counts a call and lets a writer in; yields the result when the call is scripted or to fail.
std::optional<int> FakeKernel::intercept(const std::string& call, void* record) {
    ++calls;
    const std::string line = shown(call);
    if (before) {
        switchOn(false);
        before(line);
        switchOn(true);
    }
    std::optional<Answer> given;
    for (Scripted& scripted : script_) {
        if (line.compare(0, scripted.call.size(), scripted.call) == 0 && scripted.skip-- == 0) {
            given = scripted.answer;
        }
    }
    if (calls == fault.call || (fault.from_then_on && calls > fault.call)) {
        ++faults;
        given = Answer{-1, fault.error, {}};
    }
    if (!given) {
        return std::nullopt;
    }
    if (given->word && record != nullptr) {
        *static_cast<uint32_t*>(record) = *given->word;
    }
    note(call, given->result);
    errno = given->error;
    return given->result;
}

int FakeKernel::note(const std::string& call, int result) {
    const int error = errno;
    trace.push_back(shown(call) + " = " + std::to_string(result));
    errno = error;
    return result;
}

FakeKernel::File& FakeKernel::file(int fd) {
    struct statx file_stat = {};
    statx(fd, "", AT_EMPTY_PATH, STATX_INO | STATX_BTIME, &file_stat);
    return files_[{file_stat.stx_ino,
                   file_stat.stx_btime.tv_sec * 1'000'000'000 + file_stat.stx_btime.tv_nsec}];
}

int FakeKernel::model(int fd, const std::string& name, void* record) {
    if (name == "DEDUP_GET_FILE_INFO") {
        auto* info = static_cast<dedup_file_info*>(record);
        *info = {file(fd).is_deduped, file(fd).is_layered, 0xDEADBEEF};
    } else if (name == "MODIFY_CHECK") {
        auto* check = static_cast<modify_check_info*>(record);
        if (check->mode == MODIFY_CHECK_SET) {
            file(fd).flag = check->flag;
            file(fd).marked_content = content(fd);
        } else if (content(fd) == file(fd).marked_content) {
            check->flag = file(fd).flag;
        } else {
            check->flag = file(fd).flag & ~MODIFY_CHECK_UNCHANGED;
        }
    } else if (name == "CLONE_FILE") {
        copyContent(static_cast<clone_file_info*>(record)->source_fd, fd);
    } else if (name == "SNAPSHOT_PREPARE") {
        file(fd).is_layered = 1;
    } else if (name == "SNAPSHOT_CREATE") {
        copyContent(static_cast<snapshot_create_info*>(record)->source_fd, fd);
    } else if (name == "DEDUP_REVOKE") {
        file(fd).is_layered = file(fd).is_deduped = 0;
    }
    return 0;
}

int FakeKernel::request(int fd, unsigned long code, void* record) {
    const std::string name = nameOf(code);
    const auto* words = static_cast<const uint32_t*>(record);
    std::string call = format("%s %d {%#x", name.c_str(), fd, words[0]);
    call += _IOC_SIZE(code) == 8 ? format(", %#x}", words[1]) : "}";
    const std::optional<int> result = intercept(call, record);
    return result ? *result : note(call, model(fd, name, record));
}

namespace {

// Answers a call from the active fake's script, or by the real call.
template <typename Real>
int through(const std::string& call, Real real_call) {
    const std::optional<int> result = active->intercept(call);
    return result ? *result : active->note(call, static_cast<int>(real_call()));
}

}  // namespace

// The calls themselves. Without an active fake they are the C library's.
extern "C" {

int __android_log_print(int priority, const char* tag, const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    const std::string line = vformat(text, arguments);
    va_end(arguments);
    if (active != nullptr) {
        const bool known = priority == ANDROID_LOG_INFO || priority == ANDROID_LOG_ERROR;
        const bool tagged = strcmp(tag, "f2fs_snapshot_native") == 0;
        active->trace.push_back((!known || !tagged              ? "? "
                                 : priority == ANDROID_LOG_INFO ? "I "
                                                                : "E ") +
                                active->shown(line));
    }
    errno = EIDRM;  // a log may change errno: what the library reports it must have read before
    return 1;
}

int ioctl(int fd, unsigned long code, ...) noexcept {
    va_list arguments;
    va_start(arguments, code);
    void* record = va_arg(arguments, void*);
    va_end(arguments);
    static const auto real_ioctl = real<int (*)(int, unsigned long, ...)>("ioctl");
    return active == nullptr ? real_ioctl(fd, code, record) : active->request(fd, code, record);
}

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    static const auto real_open = real<int (*)(const char*, int, ...)>("open", true);
    static const auto real_close = real<int (*)(int)>("close");
    if (active == nullptr) {
        return real_open(path, flags, mode);
    }
    return through(format("open %s ", path) + openFlags(flags, mode), [&] {
        const int fd = real_open(path, flags, mode);
        if (fd < 0) {
            return fd;
        }
        const int moved = fcntl(fd, F_DUPFD, FIRST_DESCRIPTOR);
        real_close(fd);
        active->descriptors_.insert(moved);
        return moved;
    });
}

int close(int fd) {
    static const auto real_close = real<int (*)(int)>("close");
    if (active == nullptr || active->descriptors_.erase(fd) == 0) {
        return real_close(fd);
    }
    const int result = real_close(fd);  // Linux gives the descriptor up whatever it returns
    return through(format("close %d", fd), [&] { return result; });
}

int stat(const char* path, struct stat* file_stat) noexcept {
    static const auto real_stat = real<int (*)(const char*, struct stat*)>("stat", true);
    const auto call = [&] { return real_stat(path, file_stat); };
    return active == nullptr ? call() : through(format("stat %s", path), call);
}

int fallocate(int fd, int mode, off_t offset, off_t length) {
    static const auto real_fallocate = real<int (*)(int, int, off_t, off_t)>("fallocate", true);
    const auto call = [&] { return real_fallocate(fd, mode, offset, length); };
    return active == nullptr
               ? call()
               : through(format("fallocate %d %d %lld %lld", fd, mode,
                                static_cast<long long>(offset), static_cast<long long>(length)),
                         call);
}

int mkdir(const char* path, mode_t mode) noexcept {
    static const auto real_mkdir = real<int (*)(const char*, mode_t)>("mkdir");
    const auto call = [&] { return real_mkdir(path, mode); };
    return active == nullptr
               ? call()
               : through(format("mkdir %s %04o", path, static_cast<unsigned>(mode)), call);
}

int rmdir(const char* path) noexcept {
    static const auto real_rmdir = real<int (*)(const char*)>("rmdir");
    const auto call = [&] { return real_rmdir(path); };
    return active == nullptr ? call() : through(format("rmdir %s", path), call);
}

int unlink(const char* path) noexcept {
    static const auto real_unlink = real<int (*)(const char*)>("unlink");
    const auto call = [&] { return real_unlink(path); };
    return active == nullptr ? call() : through(format("unlink %s", path), call);
}

ssize_t readlink(const char* path, char* text, size_t size) noexcept {
    static const auto real_readlink = real<ssize_t (*)(const char*, char*, size_t)>("readlink");
    const auto call = [&] { return real_readlink(path, text, size); };
    return active == nullptr ? call() : through(format("readlink %s %zu", path, size), call);
}

int symlink(const char* text, const char* path) noexcept {
    static const auto real_symlink = real<int (*)(const char*, const char*)>("symlink");
    const auto call = [&] { return real_symlink(text, path); };
    return active == nullptr ? call() : through(format("symlink %s %s", text, path), call);
}

DIR* opendir(const char* path) {
    static const auto real_opendir = real<DIR* (*)(const char*)>("opendir");
    static const auto real_readdir = real<dirent* (*)(DIR*)>("readdir", true);
    if (active == nullptr) {
        return real_opendir(path);
    }
    DIR* dir = nullptr;
    through(format("opendir %s", path), [&] {
        dir = real_opendir(path);
        return dir == nullptr ? -1 : 0;
    });
    if (dir == nullptr) {
        return nullptr;
    }
    std::vector<dirent>& entries = active->streams_[dir].entries;
    while (const dirent* entry = real_readdir(dir)) {
        dirent copy = {};
        memcpy(&copy, entry, std::min<size_t>(sizeof copy, entry->d_reclen));
        const auto type = active->types.find(copy.d_name);
        copy.d_type = type == active->types.end() ? copy.d_type : type->second;
        entries.push_back(copy);
    }
    std::sort(entries.begin(), entries.end(),
              [](const dirent& a, const dirent& b) { return strcmp(a.d_name, b.d_name) < 0; });
    return dir;
}

dirent* readdir(DIR* dir) {
    static const auto real_readdir = real<dirent* (*)(DIR*)>("readdir", true);
    if (active == nullptr || active->streams_.count(dir) == 0) {
        return real_readdir(dir);
    }
    if (active->intercept("readdir")) {
        return nullptr;
    }
    FakeKernel::Stream& stream = active->streams_[dir];
    return stream.next < stream.entries.size() ? &stream.entries[stream.next++] : nullptr;
}

int closedir(DIR* dir) {
    static const auto real_closedir = real<int (*)(DIR*)>("closedir");
    if (active == nullptr || active->streams_.erase(dir) == 0) {
        return real_closedir(dir);
    }
    const int result = real_closedir(dir);
    return through("closedir", [&] { return result; });
}

}  // extern "C"
