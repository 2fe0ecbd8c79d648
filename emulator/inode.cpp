// SPDX-License-Identifier: Apache-2.0
#include "emulator/inode.h"

#include <fcntl.h>
#include <stdio.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace emulator {
namespace {

void learnName(Inode& inode, Inode& parent, const char* name) {
    inode.folder = parent.shared_from_this();
    inode.name = name;
    inode.fd.reset();
}

// Finds the known file that is reached by this name, if any, and opens it with O_PATH.
int findByName(const Volume& volume, const Inode& parent, const char* name, Inode*& found,
               UniqueFd& opened) {
    found = nullptr;
    opened.reset(openat(parent.fd.get(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.valid()) {
        return errno == ENOENT ? 0 : errno;
    }
    struct stat attributes;
    if (fstat(opened.get(), &attributes) != 0) {
        return errno;
    }
    const auto known = volume.inodes.find(attributes.st_ino);
    if (known != volume.inodes.end() && attributes.st_dev == volume.backing_device) {
        Inode* const inode = known->second.get();
        // Compared by number, not by address: a directory can be forgotten and become known again
        // while a file still holds its first incarnation.
        const bool is_here =
            inode->folder && inode->folder->number == parent.number && inode->name == name;
        found = is_here ? inode : nullptr;
    }
    return 0;
}

// Runs a call that takes a name from what has it. A file that was reached by it is reached by a
// descriptor from then on, until it is found by another name.
template <typename Call>
int takeName(const Volume& volume, const Inode& parent, const char* name, Call call) {
    Inode* loser = nullptr;
    UniqueFd pin;
    if (const int error = findByName(volume, parent, name, loser, pin)) {
        return error;
    }
    if (call() != 0) {
        return errno;
    }
    if (loser != nullptr) {
        loser->fd = std::move(pin);
    }
    return 0;
}

// Finds or makes the record of a file and counts a reference of the kernel to it.
// ESTALE: removed and its number given anew, behind the emulator.
Inode* enter(Volume& volume, const struct stat& attributes, int& error) {
    std::shared_ptr<Inode>& inode = volume.inodes[attributes.st_ino];
    if (!inode) {
        inode = std::make_shared<Inode>();
        inode->number = attributes.st_ino;
        inode->type = attributes.st_mode & S_IFMT;
    } else if (inode->type != (attributes.st_mode & S_IFMT)) {
        error = ESTALE;
        return nullptr;
    }
    ++inode->lookups;
    return inode.get();
}

}  // namespace

int openVolume(const char* backing, Volume& volume) {
    UniqueFd fd(open(backing, O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat attributes;
    if (!fd.valid() || fstat(fd.get(), &attributes) != 0) {
        return errno;
    }
    int error = 0;
    volume.root = enter(volume, attributes, error)->shared_from_this();
    volume.root->fd = std::move(fd);
    volume.backing_device = attributes.st_dev;
    return error;
}

Inode* lookUp(Volume& volume, Inode& parent, const char* name, struct stat& attributes,
              int& error) {
    if (fstatat(parent.fd.get(), name, &attributes, AT_SYMLINK_NOFOLLOW) != 0) {
        error = errno;
        return nullptr;
    }
    if (attributes.st_dev != volume.backing_device) {
        error = EXDEV;
        return nullptr;
    }
    UniqueFd fd;
    if (S_ISDIR(attributes.st_mode) && volume.inodes.count(attributes.st_ino) == 0) {
        fd.reset(openat(parent.fd.get(), name, O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd.valid()) {
            error = errno;
            return nullptr;
        }
    }
    Inode* const inode = enter(volume, attributes, error);
    if (fd.valid()) {
        inode->fd = std::move(fd);
    } else if (inode != nullptr && !S_ISDIR(attributes.st_mode)) {
        learnName(*inode, parent, name);
    }
    return inode;
}

Inode* adopt(Volume& volume, int fd, struct stat& attributes, int& error) {
    UniqueFd pin(open(ProcPath(fd).text, O_PATH | O_CLOEXEC));
    if (!pin.valid() || fstat(fd, &attributes) != 0) {
        error = errno;
        return nullptr;
    }
    Inode* const inode = enter(volume, attributes, error);
    if (inode != nullptr) {
        inode->fd = std::move(pin);
    }
    return inode;
}

void forget(Volume& volume, Inode& inode, uint64_t count) {
    inode.lookups -= std::min(count, inode.lookups);
    if (inode.lookups == 0 && &inode != volume.root.get()) {
        volume.inodes.erase(inode.number);
    }
}

int openInode(const Inode& inode, int flags, UniqueFd& opened) {
    if (inode.fd.valid()) {
        opened.reset(open(ProcPath(inode.fd.get()).text, flags | O_CLOEXEC));
        return opened.valid() ? 0 : errno;
    }
    opened.reset(
        openat(inode.folder->fd.get(), inode.name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    struct stat attributes;
    if (!opened.valid() || fstat(opened.get(), &attributes) != 0) {
        return errno;
    }
    return attributes.st_ino == inode.number ? 0 : ESTALE;
}

int statInode(const Inode& inode, struct stat& attributes) {
    const bool is_open = inode.fd.valid();
    if (fstatat(is_open ? inode.fd.get() : inode.folder->fd.get(),
                is_open ? "" : inode.name.c_str(), &attributes,
                AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
        return errno;
    }
    return attributes.st_ino == inode.number ? 0 : ESTALE;
}

int removeName(Volume& volume, const Inode& parent, const char* name) {
    return takeName(volume, parent, name, [&] { return unlinkat(parent.fd.get(), name, 0); });
}

int changeName(Volume& volume, const Inode& parent, const char* name, Inode& new_parent,
               const char* new_name, unsigned int flags) {
    Inode* moved = nullptr;
    UniqueFd pin;
    int error = findByName(volume, parent, name, moved, pin);
    if (error != 0) {
        return error;
    }
    error = takeName(volume, new_parent, new_name, [&] {
        return renameat2(parent.fd.get(), name, new_parent.fd.get(), new_name, flags);
    });
    if (error == 0 && moved != nullptr) {
        learnName(*moved, new_parent, new_name);
    }
    return error;
}

int addName(const Inode& inode, const Inode& new_parent, const char* new_name) {
    const int to = new_parent.fd.get();
    const int result =
        inode.fd.valid()
            ? linkat(AT_FDCWD, ProcPath(inode.fd.get()).text, to, new_name, AT_SYMLINK_FOLLOW)
            : linkat(inode.folder->fd.get(), inode.name.c_str(), to, new_name, 0);
    return result == 0 ? 0 : errno;
}

}  // namespace emulator
