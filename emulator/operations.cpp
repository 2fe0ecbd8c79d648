// SPDX-License-Identifier: Apache-2.0
#include "emulator/operations.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <string>

#include "emulator/file_state.h"
#include "emulator/listing.h"
#include "emulator/requests.h"
#include "emulator/xattr.h"

namespace emulator {
namespace {

constexpr double CACHE_SECONDS = 1.0;  // how long the kernel may use names and attributes
// Returned by an operation that has already replied.
constexpr int REPLIED = -1;

Server& serverOf(fuse_req_t req) {
    return *static_cast<Server*>(fuse_req_userdata(req));
}

Volume& volumeOf(fuse_req_t req) {
    return serverOf(req).volume;
}

// A node id is an inode number, except that the root's number and FUSE_ROOT_ID are exchanged.
uint64_t exchangeRoot(const Volume& volume, uint64_t id) {
    if (id == FUSE_ROOT_ID) {
        return volume.root->number;
    }
    return id == volume.root->number ? FUSE_ROOT_ID : id;
}

Inode& inodeOf(fuse_req_t req, fuse_ino_t id) {
    Volume& volume = volumeOf(req);
    return *volume.inodes.at(static_cast<ino_t>(exchangeRoot(volume, id)));
}

int fdOf(const fuse_file_info* info) {
    return static_cast<int>(info->fh);
}

// The errno value of a system call that returned `result`.
int errorOf(int64_t result) {
    return result >= 0 ? 0 : errno;
}

char* bufferOf(fuse_req_t req, size_t size) {
    std::vector<char>& buffer = serverOf(req).buffer;
    buffer.resize(std::max(buffer.size(), size));
    return buffer.data();
}

fuse_entry_param entryOf(const Volume& volume, const Inode& inode, const struct stat& attributes) {
    fuse_entry_param entry = {};
    entry.ino = exchangeRoot(volume, inode.number);
    entry.attr = attributes;
    entry.attr_timeout = entry.entry_timeout = CACHE_SECONDS;
    return entry;
}

int replyWritten(fuse_req_t req, ssize_t written) {
    if (written < 0) {
        return errno;
    }
    fuse_reply_write(req, static_cast<size_t>(written));
    return REPLIED;
}

// Runs a function on a path to an inode.
template <typename Function>
int runOnPath(fuse_req_t req, fuse_ino_t id, Function function) {
    UniqueFd fd;
    const int error = openInode(volumeOf(req), inodeOf(req, id), O_PATH, fd);
    return error != 0 ? error : function(ProcPath(fd.get()).text);
}

void initialize(void* /*user_data*/, fuse_conn_info* connection) {
    // Messages must be in memory, not spliced, because that of O_TMPFILE is rewritten. The kernel
    // is to clear set-ID bits as far as it can, and to send a truncating open as an open and a
    // truncation.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_HANDLE_KILLPRIV |
                                               FUSE_CAP_ATOMIC_O_TRUNC);
}

int lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    Volume& volume = volumeOf(req);
    Inode* inode = nullptr;
    struct stat attributes;
    if (const int error = findEntry(volume, inodeOf(req, parent), name, inode, attributes)) {
        return error;
    }
    const fuse_entry_param entry = entryOf(volume, *inode, attributes);
    if (fuse_reply_entry(req, &entry) != 0) {
        forget(volume, *inode, 1);
    }
    return REPLIED;
}

void forgetOne(fuse_req_t req, fuse_ino_t id, uint64_t count) {
    forget(volumeOf(req), inodeOf(req, id), count);
    fuse_reply_none(req);
}

int getAttributes(fuse_req_t req, fuse_ino_t id, fuse_file_info* /*info*/) {
    struct stat attributes;
    if (const int error = statInode(volumeOf(req), inodeOf(req, id), attributes)) {
        return error;
    }
    fuse_reply_attr(req, &attributes, CACHE_SECONDS);
    return REPLIED;
}

// Truncates an open file through its descriptor, which may be writable while the file's mode is
// not. The descriptor of a truncating open for reading cannot truncate; the path can.
int setSize(Inode& inode, const char* path, const fuse_file_info* info, int fd, off_t size) {
    if (const int error = clearMark(inode, fd)) {
        return error;
    }
    if (info != nullptr && ftruncate(fdOf(info), size) == 0) {
        return 0;
    }
    return errorOf(truncate(path, size));
}

