// SPDX-License-Identifier: Apache-2.0
#include "tests/fake_kernel.h"

#include <android/log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/ioctl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "snapshot/f2fs_ioctl.h"
#include "tests/stand_in.h"

namespace {

constexpr size_t MODELLED_BYTES = 1 << 16;  // of a file's content; beyond it only the size counts

// The C library's own function of that type and name.
template <typename Function>
Function* real(const char* symbol) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

int realIoctl(int fd, unsigned long code, void* record) {
    return real<int(int, unsigned long, ...)>("ioctl")(fd, code, record);
}

int realClose(int fd) {
    return real<int(int)>("close")(fd);
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
    std::string text = (flags & O_ACCMODE) == O_RDWR ? " O_RDWR" : " O_RDONLY";
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

int copyContent(int source_fd, int destination_fd) {
    const std::string text = content(source_fd);
    const auto size = static_cast<ssize_t>(text.size());
    struct stat source = {};
    const bool copied = fstat(source_fd, &source) == 0 && ftruncate(destination_fd, 0) == 0 &&
                        pwrite(destination_fd, text.data(), text.size(), 0) == size &&
                        ftruncate(destination_fd, source.st_size) == 0;
    return copied ? 0 : -1;
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

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
    return text;
}

FakeKernel::~FakeKernel() {
    for (const auto& [inode, file] : files_) {
        realClose(file.kept_fd);
    }
}

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
    return replaced(replaced(std::move(text), root_, "$"), "\n", "\\n");
}

std::string FakeKernel::nameOf(int fd) const {
    const auto found = descriptors_.find(fd);
    return found == descriptors_.end() ? std::to_string(fd) : found->second;
}

std::string FakeKernel::where(const char* path) const {
    return (has_media && strncmp(path, "/data/media", 11) == 0 ? root_ : "") + path;
}

void FakeKernel::answer(const std::string& call, Answer given, int skip) {
    script_.push_back({call, given, skip});
}

int FakeKernel::call(const std::string& call, const std::function<int()>& real, void* record) {
    ++calls;
    std::string line = shown(call);
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
    if (given && given->word && record != nullptr) {
        *static_cast<uint32_t*>(record) = *given->word;
    }
    const int result = given ? given->result : real();
    const int error = given ? given->error : errno;
    if (line != "readdir") {
        trace.push_back(line + (result < 0 ? " = " + std::to_string(result) : ""));
    }
    errno = error;
    return result;
}

FakeKernel::File& FakeKernel::file(int fd) {
    struct stat file_stat = {};
    fstat(fd, &file_stat);
    File& file = files_[file_stat.st_ino];
    if (file.kept_fd < 0) {
        file.kept_fd = fcntl(fd, F_DUPFD_CLOEXEC, 100);
    }
    return file;
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
        return copyContent(*static_cast<const int32_t*>(record), fd);  // from the first word
    }
    return 0;
}

int FakeKernel::request(int fd, unsigned long code, void* record) {
    const std::string name = ::nameOf(code);
    const auto* words = static_cast<const uint32_t*>(record);
    const bool names_a_file =
        name == "CLONE_FILE" || name == "SNAPSHOT_CREATE" || name == "SNAPSHOT_PREPARE";
    const std::string first =
        names_a_file ? nameOf(static_cast<int>(words[0])) : format("%#x", words[0]);
    const std::string second = _IOC_SIZE(code) == 8 ? format(", %#x}", words[1]) : "}";
    return call(
        name + " " + nameOf(fd) + " {" + first + second,
        [&] { return has_driver ? model(fd, name, record) : realIoctl(fd, code, record); }, record);
}

namespace {

// Makes a call that takes a path. In a trace, `rest` follows the path.
template <typename Real>
int onPath(const char* name, const char* path, const std::string& rest, Real real_call) {
    FakeKernel* kernel = FakeKernel::active;
    if (kernel == nullptr) {
        return static_cast<int>(real_call(path));
    }
    const std::string line = std::string(name) + " " + path + rest;
    return kernel->call(line,
                        [&] { return static_cast<int>(real_call(kernel->where(path).c_str())); });
}

int openFile(const char* path, int flags, mode_t mode) {
    const int fd = onPath("open", path, openFlags(flags, mode), [=](const char* real_path) {
        return real<int(const char*, int, ...)>(LARGE(open))(real_path, flags, mode);
    });
    if (fd >= 0 && FakeKernel::active != nullptr) {
        const bool is_unnamed = (flags & O_TMPFILE) == O_TMPFILE;
        FakeKernel::active->descriptors_[fd] = std::string(path) + (is_unnamed ? "(unnamed)" : "");
    }
    return fd;
}

// The entries of a directory, sorted, with the types that the test has set.
std::vector<dirent> entriesOf(DIR* dir, const std::map<std::string, unsigned char>& types) {
    std::vector<dirent> entries;
    while (const dirent* entry = real<dirent*(DIR*)>(LARGE(readdir))(dir)) {
        dirent copy = {};
        memcpy(&copy, entry, std::min<size_t>(sizeof copy, entry->d_reclen));
        const auto type = types.find(copy.d_name);
        copy.d_type = type == types.end() ? copy.d_type : type->second;
        entries.push_back(copy);
    }
    std::sort(entries.begin(), entries.end(),
              [](const dirent& a, const dirent& b) { return strcmp(a.d_name, b.d_name) < 0; });
    return entries;
}

}  // namespace

