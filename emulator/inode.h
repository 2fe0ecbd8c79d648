// SPDX-License-Identifier: Apache-2.0
// The known files, which are those that the kernel holds references to, and how to reach each of
// them in the backing directory.
//
// A known directory has an open descriptor. Any other known file is reached by its directory and
// its name, so that descriptors do not limit their number. It gets a descriptor of its own when
// that name goes away.
//
// Only one thread serves the volume. A call that reached the volume's own mount would wait for that
// thread for ever, and the volume can be mounted below its backing directory at any time. So every
// entry is first opened with O_PATH and its device compared.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "emulator/file_state.h"
#include "emulator/unique_fd.h"

namespace emulator {

struct Inode : std::enable_shared_from_this<Inode> {
    ino_t number = 0;      // in the backing file system; users see the same number
    mode_t type = 0;       // S_IFMT bits
    uint64_t lookups = 0;  // references the kernel holds
    UniqueFd fd;           // of a directory, or O_PATH of a file that lost its name
    // Where a file without a descriptor is. This reference keeps the directory's descriptor open.
    std::shared_ptr<Inode> directory;
    std::string name;
    std::optional<FileState> state;  // loaded on first use
    ino_t cloned_from = 0;           // the source of the last CLONE_FILE, 0 for none
};

// One mounted backing directory.
struct Volume {
    std::shared_ptr<Inode> root;
    std::unordered_map<ino_t, std::shared_ptr<Inode>> inodes;  // includes the root
    dev_t backing_device = 0;
    dev_t mount_device = 0;  // the device number that users of the mount see
    bool read_only = false;
};

// Opens the backing directory as the volume's root and locks it for as long as the volume is open.
// EWOULDBLOCK: another volume has locked it.
int openVolume(const char* backing, Volume& volume);

// Finds a directory's entry, counts one reference of the kernel to it and returns its attributes.
// EXDEV: another file system is mounted on the entry.
int findEntry(Volume& volume, Inode& directory, const char* name, Inode*& found,
              struct stat& attributes);

// Makes an unnamed file known, with one reference of the kernel. The caller keeps the descriptor.
int adopt(Volume& volume, int fd, Inode*& adopted, struct stat& attributes);

// Drops references of the kernel. The last one frees the inode.
void forget(Volume& volume, Inode& inode, uint64_t count);

// Opens an inode. O_PATH gives a descriptor for calls that take a path or AT_EMPTY_PATH.
// ESTALE: the backing directory was changed behind the emulator. EXDEV: as findEntry.
int openInode(const Volume& volume, const Inode& inode, int flags, UniqueFd& opened);

// Errors as openInode.
int statInode(const Volume& volume, const Inode& inode, struct stat& attributes);

// The three changes of names. Each changes the backing directory and keeps every known inode
// reachable. Names and flags are those of unlinkat, renameat2 and linkat.
int removeName(const Volume& volume, const Inode& directory, const char* name);
int changeName(const Volume& volume, const Inode& directory, const char* name, Inode& new_directory,
               const char* new_name, unsigned int flags);
int addName(const Inode& inode, const Inode& new_directory, const char* new_name);

}  // namespace emulator