int setOwnerAndMode(int fd, const char* path, const struct stat& given, int to_set) {
    const bool has_uid = (to_set & FUSE_SET_ATTR_UID) != 0;
    const bool has_gid = (to_set & FUSE_SET_ATTR_GID) != 0;
    if ((has_uid || has_gid) &&
        fchownat(fd, "", has_uid ? given.st_uid : static_cast<uid_t>(-1),
                 has_gid ? given.st_gid : static_cast<gid_t>(-1), AT_EMPTY_PATH) != 0) {
        return errno;
    }
    // After the owner, since a change of owner clears set-ID bits.
    const bool has_mode = (to_set & FUSE_SET_ATTR_MODE) != 0;
    return has_mode ? errorOf(chmod(path, given.st_mode & 07777)) : 0;
}

int setTimes(const char* path, const struct stat& given, int to_set) {
    const auto time = [&](int set, int set_now, const timespec& value) {
        return (to_set & set_now) != 0 ? timespec{0, UTIME_NOW}
               : (to_set & set) != 0   ? value
                                       : timespec{0, UTIME_OMIT};
    };
    const timespec times[] = {time(FUSE_SET_ATTR_ATIME, FUSE_SET_ATTR_ATIME_NOW, given.st_atim),
                              time(FUSE_SET_ATTR_MTIME, FUSE_SET_ATTR_MTIME_NOW, given.st_mtim)};
    return errorOf(utimensat(AT_FDCWD, path, times, 0));
}

int setAttributes(fuse_req_t req, fuse_ino_t id, struct stat* given, int to_set,
                  fuse_file_info* info) {
    Inode& inode = inodeOf(req, id);
    UniqueFd fd;
    int error = openInode(volumeOf(req), inode, O_PATH, fd);
    if (error != 0) {
        return error;
    }
    const ProcPath path(fd.get());
    error = setOwnerAndMode(fd.get(), path.text, *given, to_set);
    if (error == 0 && (to_set & FUSE_SET_ATTR_SIZE) != 0) {
        error = setSize(inode, path.text, info, fd.get(), given->st_size);
    }
    // After the size, since a truncation changes the times.
    if (error == 0 && (to_set & (FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME)) != 0) {
        error = setTimes(path.text, *given, to_set);
    }
    return error != 0 ? error : getAttributes(req, id, info);
}

int readLink(fuse_req_t req, fuse_ino_t id) {
    UniqueFd fd;
    if (const int error = openInode(volumeOf(req), inodeOf(req, id), O_PATH, fd)) {
        return error;
    }
    char target[PATH_MAX + 1];
    const ssize_t length = readlinkat(fd.get(), "", target, PATH_MAX);
    if (length < 0) {
        return errno;
    }
    target[length] = '\0';
    fuse_reply_readlink(req, target);
    return REPLIED;
}

// Makes the caller own a new file: `name` in `directory`, or `fd` itself if `name` is empty.
int setOwner(fuse_req_t req, int directory, int fd, const char* name) {
    const fuse_ctx& caller = *fuse_req_ctx(req);
    if (geteuid() != 0 || (caller.uid == 0 && caller.gid == getegid())) {
        return 0;  // the caller owns it, or the daemon may not give it away
    }
    struct stat parent;
    if (fstat(directory, &parent) != 0) {
        return errno;
    }
    // A directory with the set-group-ID bit has passed its group on already.
    const gid_t gid = (parent.st_mode & S_ISGID) != 0 ? static_cast<gid_t>(-1) : caller.gid;
    return errorOf(fchownat(fd, name, caller.uid, gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW));
}

// Makes an entry with make(descriptor of the parent).
template <typename Make>
int makeEntry(fuse_req_t req, fuse_ino_t parent, const char* name, Make make) {
    const int directory = inodeOf(req, parent).fd.get();
    if (make(directory) != 0) {
        return errno;
    }
    const int error = setOwner(req, directory, directory, name);
    return error != 0 ? error : lookup(req, parent, name);
}

