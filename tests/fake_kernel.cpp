// SPDX-License-Identifier: Apache-2.0
#include "tests/fake_kernel.h"

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

#include "snapshot/f2fs_ioctl.h"

namespace {

constexpr int FIRST_DESCRIPTOR = 100;
constexpr size_t MODELLED_BYTES = 1 << 16;  // of a file's content; beyond it only the size counts

// The C library's own function behind a name; the second form is for names that the headers map to
// a large-file variant where file offsets would be short.
#define REAL(function) reinterpret_cast<decltype(&::function)>(dlsym(RTLD_NEXT, #function))
#define REAL_LARGE(function)                 \
    reinterpret_cast<decltype(&::function)>( \
        dlsym(RTLD_NEXT, sizeof(void*) == 4 ? #function "64" : #function))

int realIoctl(int fd, unsigned long code, void* record) {
    using Ioctl = int (*)(int, unsigned long, ...);  // spelled out: some headers overload the name
    return reinterpret_cast<Ioctl>(dlsym(RTLD_NEXT, "ioctl"))(fd, code, record);
}

std::string vformat(const char* text, va_list arguments) {
    char buffer[16384];
    vsnprintf(buffer, sizeof buffer, text, arguments);
    return buffer;
}

[[gnu::format(printf, 1, 2)]] std::string format(const char* text, ...) {
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

void copyContent(int source_fd, int destination_fd) {
    const std::string text = content(source_fd);
    const auto size = static_cast<ssize_t>(text.size());
    struct stat source = {};
    const bool copied = fstat(source_fd, &source) == 0 && ftruncate(destination_fd, 0) == 0 &&
                        pwrite(destination_fd, text.data(), text.size(), 0) == size &&
                        ftruncate(destination_fd, source.st_size) == 0;
    if (!copied) {
        perror("fake kernel: copy");
    }
}

std::string nameOf(unsigned long code) {
    const std::map<unsigned long, const char*> names = {
        {F2FS_IOC_DEDUP_REVOKE, "DEDUP_REVOKE"},
        {F2FS_IOC_DEDUP_GET_FILE_INFO, "DEDUP_GET_FILE_INFO"},
        {F2FS_IOC_CLONE_FILE, "CLONE_FILE"},
        {F2FS_IOC_MODIFY_CHECK, "MODIFY_CHECK"},
        {F2FS_IOC_SNAPSHOT_CREATE, "SNAPSHOT_CREATE"},
        {F2FS_IOC_SNAPSHOT_PREPARE, "SNAPSHOT_PREPARE"},
    };
    return names.count(code) != 0 ? names.at(code) : format("%#lx", code);
}

}  // namespace

std::string FakeKernel::text(const std::vector<std::string>& beginnings) const {
    std::string text;
    for (const std::string& line : trace) {
        const bool wanted =
            std::any_of(beginnings.begin(), beginnings.end(),
                        [&](const std::string& begin) { return line.rfind(begin, 0) == 0; });
        text += wanted ? line + "\n" : "";
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
        active = nullptr;
        before(line);
        active = this;
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
    File& state = file(fd);
    if (name == "DEDUP_GET_FILE_INFO") {
        *static_cast<dedup_file_info*>(record) = {0, state.is_layered, 0xDEADBEEF};
    } else if (name == "MODIFY_CHECK") {
        auto* check = static_cast<modify_check_info*>(record);
        if (check->mode == MODIFY_CHECK_SET) {
            state.flag = check->flag;
            state.marked_content = content(fd);
        } else {
            const bool unchanged = content(fd) == state.marked_content;
            check->flag = unchanged ? state.flag : state.flag & ~MODIFY_CHECK_UNCHANGED;
        }
    } else if (name == "SNAPSHOT_PREPARE") {
        state.is_layered = 1;
    } else if (name == "CLONE_FILE" || name == "SNAPSHOT_CREATE") {
        copyContent(*static_cast<const int32_t*>(record), fd);  // their first word is the source
    }
    return 0;
}

int FakeKernel::request(int fd, unsigned long code, void* record) {
    const std::string name = nameOf(code);
    const auto* words = static_cast<const uint32_t*>(record);
    std::string call = format("%s %d {%#x", name.c_str(), fd, words[0]);
    call += _IOC_SIZE(code) == 8 ? format(", %#x}", words[1]) : "}";
    if (const std::optional<int> result = intercept(call, record)) {
        return *result;
    }
    return note(call, has_driver ? model(fd, name, record) : realIoctl(fd, code, record));
}

namespace {

// Answers a call, whose trace line is formatted from text, by the script or by the real call.
template <typename Real, typename... Arguments>
int through(Real real_call, const char* text, Arguments... arguments) {
    FakeKernel* kernel = FakeKernel::active;
    if (kernel == nullptr) {
        return static_cast<int>(real_call());
    }
    const std::string call = format(text, arguments...);
    const std::optional<int> result = kernel->intercept(call);
    return result ? *result : kernel->note(call, static_cast<int>(real_call()));
}

}  // namespace

extern "C" {

int __android_log_print(int priority, const char* tag, const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    const std::string line = vformat(text, arguments);
    va_end(arguments);
    if (FakeKernel::active != nullptr) {
        const bool tagged = strcmp(tag, "f2fs_snapshot_native") == 0;
        const char* kind = tagged && priority == ANDROID_LOG_INFO    ? "I "
                           : tagged && priority == ANDROID_LOG_ERROR ? "E "
                                                                     : "? ";
        FakeKernel::active->trace.push_back(kind + FakeKernel::active->shown(line));
    }
    errno = EIDRM;  // a log may change errno: what the library reports it must have read before
    return 1;
}

int ioctl(int fd, unsigned long code, ...) noexcept {
    va_list arguments;
    va_start(arguments, code);
    void* record = va_arg(arguments, void*);
    va_end(arguments);
    FakeKernel* kernel = FakeKernel::active;
    return kernel == nullptr ? realIoctl(fd, code, record) : kernel->request(fd, code, record);
}

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    const auto call = [&] {
        const int fd = REAL_LARGE(open)(path, flags, mode);
        if (fd < 0 || FakeKernel::active == nullptr) {
            return fd;
        }
        const int moved = fcntl(fd, F_DUPFD, FIRST_DESCRIPTOR);
        REAL(close)(fd);
        FakeKernel::active->descriptors_.insert(moved);
        return moved;
    };
    return through(call, "open %s %s", path, openFlags(flags, mode).c_str());
}

int close(int fd) {
    const int result = REAL(close)(fd);  // Linux gives the descriptor up whatever it returns
    if (FakeKernel::active == nullptr || FakeKernel::active->descriptors_.erase(fd) == 0) {
        return result;
    }
    return through([=] { return result; }, "close %d", fd);
}

int stat(const char* path, struct stat* file_stat) noexcept {
    return through([=] { return REAL_LARGE(stat)(path, file_stat); }, "stat %s", path);
}

int fallocate(int fd, int mode, off_t offset, off_t length) {
    return through([=] { return REAL_LARGE(fallocate)(fd, mode, offset, length); },
                   "fallocate %d %d %lld %lld", fd, mode, static_cast<long long>(offset),
                   static_cast<long long>(length));
}

int mkdir(const char* path, mode_t mode) noexcept {
    return through([=] { return REAL(mkdir)(path, mode); }, "mkdir %s %04o", path, mode);
}

int rmdir(const char* path) noexcept {
    return through([=] { return REAL(rmdir)(path); }, "rmdir %s", path);
}

int unlink(const char* path) noexcept {
    return through([=] { return REAL(unlink)(path); }, "unlink %s", path);
}

ssize_t readlink(const char* path, char* text, size_t size) noexcept {
    return through([=] { return REAL(readlink)(path, text, size); }, "readlink %s %zu", path, size);
}

int symlink(const char* text, const char* path) noexcept {
    return through([=] { return REAL(symlink)(text, path); }, "symlink %s %s", text, path);
}

DIR* opendir(const char* path) {
    DIR* dir = nullptr;
    const auto call = [&] {
        dir = REAL(opendir)(path);
        return dir == nullptr ? -1 : 0;
    };
    through(call, "opendir %s", path);
    FakeKernel* kernel = FakeKernel::active;
    if (dir == nullptr || kernel == nullptr) {
        return dir;
    }
    std::vector<dirent>& entries = kernel->streams_[dir].entries;
    while (const dirent* entry = REAL_LARGE(readdir)(dir)) {
        dirent copy = {};
        memcpy(&copy, entry, std::min<size_t>(sizeof copy, entry->d_reclen));
        const auto type = kernel->types.find(copy.d_name);
        copy.d_type = type == kernel->types.end() ? copy.d_type : type->second;
        entries.push_back(copy);
    }
    std::sort(entries.begin(), entries.end(),
              [](const dirent& a, const dirent& b) { return strcmp(a.d_name, b.d_name) < 0; });
    return dir;
}

dirent* readdir(DIR* dir) {
    FakeKernel* kernel = FakeKernel::active;
    if (kernel == nullptr || kernel->streams_.count(dir) == 0) {
        return REAL_LARGE(readdir)(dir);
    }
    if (kernel->intercept("readdir")) {
        return nullptr;
    }
    FakeKernel::Stream& stream = kernel->streams_[dir];
    return stream.next < stream.entries.size() ? &stream.entries[stream.next++] : nullptr;
}

int closedir(DIR* dir) {
    const int result = REAL(closedir)(dir);
    if (FakeKernel::active == nullptr || FakeKernel::active->streams_.erase(dir) == 0) {
        return result;
    }
    return through([=] { return result; }, "%s", "closedir");
}

}  // extern "C"
