#include "inode.h"

#include <fcntl.h>
#include <stdio.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace emulator {
namespace {

// Enough for a file to outlive the removal of some of its hard links without a descriptor, and
// few enough to search.
constexpr size_t kMaxNames = 8;

// Compared by number, not by address: a directory can be forgotten and become known again while
// a file still holds its first incarnation.
std::vector<Name>::iterator findName(Inode& inode, const Inode& parent, const char* name) {
    return std::find_if(inode.names.begin(), inode.names.end(), [&](const Name& known) {
        return known.parent->number == parent.number && known.text == name;
    });
}

void learnName(Inode& inode, Inode& parent, const char* name) {
    if (findName(inode, parent, name) == inode.names.end()) {
        if (inode.names.size() == kMaxNames) {
            inode.names.erase(inode.names.begin());
        }
        inode.names.push_back({parent.shared_from_this(), name});
    }
    inode.fd.reset();
}

// The known file that has this name among its known ones, or nullptr.
Inode* findByName(Volume& volume, const Inode& parent, const char* name) {
    struct stat attributes;
    if (fstatat(parent.fd.get(), name, &attributes, AT_SYMLINK_NOFOLLOW) != 0) {
        return nullptr;
    }
    const auto known = volume.inodes.find(attributes.st_ino);
    if (known == volume.inodes.end() || attributes.st_dev != volume.backing_device ||
        findName(*known->second, parent, name) == known->second->names.end()) {
        return nullptr;
    }
    return known->second.get();
}

// Opens a file that is about to lose its last known name. Leaves pin empty where none is needed.
int openBeforeLoss(const Inode* inode, UniqueFd& pin) {
    return inode != nullptr && inode->names.size() == 1 ? openInode(*inode, O_PATH, pin) : 0;
}

void loseName(Inode* inode, const Inode& parent, const char* name, UniqueFd pin) {
    if (inode != nullptr) {
        inode->names.erase(findName(*inode, parent, name));
        inode->fd = std::move(pin);
    }
}

void moveName(Inode* inode, const Inode& parent, const char* name, Inode& new_parent,
              const char* new_name) {
    if (inode != nullptr) {
        inode->names.erase(findName(*inode, parent, name));
        learnName(*inode, new_parent, new_name);
    }
}

// Finds or makes the record of a file and counts a reference of the kernel to it.
// nullptr: removed and its number given anew, behind the emulator.
Inode* enter(Volume& volume, const struct stat& attributes) {
    std::shared_ptr<Inode>& inode = volume.inodes[attributes.st_ino];
    if (!inode) {
        inode = std::make_shared<Inode>();
        inode->number = attributes.st_ino;
        inode->type = attributes.st_mode & S_IFMT;
    } else if (inode->type != (attributes.st_mode & S_IFMT)) {
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
    volume.root = enter(volume, attributes)->shared_from_this();
    volume.root->fd = std::move(fd);
    volume.backing_device = attributes.st_dev;
    return 0;
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
    Inode* const inode = enter(volume, attributes);
    if (inode == nullptr) {
        error = ESTALE;
    } else if (fd.valid()) {
        inode->fd = std::move(fd);
    } else if (!S_ISDIR(attributes.st_mode)) {
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
    Inode* const inode = enter(volume, attributes);
    if (inode == nullptr) {
        error = ESTALE;
    } else {
        inode->names.clear();
        inode->fd = std::move(pin);
        inode->state = FileState();
    }
    return inode;
}

void forget(Volume& volume, Inode& inode, uint64_t count) {
    if (&inode == volume.root.get()) {
        return;
    }
    inode.lookups -= std::min(count, inode.lookups);
    if (inode.lookups == 0) {
        volume.inodes.erase(inode.number);
    }
}

int openInode(const Inode& inode, int flags, UniqueFd& opened) {
    if (inode.fd.valid()) {
        opened.reset(open(ProcPath(inode.fd.get()).text, flags | O_CLOEXEC));
        return opened.valid() ? 0 : errno;
    }
    const Name& name = inode.names.back();
    opened.reset(openat(name.parent->fd.get(), name.text.c_str(), flags | O_NOFOLLOW | O_CLOEXEC));
    struct stat attributes;
    if (!opened.valid() || fstat(opened.get(), &attributes) != 0) {
        return errno;
    }
    return attributes.st_ino == inode.number ? 0 : ESTALE;
}

int statInode(const Inode& inode, struct stat& attributes) {
    if (inode.fd.valid()) {
        return fstatat(inode.fd.get(), "", &attributes, AT_EMPTY_PATH) == 0 ? 0 : errno;
    }
    const Name& name = inode.names.back();
    if (fstatat(name.parent->fd.get(), name.text.c_str(), &attributes, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno;
    }
    return attributes.st_ino == inode.number ? 0 : ESTALE;
}

int removeName(Volume& volume, Inode& parent, const char* name) {
    Inode* const removed = findByName(volume, parent, name);
    UniqueFd pin;
    if (const int error = openBeforeLoss(removed, pin)) {
        return error;
    }
    if (unlinkat(parent.fd.get(), name, 0) != 0) {
        return errno;
    }
    loseName(removed, parent, name, std::move(pin));
    return 0;
}

int changeName(Volume& volume, Inode& parent, const char* name, Inode& new_parent,
               const char* new_name, unsigned int flags) {
    Inode* const moved = findByName(volume, parent, name);
    Inode* const replaced = findByName(volume, new_parent, new_name);
    const bool exchange = (flags & RENAME_EXCHANGE) != 0;
    UniqueFd pin;
    if (!exchange) {
        if (const int error = openBeforeLoss(replaced, pin)) {
            return error;
        }
    }
    if (renameat2(parent.fd.get(), name, new_parent.fd.get(), new_name, flags) != 0) {
        return errno;
    }
    if (exchange) {
        moveName(replaced, new_parent, new_name, parent, name);
    } else {
        loseName(replaced, new_parent, new_name, std::move(pin));
    }
    moveName(moved, parent, name, new_parent, new_name);
    return 0;
}

int addName(const Inode& inode, const Inode& new_parent, const char* new_name) {
    const int to = new_parent.fd.get();
    int result;
    if (inode.fd.valid()) {
        result = linkat(AT_FDCWD, ProcPath(inode.fd.get()).text, to, new_name, AT_SYMLINK_FOLLOW);
    } else {
        const Name& name = inode.names.back();
        result = linkat(name.parent->fd.get(), name.text.c_str(), to, new_name, 0);
    }
    return result == 0 ? 0 : errno;
}

}  // namespace emulator