int makeNode(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, dev_t device) {
    return makeEntry(req, parent, name,
                     [=](int directory) { return mknodat(directory, name, mode, device); });
}

int makeDirectory(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode) {
    return makeEntry(req, parent, name,
                     [=](int directory) { return mkdirat(directory, name, mode); });
}

int makeSymlink(fuse_req_t req, const char* target, fuse_ino_t parent, const char* name) {
    return makeEntry(req, parent, name,
                     [=](int directory) { return symlinkat(target, directory, name); });
}

int unlinkFile(fuse_req_t req, fuse_ino_t parent, const char* name) {
    return removeName(volumeOf(req), inodeOf(req, parent), name);
}

int removeDirectory(fuse_req_t req, fuse_ino_t parent, const char* name) {
    return errorOf(unlinkat(inodeOf(req, parent).fd.get(), name, AT_REMOVEDIR));
}

int renameEntry(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t new_parent,
                const char* new_name, unsigned int flags) {
    return changeName(volumeOf(req), inodeOf(req, parent), name, inodeOf(req, new_parent), new_name,
                      flags);
}

int linkFile(fuse_req_t req, fuse_ino_t id, fuse_ino_t new_parent, const char* new_name) {
    const int error = addName(inodeOf(req, id), inodeOf(req, new_parent), new_name);
    return error != 0 ? error : lookup(req, new_parent, new_name);
}

// The open flags that apply to the backing file. O_DIRECT is dropped, since it needs aligned
// buffers, and O_APPEND, since each write carries the caller's current flag.
int backingFlags(int flags) {
    return flags & (O_ACCMODE | O_SYNC | O_NOATIME);
}

// Opens an inode and replies with its handle. direct_io sends every read and write of a regular
// file to the daemon at once, so that no data wait in the page cache while a mark is set or
// checked.
int openHandle(fuse_req_t req, fuse_ino_t id, fuse_file_info& info) {
    UniqueFd fd;
    if (const int error =
            openInode(volumeOf(req), inodeOf(req, id), backingFlags(info.flags), fd)) {
        return error;
    }
    info.fh = static_cast<uint64_t>(fd.get());
    if (fuse_reply_open(req, &info) == 0) {
        fd.release();
    }
    return REPLIED;
}

int openFile(fuse_req_t req, fuse_ino_t id, fuse_file_info* info) {
    info->direct_io = 1;
    return openHandle(req, id, *info);
}

int openDirectory(fuse_req_t req, fuse_ino_t id, fuse_file_info* info) {
    return openHandle(req, id, *info);
}

// Replies with a new file's entry and handle.
int replyCreated(fuse_req_t req, Inode& inode, const struct stat& attributes, UniqueFd& fd,
                 fuse_file_info& info) {
    Volume& volume = volumeOf(req);
    inode.state = FileState();
    const fuse_entry_param entry = entryOf(volume, inode, attributes);
    info.fh = static_cast<uint64_t>(fd.get());
    info.direct_io = 1;
    if (fuse_reply_create(req, &entry, &info) == 0) {
        fd.release();
    } else {
        forget(volume, inode, 1);
    }
    return REPLIED;
}

// An empty name asks for an unnamed temporary file.
int createFile(fuse_req_t req, fuse_ino_t parent_id, const char* name, mode_t mode,
               fuse_file_info* info) {
    Volume& volume = volumeOf(req);
    Inode& parent = inodeOf(req, parent_id);
    const int directory = parent.fd.get();
    const bool is_named = *name != '\0';
    const int flags =
        backingFlags(info->flags) | O_CLOEXEC | (is_named ? O_CREAT | O_EXCL : O_TMPFILE);
    UniqueFd fd(openat(directory, is_named ? name : ".", flags, mode));
    if (!fd.valid()) {
        return errno;
    }
    if (const int error = setOwner(req, directory, fd.get(), "")) {
        return error;
    }
    Inode* inode = nullptr;
    struct stat attributes;
    const int error = is_named ? findEntry(volume, parent, name, inode, attributes)
                               : adopt(volume, fd.get(), inode, attributes);
    return error != 0 ? error : replyCreated(req, *inode, attributes, fd, *info);
}

