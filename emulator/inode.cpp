// SPDX-License-Identifier: Apache-2.0
#include "emulator/inode.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace emulator {
namespace {

void setName(Inode& inode, Inode& directory, const char* name) {
    inode.directory = directory.shared_from_this();
    inode.name = name;
    inode.fd.reset();
}

// Opens an entry with O_PATH. AT_STATX_DONT_SYNC lets the kernel tell the device of this volume's
// own mount without a message to the daemon.
int openEntry(const Volume& volume, const Inode& directory, const char* name, UniqueFd& opened,
              struct stat& attributes) {
    opened.reset(openat(directory.fd.get(), name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct statx place;
    if (!opened.valid() ||
        statx(opened.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE, &place) != 0) {
        return errno;
    }
    if ((place.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 ||
        makedev(place.stx_dev_major, place.stx_dev_minor) != volume.backing_device) {
        return EXDEV;
    }
    return fstat(opened.get(), &attributes) == 0 ? 0 : errno;
}

// Opens an entry with O_PATH and finds the known file that is reached by this name, if any.
int findByName(const Volume& volume, const Inode& directory, const char* name, Inode*& found,
               UniqueFd& opened) {
    found = nullptr;
    struct stat attributes;
    if (const int error = openEntry(volume, directory, name, opened, attributes)) {
        return error == ENOENT ? 0 : error;
    }
    const auto known = volume.inodes.find(attributes.st_ino);
    if (known == volume.inodes.end()) {
        return 0;
    }
    Inode* const inode = known->second.get();
    // Compared by number, not by address: a directory can be forgotten and become known again while
    // a file still refers to its earlier record.
    if (inode->directory && inode->directory->number == directory.number && inode->name == name) {
        found = inode;
    }
    return 0;
}

// Runs a call that removes or replaces a name. If a known file was reached by that name, a
// descriptor keeps the file reachable from then on.
template <typename Call>
int takeName(const Volume& volume, const Inode& directory, const char* name, Call call) {
    Inode* loser = nullptr;
    UniqueFd pin;
    if (const int error = findByName(volume, directory, name, loser, pin)) {
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
// ESTALE: the file was removed and its number reused behind the emulator.
int enter(Volume& volume, const struct stat& attributes, Inode*& entered) {
    std::shared_ptr<Inode>& inode = volume.inodes[attributes.st_ino];
    if (!inode) {
        inode = std::make_shared<Inode>();
        inode->number = attributes.st_ino;
        inode->type = attributes.st_mode & S_IFMT;
    } else if (inode->type != (attributes.st_mode & S_IFMT)) {
        return ESTALE;
    }
    ++inode->lookups;
    entered = inode.get();
    return 0;
}

}  // namespace

int openVolume(const char* backing, Volume& volume) {
    UniqueFd fd(open(backing, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat attributes;
    if (!fd.valid() || flock(fd.get(), LOCK_EX | LOCK_NB) != 0 ||
        fstat(fd.get(), &attributes) != 0) {
        return errno;
    }
    Inode* root = nullptr;
    if (const int error = enter(volume, attributes, root)) {
        return error;
    }
    root->fd = std::move(fd);
    volume.root = root->shared_from_this();
    volume.backing_device = attributes.st_dev;
    return 0;
}

int findEntry(Volume& volume, Inode& directory, const char* name, Inode*& found,
              struct stat& attributes) {
    UniqueFd fd;
    int error = openEntry(volume, directory, name, fd, attributes);
    if (error != 0 || (error = enter(volume, attributes, found)) != 0) {
        return error;
    }
    if (!S_ISDIR(attributes.st_mode)) {
        setName(*found, directory, name);
    } else if (!found->fd.valid()) {
        found->fd = std::move(fd);
    }
    return 0;
}

int adopt(Volume& volume, int fd, Inode*& adopted, struct stat& attributes) {
    UniqueFd pin(open(ProcPath(fd).text, O_PATH | O_CLOEXEC));
    if (!pin.valid() || fstat(fd, &attributes) != 0) {
        return errno;
    }
    if (const int error = enter(volume, attributes, adopted)) {
        return error;
    }
    adopted->fd = std::move(pin);
    return 0;
}

void forget(Volume& volume, Inode& inode, uint64_t count) {
    inode.lookups -= std::min(count, inode.lookups);
    if (inode.lookups == 0 && &inode != volume.root.get()) {
        volume.inodes.erase(inode.number);
    }
}

int openInode(const Volume& volume, const Inode& inode, int flags, UniqueFd& opened) {
    UniqueFd entry;
    if (!inode.fd.valid()) {
        struct stat attributes = {};
        const char* const name = inode.name.c_str();
        if (const int error = openEntry(volume, *inode.directory, name, entry, attributes)) {
            return error;
        }
        if (attributes.st_ino != inode.number) {
            return ESTALE;
        }
        if (flags == O_PATH) {
            opened = std::move(entry);
            return 0;
        }
    }
    const ProcPath path(inode.fd.valid() ? inode.fd.get() : entry.get());
    opened.reset(open(path.text, flags | O_CLOEXEC));
    return opened.valid() ? 0 : errno;
}

int statInode(const Volume& volume, const Inode& inode, struct stat& attributes) {
    UniqueFd fd;
    if (const int error = openInode(volume, inode, O_PATH, fd)) {
        return error;
    }
    return fstat(fd.get(), &attributes) == 0 ? 0 : errno;
}

int removeName(const Volume& volume, const Inode& directory, const char* name) {
    return takeName(volume, directory, name, [&] { return unlinkat(directory.fd.get(), name, 0); });
}

int changeName(const Volume& volume, const Inode& directory, const char* name, Inode& new_directory,
               const char* new_name, unsigned int flags) {
    Inode* moved = nullptr;
    UniqueFd pin;
    int error = findByName(volume, directory, name, moved, pin);
    if (error != 0) {
        return error;
    }
    error = takeName(volume, new_directory, new_name, [&] {
        return renameat2(directory.fd.get(), name, new_directory.fd.get(), new_name, flags);
    });
    if (error == 0 && moved != nullptr) {
        setName(*moved, new_directory, new_name);
    }
    return error;
}

int addName(const Inode& inode, const Inode& new_directory, const char* new_name) {
    const int to = new_directory.fd.get();
    const int result =
        inode.fd.valid()
            ? linkat(AT_FDCWD, ProcPath(inode.fd.get()).text, to, new_name, AT_SYMLINK_FOLLOW)
            : linkat(inode.directory->fd.get(), inode.name.c_str(), to, new_name, 0);
    return result == 0 ? 0 : errno;
}

}  // namespace emulator
