// SPDX-License-Identifier: Apache-2.0
// The files the kernel knows of, and how each is reached in the backing folder.
//
// A known directory holds a descriptor. A known file holds none: it is reached by name from its
// directory, so that any number of files may be known at once. It gets a descriptor of its own
// only when the name it is reached by goes away while the kernel still knows it.
//
// Functions that return int return 0 or a positive errno value, here and in the other headers.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "emulator/unique_fd.h"

struct fuse_session;

namespace emulator {

// What the driver keeps per regular file, in the form in which it is stored.
struct FileState {
    uint32_t version = 1;
    uint32_t flag = 0;  // the modify-check bits
    uint16_t is_deduped = 0;
    uint16_t is_layered = 0;
};
static_assert(sizeof(FileState) == 12);

struct Inode : std::enable_shared_from_this<Inode> {
    ino_t number = 0;      // in the backing file system; shown to users as it is
    mode_t type = 0;       // S_IFMT bits
    uint64_t lookups = 0;  // references the kernel holds
    UniqueFd fd;           // O_PATH; of a directory, or of a file that lost its name
    // Where a file without a descriptor is. Its folder's descriptor stays open for as long.
    std::shared_ptr<Inode> folder;
    std::string name;
    std::optional<FileState> state;  // empty until the first need
    ino_t cloned_from = 0;           // the source of the last CLONE_FILE, 0 for none
};

// One mounted backing folder. Requests are served one at a time by one thread.
struct Volume {
    std::shared_ptr<Inode> root;
    std::unordered_map<ino_t, std::shared_ptr<Inode>> inodes;  // with the root
    std::unordered_map<int, std::string> listings;             // of folders being read
    dev_t backing_device = 0;
    dev_t mount_device = 0;  // the device number that users of the mount see
    fuse_session* session = nullptr;
    std::vector<char> buffer;  // for data on its way to the kernel
};

// Opens the backing folder as the volume's root.
int openVolume(const char* backing, Volume& volume);

// Finds a directory's entry, counts one reference of the kernel to it and fills in its attributes.
// Returns nullptr with an error otherwise. EXDEV: the entry is on another file system.
Inode* lookUp(Volume& volume, Inode& parent, const char* name, struct stat& attributes, int& error);

// Makes an unnamed file known, with one reference of the kernel. The descriptor stays the caller's.
// Returns nullptr with an error otherwise.
Inode* adopt(Volume& volume, int fd, struct stat& attributes, int& error);

// Gives back references of the kernel. The inode is gone with the last one.
void forget(Volume& volume, Inode& inode, uint64_t count);

// Opens an inode, with O_PATH to have it named for calls that take a path or AT_EMPTY_PATH.
// ESTALE: someone changed the backing folder behind the emulator.
int openInode(const Inode& inode, int flags, UniqueFd& opened);
int statInode(const Inode& inode, struct stat& attributes);

// The three changes of names. They act on the backing folder and keep the known inodes reachable.
int removeName(Volume& volume, const Inode& parent, const char* name);
int changeName(Volume& volume, const Inode& parent, const char* name, Inode& new_parent,
               const char* new_name, unsigned int flags);
int addName(const Inode& inode, const Inode& new_parent, const char* new_name);

}  // namespace emulator