int readFile(fuse_req_t req, fuse_ino_t /*id*/, size_t size, off_t offset, fuse_file_info* info) {
    char* const data = bufferOf(req, size);
    const ssize_t got = pread(fdOf(info), data, size, offset);
    if (got < 0) {
        return errno;
    }
    fuse_reply_buf(req, data, static_cast<size_t>(got));
    return REPLIED;
}

int writeFile(fuse_req_t req, fuse_ino_t id, const char* data, size_t size, off_t offset,
              fuse_file_info* info) {
    if (const int error = clearMark(inodeOf(req, id), fdOf(info))) {
        return error;
    }
    const iovec source = {const_cast<char*>(data), size};
    const int append = (info->flags & O_APPEND) != 0 ? RWF_APPEND : 0;
    return replyWritten(req, pwritev2(fdOf(info), &source, 1, offset, append));
}

int releaseHandle(fuse_req_t req, fuse_ino_t /*id*/, fuse_file_info* info) {
    serverOf(req).listings.erase(fdOf(info));
    return errorOf(close(fdOf(info)));
}

int syncHandle(fuse_req_t /*req*/, fuse_ino_t /*id*/, int data_only, fuse_file_info* info) {
    return errorOf(data_only != 0 ? fdatasync(fdOf(info)) : fsync(fdOf(info)));
}

// Entries take more room in the reply than in the backing directory's records, by a third at most.
// The kernel continues behind the last entry of the reply, whatever was read beyond it.
int readDirectory(fuse_req_t req, fuse_ino_t /*id*/, size_t size, off_t offset,
                  fuse_file_info* info) {
    const size_t room = size / 4 * 3;
    char* const entries = bufferOf(req, room + size);
    char* const reply = entries + room;
    Listing& listing = serverOf(req).listings[fdOf(info)];
    size_t length = 0;
    if (const int error = readEntries(fdOf(info), listing, offset, entries, room, length)) {
        return error;
    }
    size_t used = 0;
    for (const char* next = entries; next < entries + length;) {
        const auto& entry = *reinterpret_cast<const dirent64*>(next);
        struct stat attributes = {};
        attributes.st_ino = entry.d_ino;
        attributes.st_mode = static_cast<mode_t>(DTTOIF(entry.d_type));
        const size_t needed =
            fuse_add_direntry(req, reply + used, size - used, entry.d_name, &attributes, ++offset);
        if (needed > size - used) {
            break;
        }
        used += needed;
        next += entry.d_reclen;
    }
    fuse_reply_buf(req, reply, used);
    return REPLIED;
}

int statFileSystem(fuse_req_t req, fuse_ino_t /*id*/) {
    struct statvfs figures;
    if (fstatvfs(volumeOf(req).root->fd.get(), &figures) != 0) {
        return errno;
    }
    fuse_reply_statfs(req, &figures);
    return REPLIED;
}

int setAttribute(fuse_req_t req, fuse_ino_t id, const char* name, const char* value, size_t size,
                 int flags) {
    return runOnPath(req, id,
                     [=](const char* path) { return setXattr(path, name, value, size, flags); });
}

int removeAttribute(fuse_req_t req, fuse_ino_t id, const char* name) {
    return runOnPath(req, id, [=](const char* path) { return removeXattr(path, name); });
}

// Replies with a value, or with its size if the caller gives no room.
int replyValue(fuse_req_t req, const std::string& value, size_t room) {
    if (room == 0) {
        fuse_reply_xattr(req, value.size());
    } else if (value.size() > room) {
        return ERANGE;
    } else {
        fuse_reply_buf(req, value.data(), value.size());
    }
    return REPLIED;
}

int getAttribute(fuse_req_t req, fuse_ino_t id, const char* name, size_t room) {
    std::string value;
    const int error =
        runOnPath(req, id, [&](const char* path) { return getXattr(path, name, value); });
    return error != 0 ? error : replyValue(req, value, room);
}

int listAttributes(fuse_req_t req, fuse_ino_t id, size_t room) {
    std::string names;
    const int error = runOnPath(req, id, [&](const char* path) { return listXattrs(path, names); });
    return error != 0 ? error : replyValue(req, names, room);
}

