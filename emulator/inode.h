// The files the kernel knows of, and how each is reached in the backing folder.
//
// A known directory holds a descriptor. A known file holds none: it is reached by name from its
// directory, so that any number of files may be known at once. It gets a descriptor of its own
// only when its last known name goes away while the kernel still knows it.
//
// Functions that return int return 0 or a positive errno value, here and in the other headers.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "unique_fd.h"

struct fuse_session;

namespace emulator {

// What the driver keeps per regular file.
struct FileState {
    uint32_t flag = 0;  // the modify-check bits
    bool is_deduped = false;
    bool is_layered = false;
};

struct Inode;

// Holding the directory keeps its descriptor open for as long as a file is reached through it.
struct Name {
    std::shared_ptr<Inode> parent;
    std::string text;
};

struct Inode : std::enable_shared_from_this<Inode> {
    ino_t number = 0;      // in the backing file system; shown to users as it is
    mode_t type = 0;       // S_IFMT bits
    uint64_t lookups = 0;  // references the kernel holds
    UniqueFd fd;           // O_PATH; of a directory, or of a file without a known name
    std::vector<Name> names;
    std::optional<FileState> state;  // empty until the first need
    ino_t cloned_from = 0;           // the source of the last CLONE_FILE, 0 for none
};

struct FolderEntry {
    ino_t number;
    unsigned char type;  // DT_REG and so on
    std::string name;
};

// A folder that a user has open. The listing is taken when reading starts and numbered from there:
// places in it stay valid whatever happens to the folder, and need no 64-bit telldir.
struct OpenFolder {
    std::unique_ptr<DIR, int (*)(DIR*)> stream;
    std::vector<FolderEntry> entries;
};

// One mounted backing folder. Requests are served one at a time by one thread.
struct Volume {
    std::shared_ptr<Inode> root;
    std::unordered_map<ino_t, std::shared_ptr<Inode>> inodes;  // with the root
    std::unordered_map<int, OpenFolder> folders;               // by descriptor
    dev_t backing_device = 0;
    dev_t mount_device = 0;        // the device number that users of the mount see
    bool owns_as_caller = false;   // new objects are given to the caller (the daemon is root)
    bool shares_blocks = false;    // FICLONE works on the backing file system
    bool drop_setid_bits = false;  // the kernel asked for it along with the write in hand
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
int removeName(Volume& volume, Inode& parent, const char* name);
int changeName(Volume& volume, Inode& parent, const char* name, Inode& new_parent,
               const char* new_name, unsigned int flags);
int addName(const Inode& inode, const Inode& new_parent, const char* new_name);

}  // namespace emulator
