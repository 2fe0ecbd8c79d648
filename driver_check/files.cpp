// SPDX-License-Identifier: Apache-2.0
#include "driver_check/files.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace driver_check {
namespace {

// The first byte that differs, and how many do.
std::string difference(const std::string& seen, const std::string& expected) {
    const size_t common = std::min(seen.size(), expected.size());
    const auto first =
        std::mismatch(seen.begin(), seen.begin() + static_cast<ssize_t>(common), expected.begin());
    const auto offset = static_cast<size_t>(first.first - seen.begin());
    if (offset == common) {
        return format("%zu bytes instead of %zu", seen.size(), expected.size());
    }
    size_t count = 0;
    for (size_t i = offset; i < common; ++i) {
        count += seen[i] != expected[i] ? 1 : 0;
    }
    return format(
        "byte at offset %zu is 0x%02x instead of 0x%02x; %zu of %zu bytes differ%s", offset,
        static_cast<unsigned char>(*first.first), static_cast<unsigned char>(*first.second), count,
        common,
        seen.size() == expected.size()
            ? ""
            : format(", and there are %zu bytes instead of %zu", seen.size(), expected.size())
                  .c_str());
}

void writeAll(const File& file, const std::string& data, off_t offset) {
    for (size_t done = 0; done < data.size();) {
        done += static_cast<size_t>(need(pwrite(file.fd(), data.data() + done, data.size() - done,
                                                offset + static_cast<off_t>(done)),
                                         "pwrite"));
    }
}

}  // namespace

// Planted defects are found within 0.1 s mostly and within 1 s nearly always: docs/reliability.md.
double race_seconds = 1;
bool is_long = false;

File::File(const std::string& name, int flags, mode_t mode, const char* title)
    : fd_(open(name.c_str(), flags | O_CLOEXEC, mode)), name_(title != nullptr ? title : name) {
    if (fd_ < 0) {
        callFailed("open " + name, errno);
    }
}

File::File(File&& from) noexcept : fd_(std::exchange(from.fd_, -1)), name_(std::move(from.name_)) {}

File::~File() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::string File::described() const {
    constexpr const char* MODES[] = {"O_RDONLY", "O_WRONLY", "O_RDWR"};
    const int mode = fcntl(fd_, F_GETFL) & O_ACCMODE;
    return name_ + " (" + (mode <= O_RDWR ? MODES[mode] : "?") + ")";
}

std::string pattern(size_t size, unsigned seed) {
    std::string text(size, '\0');
    uint32_t state = seed * 2654435761U | 1U;
    for (size_t i = 0; i < size; ++i) {
        state = state * 1664525U + 1013904223U;
        text[i] = static_cast<char>((state >> 24) | 1U);  // never the 0 of a hole
    }
    return text;
}

File newFile(const std::string& name, const std::string& content) {
    did("create %s, %zu bytes", name.c_str(), content.size());
    File file(name, O_RDWR | O_CREAT | O_EXCL);
    writeAll(file, content, 0);
    return file;
}

File unnamedFile() {
    did("open an unnamed file: O_RDWR|O_TMPFILE, mode 0770");
    return File(".", O_RDWR | O_TMPFILE, 0770, "the unnamed file");
}

void writeAt(const File& file, const std::string& data, off_t offset) {
    did("pwrite of %zu bytes at offset %lld of %s", data.size(), static_cast<long long>(offset),
        file.name());
    writeAll(file, data, offset);
}

void resize(const File& file, off_t size) {
    did("ftruncate of %s to %lld bytes", file.name(), static_cast<long long>(size));
    need(ftruncate(file.fd(), size), "ftruncate");
}

off_t sizeOf(const File& file) {
    struct stat attributes;
    need(fstat(file.fd(), &attributes), "fstat");
    return attributes.st_size;
}

std::string contentOf(const File& file, off_t offset, size_t size) {
    std::string content(size, '\0');
    size_t done = 0;
    while (done < size) {
        const auto got =
            need(pread(file.fd(), &content[done], size - done, offset + static_cast<off_t>(done)),
                 "pread");
        if (got == 0) {
            break;
        }
        done += static_cast<size_t>(got);
    }
    content.resize(done);
    return content;
}

std::string contentOf(const File& file) {
    return contentOf(file, 0, static_cast<size_t>(sizeOf(file)));
}

void expectContent(const File& file, const std::string& expected, const std::string& what) {
    const auto size = static_cast<size_t>(sizeOf(file));
    std::string seen = size == expected.size() ? contentOf(file) : std::string(size, '\0');
    if (size != expected.size()) {
        failed(format("%s to have %zu bytes, %s", file.name(), expected.size(), what.c_str()),
               format("a size of %zu bytes", size));
    }
    if (seen != expected) {
        failed(std::string(file.name()) + " to hold " + what, difference(seen, expected));
    }
}

void expectStored(const File& file, const std::string& expected, const std::string& what) {
    expectContent(file, expected, what);
    dropPages(file);
    expectContent(file, expected, what + " after its cached pages were dropped");
}

void dropPages(const File& file) {
    did("fsync of %s, then POSIX_FADV_DONTNEED", file.name());
    need(fsync(file.fd()), "fsync");
    posix_fadvise(file.fd(), 0, 0, POSIX_FADV_DONTNEED);
}

long long freeBytes() {
    const File directory(".", O_RDONLY | O_DIRECTORY);
    usleep(20000);  // what was closed or removed last may be freed in the background
    syncfs(directory.fd());
    struct statvfs figures;
    need(fstatvfs(directory.fd(), &figures), "fstatvfs");
    return static_cast<long long>(figures.f_bfree) * static_cast<long long>(figures.f_frsize);
}

Process::Process(const std::function<void()>& body) : pid_(need(fork(), "fork")) {
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        evidence = nullptr;
        try {
            body();
        } catch (const Stop&) {
            _exit(1);
        }
        _exit(0);
    }
}

bool Process::join() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return status == 0;
}

Process::~Process() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

double now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

}  // namespace driver_check