int allocate(fuse_req_t req, fuse_ino_t id, int mode, off_t offset, off_t length,
             fuse_file_info* info) {
    const int error = clearMark(inodeOf(req, id), fdOf(info));
    return error != 0 ? error : errorOf(fallocate(fdOf(info), mode, offset, length));
}

int copyRange(fuse_req_t req, fuse_ino_t /*from_id*/, off_t from, fuse_file_info* from_info,
              fuse_ino_t to_id, off_t to, fuse_file_info* to_info, size_t length, int flags) {
    if (const int error = clearMark(inodeOf(req, to_id), fdOf(to_info))) {
        return error;
    }
    return replyWritten(req, copy_file_range(fdOf(from_info), &from, fdOf(to_info), &to, length,
                                             static_cast<unsigned>(flags)));
}

int seek(fuse_req_t req, fuse_ino_t /*id*/, off_t offset, int whence, fuse_file_info* info) {
    const off_t found = lseek(fdOf(info), offset, whence);
    if (found < 0) {
        return errno;
    }
    fuse_reply_lseek(req, found);
    return REPLIED;
}

int control(fuse_req_t req, fuse_ino_t id, unsigned int number, void* /*argument*/,
            fuse_file_info* info, unsigned int /*flags*/, const void* in, size_t in_size,
            size_t out_size) {
    Server& server = serverOf(req);
    char out[16] = {};
    const Request request = {
        inodeOf(req, id), fdOf(info), fuse_req_ctx(req)->pid,         number, in,
        in_size,          out,        std::min(out_size, sizeof(out))};
    size_t answered = 0;
    bool size_changed = false;
    const int error = serveRequest(server.volume, request, answered, size_changed);
    if (size_changed) {
        // Before the reply, so that the caller never sees the old size. The negative offset leaves
        // the page cache alone: this thread must not wait for a page that only it can fill.
        fuse_lowlevel_notify_inval_inode(server.session, id, -1, 0);
    }
    if (error != 0) {
        return error;
    }
    fuse_reply_ioctl(req, 0, out, answered);
    return REPLIED;
}

// Makes an operation one of libfuse's: its result, an errno value or 0, becomes the reply.
template <auto operation, typename... Arguments>
void replyTo(fuse_req_t req, Arguments... arguments) {
    const int error = operation(req, arguments...);
    if (error != REPLIED) {
        fuse_reply_err(req, error);
    }
}

}  // namespace

fuse_lowlevel_ops operations() {
    fuse_lowlevel_ops table = {};
    table.init = initialize;
    table.lookup = replyTo<lookup>;
    table.forget = forgetOne;
    table.getattr = replyTo<getAttributes>;
    table.setattr = replyTo<setAttributes>;
    table.readlink = replyTo<readLink>;
    table.mknod = replyTo<makeNode>;
    table.mkdir = replyTo<makeDirectory>;
    table.symlink = replyTo<makeSymlink>;
    table.unlink = replyTo<unlinkFile>;
    table.rmdir = replyTo<removeDirectory>;
    table.rename = replyTo<renameEntry>;
    table.link = replyTo<linkFile>;
    table.open = replyTo<openFile>;
    table.create = replyTo<createFile>;
    table.read = replyTo<readFile>;
    table.write = replyTo<writeFile>;
    table.release = replyTo<releaseHandle>;
    table.fsync = replyTo<syncHandle>;
    table.opendir = replyTo<openDirectory>;
    table.readdir = replyTo<readDirectory>;
    table.releasedir = replyTo<releaseHandle>;
    table.fsyncdir = replyTo<syncHandle>;
    table.statfs = replyTo<statFileSystem>;
    table.setxattr = replyTo<setAttribute>;
    table.getxattr = replyTo<getAttribute>;
    table.listxattr = replyTo<listAttributes>;
    table.removexattr = replyTo<removeAttribute>;
    table.fallocate = replyTo<allocate>;
    table.copy_file_range = replyTo<copyRange>;
    table.lseek = replyTo<seek>;
    table.ioctl = replyTo<control>;
    return table;
}

}  // namespace emulator
