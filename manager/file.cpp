// SPDX-License-Identifier: Apache-2.0
#include "manager/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "manager/descent.h"
#include "manager/failure.h"

namespace manager {

std::string procPath(int fd) {
    return "/proc/self/fd/" + std::to_string(fd);
}

UniqueFd openDirectory(int parent, const char* name, const std::string& path) {
    UniqueFd fd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.valid()) {
        failSystem("open the directory", path);
    }
    return fd;
}

int attributesOf(int parent, const char* name, struct statx& attributes) {
    // The system call itself: bionic declares the function from API level 30 on only.
    const long ret = syscall(SYS_statx, parent, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT,
                             STATX_BASIC_STATS, &attributes);
    return ret == 0 ? 0 : errno;
}

bool isSame(const struct statx& one, const struct statx& other) {
    return one.stx_ino == other.stx_ino && one.stx_dev_major == other.stx_dev_major &&
           one.stx_dev_minor == other.stx_dev_minor;
}

std::string readLink(int parent, const char* name, const std::string& path) {
    char text[4096];  // one byte more than the longest text
    const ssize_t length = readlinkat(parent, name, text, sizeof text);
    if (length < 0) {
        failSystem("read the link", path);
    }
    return {text, static_cast<size_t>(length)};
}

std::string readFile(int parent, const char* name, const std::string& path) {
    const UniqueFd fd(openat(parent, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid()) {
        failSystem("open", path);
    }
    std::string content;
    char buffer[1 << 16];
    for (ssize_t length; (length = read(fd.get(), buffer, sizeof buffer)) != 0;) {
        if (length < 0) {
            failSystem("read", path);
        }
        content.append(buffer, static_cast<size_t>(length));
    }
    return content;
}

void writeFile(int parent, const char* name, const std::string& path, const std::string& content) {
    const UniqueFd fd(openat(parent, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                             S_IRUSR | S_IWUSR));
    if (!fd.valid()) {
        failSystem("make", path);
    }
    for (size_t done = 0; done < content.size();) {
        const ssize_t length = write(fd.get(), content.data() + done, content.size() - done);
        if (length < 0) {
            failSystem("write", path);
        }
        done += static_cast<size_t>(length);
    }
}

int readNames(int directory, Names& names) {
    // A descriptor of its own, so that reading does not move the offset of the caller's.
    UniqueFd fd(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid()) {
        return errno;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(fdopendir(fd.get()), closedir);
    if (!stream) {
        return errno;
    }
    fd.release();
    errno = 0;
    while (const dirent* entry = readdir(stream.get())) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) {
            names.names.emplace_back(entry->d_name);
            names.has_unknown_types |= entry->d_type == DT_UNKNOWN;
        }
        errno = 0;
    }
    const int error = errno;
    std::sort(names.names.begin(), names.names.end());
    return error;
}

namespace {

[[noreturn]] void failRemoval(const std::string& directory, const std::string& name) {
    failSystem("remove", directory + "/" + name);
}

// Removes a directory's entries except subdirectories that are not empty. Returns their names.
std::vector<std::string> removeNames(int directory, const std::string& path,
                                     const std::function<void()>& on_removed) {
    Names names;
    const int error = readNames(directory, names);
    if (error != 0) {
        failSystem("read the directory", path, error);
    }
    std::vector<std::string> rest;
    for (std::string& name : names.names) {
        if (unlinkat(directory, name.c_str(), 0) == 0 || errno == ENOENT) {
            on_removed();
        } else if (errno != EISDIR) {
            failRemoval(path, name);
        } else if (unlinkat(directory, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
            rest.push_back(std::move(name));
        }
    }
    return rest;
}

void removeBelow(UniqueFd top, const std::string& path, const std::function<void()>& on_removed) {
    Descent descent(std::move(top), path);
    std::vector<std::vector<std::string>> rest;  // of the directories on the way down
    rest.push_back(removeNames(descent.fd(), path, on_removed));
    for (;;) {
        if (!rest.back().empty()) {
            descent.enter(rest.back().back());
            rest.push_back(removeNames(descent.fd(), descent.path(), on_removed));
            continue;
        }
        rest.pop_back();
        if (rest.empty()) {
            return;
        }
        descent.leave();
        const std::string& name = rest.back().back();
        if (unlinkat(descent.fd(), name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
            failRemoval(descent.path(), name);
        }
        rest.back().pop_back();
    }
}

}  // namespace

void removeTree(int parent, const std::string& name, const std::string& path,
                const std::function<void()>& on_removed) {
    if (unlinkat(parent, name.c_str(), 0) == 0) {
        on_removed();
        return;
    }
    if (errno == ENOENT) {
        return;
    }
    if (errno != EISDIR) {
        failSystem("remove", path);
    }
    removeBelow(openDirectory(parent, name.c_str(), path), path, on_removed);
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        failSystem("remove", path);
    }
}

}  // namespace manager