extern "C" int __android_log_print(int priority, const char* tag, const char* text, ...) {
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
    errno = EIDRM;  // a log may change errno: the library must have read it before
    return 1;
}

// The code is an int in bionic and musl and an unsigned long in glibc: its upper half is noise.
STAND_IN("ioctl", int, fakeIoctl, int fd, unsigned long code, void* record) {
    FakeKernel* kernel = FakeKernel::active;
    code = static_cast<uint32_t>(code);
    return kernel == nullptr ? realIoctl(fd, code, record) : kernel->request(fd, code, record);
}

STAND_IN(LARGE(open), int, fakeOpen, const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
        va_list arguments;
        va_start(arguments, flags);
        mode = static_cast<mode_t>(va_arg(arguments, int));
        va_end(arguments);
    }
    return openFile(path, flags, mode);
}

// A fortified call without a mode.
STAND_IN("__open_2", int, fakeOpen2, const char* path, int flags) {
    return openFile(path, flags, 0);
}

STAND_IN("close", int, fakeClose, int fd) {
    FakeKernel* kernel = FakeKernel::active;
    const int result = realClose(fd);  // Linux closes the descriptor even where this fails
    if (kernel == nullptr || kernel->descriptors_.count(fd) == 0) {
        return result;
    }
    const std::string line = "close " + kernel->nameOf(fd);
    kernel->descriptors_.erase(fd);
    return kernel->call(line, [=] { return result; });
}

STAND_IN(LARGE(stat), int, fakeStat, const char* path, struct stat* file_stat) {
    return onPath("stat", path, "", [=](const char* real_path) {
        return real<int(const char*, struct stat*)>(LARGE(stat))(real_path, file_stat);
    });
}

STAND_IN(LARGE(fallocate), int, fakeFallocate, int fd, int mode, off_t offset, off_t length) {
    const auto call = [=] {
        return real<int(int, int, off_t, off_t)>(LARGE(fallocate))(fd, mode, offset, length);
    };
    FakeKernel* kernel = FakeKernel::active;
    return kernel == nullptr
               ? call()
               : kernel->call("fallocate " + kernel->nameOf(fd) +
                                  format(" %d %lld %lld", mode, static_cast<long long>(offset),
                                         static_cast<long long>(length)),
                              call);
}

STAND_IN("mkdir", int, fakeMkdir, const char* path, mode_t mode) {
    const std::string shown_mode = format(" %04o", static_cast<unsigned>(mode));
    return onPath("mkdir", path, shown_mode, [=](const char* real_path) {
        return real<int(const char*, mode_t)>("mkdir")(real_path, mode);
    });
}

STAND_IN("rmdir", int, fakeRmdir, const char* path) {
    return onPath("rmdir", path, "", real<int(const char*)>("rmdir"));
}

STAND_IN("unlink", int, fakeUnlink, const char* path) {
    return onPath("unlink", path, "", real<int(const char*)>("unlink"));
}

STAND_IN("readlink", ssize_t, fakeReadlink, const char* path, char* text, size_t size) {
    return onPath("readlink", path, " " + std::to_string(size), [=](const char* real_path) {
        return real<ssize_t(const char*, char*, size_t)>("readlink")(real_path, text, size);
    });
}

STAND_IN("symlink", int, fakeSymlink, const char* text, const char* path) {
    return onPath("symlink", path, std::string(" -> ") + text, [=](const char* real_path) {
        return real<int(const char*, const char*)>("symlink")(text, real_path);
    });
}

STAND_IN("opendir", DIR*, fakeOpendir, const char* path) {
    DIR* dir = nullptr;
    onPath("opendir", path, "", [&](const char* real_path) {
        dir = real<DIR*(const char*)>("opendir")(real_path);
        return dir == nullptr ? -1 : 0;
    });
    FakeKernel* kernel = FakeKernel::active;
    if (dir != nullptr && kernel != nullptr) {
        kernel->streams_[dir] = {path, entriesOf(dir, kernel->types)};
    }
    return dir;
}

STAND_IN(LARGE(readdir), dirent*, fakeReaddir, DIR* dir) {
    FakeKernel* kernel = FakeKernel::active;
    if (kernel == nullptr || kernel->streams_.count(dir) == 0) {
        return real<dirent*(DIR*)>(LARGE(readdir))(dir);
    }
    FakeKernel::Stream& stream = kernel->streams_[dir];
    const bool failed = kernel->call("readdir", [] { return 0; }) != 0;
    return failed || stream.next == stream.entries.size() ? nullptr
                                                          : &stream.entries[stream.next++];
}

STAND_IN("closedir", int, fakeClosedir, DIR* dir) {
    FakeKernel* kernel = FakeKernel::active;
    const int result = real<int(DIR*)>("closedir")(dir);
    if (kernel == nullptr || kernel->streams_.count(dir) == 0) {
        return result;
    }
    const std::string line = "closedir " + kernel->streams_[dir].path;
    kernel->streams_.erase(dir);
    return kernel->call(line, [=] { return result; });
}
