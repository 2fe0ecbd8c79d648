// SPDX-License-Identifier: Apache-2.0
#include "emulator/operations.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <utility>

#include "emulator/file_state.h"
#include "emulator/inode.h"
#include "emulator/requests.h"

namespace emulator {
namespace {

constexpr double CACHE_SECONDS = 1.0;  // how long the kernel may answer by itself
// What an operation returns that has replied: no errno value to reply with.
constexpr int REPLIED = -1;

Volume& volumeOf(fuse_req_t req) {
    return *static_cast<Volume*>(fuse_req_userdata(req));
}

// Node ids are inode numbers, except that the root's and FUSE_ROOT_ID change places.
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

// 0 for a call that went well, else its errno.
int errorOf(int64_t result) {
    return result >= 0 ? 0 : errno;
}

char* roomFor(fuse_req_t req, size_t size) {
    std::vector<char>& buffer = volumeOf(req).buffer;
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

// Runs a call on the path of an inode.
template <typename Call>
int callOn(fuse_req_t req, fuse_ino_t id, Call call) {
    UniqueFd fd;
    const int error = openInode(inodeOf(req, id), O_PATH, fd);
    return error != 0 ? error : errorOf(call(ProcPath(fd.get()).text));
}

void initialize(void* /*user_data*/, fuse_conn_info* connection) {
    // A message has to be in memory to be looked at. The kernel is to take set-ID bits away, as far
    // as it can, and to make a truncating open an open and a truncation.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ | FUSE_CAP_HANDLE_KILLPRIV |
                                               FUSE_CAP_ATOMIC_O_TRUNC);
}

int lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    Volume& volume = volumeOf(req);
    int error = 0;
    struct stat attributes;
    Inode* const inode = lookUp(volume, inodeOf(req, parent), name, attributes, error);
    if (inode == nullptr) {
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
    if (const int error = statInode(inodeOf(req, id), attributes)) {
        return error;
    }
    fuse_reply_attr(req, &attributes, CACHE_SECONDS);
    return REPLIED;
}

// An open file is truncated through its descriptor where that allows it: it may be writable while
// the file's mode is not. A truncating open for reading only has no such descriptor.
int setSize(Inode& inode, int fd, const fuse_file_info* info, off_t size) {
    const int error = clearMark(inode, fd);
    if (error != 0 || (info != nullptr && ftruncate(fdOf(info), size) == 0)) {
        return error;
    }
    return errorOf(truncate(ProcPath(fd).text, size));
}

int setAttributes(fuse_req_t req, fuse_ino_t id, struct stat* given, int to_set,
                  fuse_file_info* info) {
    Inode& inode = inodeOf(req, id);
    UniqueFd fd;
    if (const int error = openInode(inode, O_PATH, fd)) {
        return error;
    }
    const ProcPath path(fd.get());
    const auto has = [&](int bits) { return (to_set & bits) != 0; };
    const auto time = [&](int set, int set_now, const timespec& value) {
        return has(set_now) ? timespec{0, UTIME_NOW} : has(set) ? value : timespec{0, UTIME_OMIT};
    };
    if (has(FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID) &&
        fchownat(fd.get(), "", has(FUSE_SET_ATTR_UID) ? given->st_uid : static_cast<uid_t>(-1),
                 has(FUSE_SET_ATTR_GID) ? given->st_gid : static_cast<gid_t>(-1),
                 AT_EMPTY_PATH) != 0) {
        return errno;
    }
    // After the owner: a change of owner takes set-ID bits away.
    if (has(FUSE_SET_ATTR_MODE) && chmod(path.text, given->st_mode & 07777) != 0) {
        return errno;
    }
    if (has(FUSE_SET_ATTR_SIZE)) {
        if (const int error = setSize(inode, fd.get(), info, given->st_size)) {
            return error;
        }
    }
    // After the size: a truncation changes the times.
    if (has(FUSE_SET_ATTR_ATIME | FUSE_SET_ATTR_MTIME)) {
        const timespec times[] = {
            time(FUSE_SET_ATTR_ATIME, FUSE_SET_ATTR_ATIME_NOW, given->st_atim),
            time(FUSE_SET_ATTR_MTIME, FUSE_SET_ATTR_MTIME_NOW, given->st_mtim)};
        if (utimensat(AT_FDCWD, path.text, times, 0) != 0) {
            return errno;
        }
    }
    return getAttributes(req, id, info);
}

int readLink(fuse_req_t req, fuse_ino_t id) {
    UniqueFd fd;
    if (const int error = openInode(inodeOf(req, id), O_PATH, fd)) {
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

// Gives a new object, named in `at` or (with an empty name) open as `at`, to the caller.
int giveToCaller(fuse_req_t req, int folder, int at, const char* name) {
    const fuse_ctx& caller = *fuse_req_ctx(req);
    if (geteuid() != 0 || (caller.uid == 0 && caller.gid == getegid())) {
        return 0;  // it is theirs, or nobody else's to give
    }
    struct stat parent;
    if (fstat(folder, &parent) != 0) {
        return errno;
    }
    // A folder's set-group-ID bit has put the folder's group there already.
    const gid_t gid = (parent.st_mode & S_ISGID) != 0 ? static_cast<gid_t>(-1) : caller.gid;
    return errorOf(fchownat(at, name, caller.uid, gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW));
}

// Makes a named object with make(folder's descriptor).
template <typename Make>
int makeNamed(fuse_req_t req, fuse_ino_t parent, const char* name, Make make) {
    const int folder = inodeOf(req, parent).fd.get();
    if (make(folder) != 0) {
        return errno;
    }
    const int error = giveToCaller(req, folder, folder, name);
    return error != 0 ? error : lookup(req, parent, name);
}

int makeNode(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, dev_t device) {
    return makeNamed(req, parent, name,
                     [=](int folder) { return mknodat(folder, name, mode, device); });
}

int makeFolder(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode) {
    return makeNamed(req, parent, name, [=](int folder) { return mkdirat(folder, name, mode); });
}

int makeSymlink(fuse_req_t req, const char* target, fuse_ino_t parent, const char* name) {
    return makeNamed(req, parent, name,
                     [=](int folder) { return symlinkat(target, folder, name); });
}

int unlinkFile(fuse_req_t req, fuse_ino_t parent, const char* name) {
    return removeName(volumeOf(req), inodeOf(req, parent), name);
}

int removeFolder(fuse_req_t req, fuse_ino_t parent, const char* name) {
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

// What of a caller's open flags concerns the backing file. O_DIRECT would ask for aligned buffers;
// O_APPEND comes with each write and can change in between.
int backingFlags(int flags) {
    return flags & (O_ACCMODE | O_SYNC | O_NOATIME);
}

// Every read and write of a regular file comes to the emulator at once: nothing waits in the page
// cache between a mark and its check.
void handOver(fuse_file_info& info, const UniqueFd& fd) {
    info.fh = static_cast<uint64_t>(fd.get());
    info.direct_io = 1;
}

// Of files and folders.
int openFile(fuse_req_t req, fuse_ino_t id, fuse_file_info* info) {
    UniqueFd fd;
    if (const int error = openInode(inodeOf(req, id), backingFlags(info->flags), fd)) {
        return error;
    }
    handOver(*info, fd);
    if (fuse_reply_open(req, info) == 0) {
        fd.release();
    }
    return REPLIED;
}

// Without a name: an unnamed temporary file.
int createFile(fuse_req_t req, fuse_ino_t parent_id, const char* name, mode_t mode,
               fuse_file_info* info) {
    Volume& volume = volumeOf(req);
    Inode& parent = inodeOf(req, parent_id);
    const int folder = parent.fd.get();
    const bool is_named = *name != '\0';
    const int make = is_named ? O_CREAT | O_EXCL : O_TMPFILE;
    UniqueFd fd(
        openat(folder, is_named ? name : ".", backingFlags(info->flags) | make | O_CLOEXEC, mode));
    int error = fd.valid() ? giveToCaller(req, folder, fd.get(), "") : errno;
    if (error != 0) {
        return error;
    }
    struct stat attributes;
    Inode* const inode = is_named ? lookUp(volume, parent, name, attributes, error)
                                  : adopt(volume, fd.get(), attributes, error);
    if (inode == nullptr) {
        return error;
    }
    inode->state = FileState();
    const fuse_entry_param entry = entryOf(volume, *inode, attributes);
    handOver(*info, fd);
    if (fuse_reply_create(req, &entry, info) == 0) {
        fd.release();
    } else {
        forget(volume, *inode, 1);
    }
    return REPLIED;
}

int readFile(fuse_req_t req, fuse_ino_t /*id*/, size_t size, off_t offset, fuse_file_info* info) {
    char* const data = roomFor(req, size);
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

int releaseFile(fuse_req_t req, fuse_ino_t /*id*/, fuse_file_info* info) {
    volumeOf(req).listings.erase(fdOf(info));
    return errorOf(close(fdOf(info)));
}

int syncFile(fuse_req_t /*req*/, fuse_ino_t /*id*/, int data_only, fuse_file_info* info) {
    return errorOf(data_only != 0 ? fdatasync(fdOf(info)) : fsync(fdOf(info)));
}

// Appends an entry in the form in which the kernel takes it. Its place is where the next one is.
void appendEntry(fuse_req_t req, std::string& listing, int folder, const dirent64& entry) {
    struct stat attributes = {};
    attributes.st_ino = entry.d_ino;
    attributes.st_mode = static_cast<mode_t>(DTTOIF(entry.d_type));
    if (entry.d_type == DT_UNKNOWN) {  // where the file system's listings do not tell
        fstatat(folder, entry.d_name, &attributes, AT_SYMLINK_NOFOLLOW);
    }
    const size_t begin = listing.size();
    const size_t length = fuse_add_direntry(req, nullptr, 0, entry.d_name, nullptr, 0);
    listing.resize(begin + length);
    fuse_add_direntry(req, &listing[begin], length, entry.d_name, &attributes,
                      static_cast<off_t>(listing.size()));
}

int listFolder(fuse_req_t req, int folder, std::string& listing) {
    constexpr size_t ROOM = 1 << 15;
    char* const entries = roomFor(req, ROOM);
    listing.clear();
    ssize_t length = lseek(folder, 0, SEEK_SET);
    while (length >= 0 && (length = getdents64(folder, entries, ROOM)) > 0) {
        for (const char* place = entries; place < entries + length;) {
            const auto* const entry = reinterpret_cast<const dirent64*>(place);
            appendEntry(req, listing, folder, *entry);
            place += entry->d_reclen;
        }
    }
    return errorOf(length);
}

// The listing is taken when reading starts: places in it stay valid whatever happens to the folder.
// The kernel leaves an entry that is cut at the end of a reply for its next request.
int readFolder(fuse_req_t req, fuse_ino_t /*id*/, size_t size, off_t offset, fuse_file_info* info) {
    std::string& listing = volumeOf(req).listings[fdOf(info)];
    if (offset == 0) {
        if (const int error = listFolder(req, fdOf(info), listing)) {
            return error;
        }
    }
    const size_t begin = std::min(static_cast<size_t>(offset), listing.size());
    fuse_reply_buf(req, &listing[begin], std::min(size, listing.size() - begin));
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

bool isHidden(const char* attribute) {
    return strcmp(attribute, STATE_ATTRIBUTE) == 0;
}

int setAttribute(fuse_req_t req, fuse_ino_t id, const char* name, const char* value, size_t size,
                 int flags) {
    if (isHidden(name)) {
        return EPERM;
    }
    return callOn(req, id,
                  [=](const char* path) { return setxattr(path, name, value, size, flags); });
}

int removeAttribute(fuse_req_t req, fuse_ino_t id, const char* name) {
    if (isHidden(name)) {
        return ENODATA;
    }
    return callOn(req, id, [=](const char* path) { return removexattr(path, name); });
}

// Answers with a value, or with its size when the caller asks with no room.
int replyValue(fuse_req_t req, const char* value, size_t length, size_t room) {
    if (room == 0) {
        fuse_reply_xattr(req, length);
    } else if (length > room) {
        return ERANGE;
    } else {
        fuse_reply_buf(req, value, length);
    }
    return REPLIED;
}

int getAttribute(fuse_req_t req, fuse_ino_t id, const char* name, size_t room) {
    if (isHidden(name)) {
        return ENODATA;
    }
    char* const value = roomFor(req, XATTR_SIZE_MAX);
    ssize_t length = 0;
    const int error = callOn(req, id, [&](const char* path) {
        return length = getxattr(path, name, value, XATTR_SIZE_MAX);
    });
    return error != 0 ? error : replyValue(req, value, static_cast<size_t>(length), room);
}

int listAttributes(fuse_req_t req, fuse_ino_t id, size_t room) {
    char* const names = roomFor(req, XATTR_LIST_MAX);
    ssize_t length = 0;
    const int error = callOn(
        req, id, [&](const char* path) { return length = listxattr(path, names, XATTR_LIST_MAX); });
    std::string shown;
    for (const char* name = names; name < names + length; name += strlen(name) + 1) {
        if (!isHidden(name)) {
            shown.append(name, strlen(name) + 1);
        }
    }
    return error != 0 ? error : replyValue(req, shown.data(), shown.size(), room);
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
    Volume& volume = volumeOf(req);
    char out[16] = {};
    const Request request = {
        inodeOf(req, id), fdOf(info), fuse_req_ctx(req)->pid,         number, in,
        in_size,          out,        std::min(out_size, sizeof(out))};
    size_t answered = 0;
    bool size_changed = false;
    const int error = serveRequest(volume, request, answered, size_changed);
    if (size_changed) {
        // Before the reply, so that the caller never sees the old size. The negative offset spares
        // the page cache, and with it any wait for a page that only this thread can fill.
        fuse_lowlevel_notify_inval_inode(volume.session, id, -1, 0);
    }
    if (error != 0) {
        return error;
    }
    fuse_reply_ioctl(req, 0, out, answered);
    return REPLIED;
}

// An operation as libfuse takes it: with its error, or 0, as the reply.
template <auto operation, typename... Arguments>
void answer(fuse_req_t req, Arguments... arguments) {
    const int error = operation(req, arguments...);
    if (error != REPLIED) {
        fuse_reply_err(req, error);
    }
}

}  // namespace

fuse_lowlevel_ops operations() {
    fuse_lowlevel_ops table = {};
    table.init = initialize;
    table.lookup = answer<lookup>;
    table.forget = forgetOne;
    table.getattr = answer<getAttributes>;
    table.setattr = answer<setAttributes>;
    table.readlink = answer<readLink>;
    table.mknod = answer<makeNode>;
    table.mkdir = answer<makeFolder>;
    table.symlink = answer<makeSymlink>;
    table.unlink = answer<unlinkFile>;
    table.rmdir = answer<removeFolder>;
    table.rename = answer<renameEntry>;
    table.link = answer<linkFile>;
    table.open = answer<openFile>;
    table.create = answer<createFile>;
    table.read = answer<readFile>;
    table.write = answer<writeFile>;
    table.release = answer<releaseFile>;
    table.fsync = answer<syncFile>;
    table.opendir = answer<openFile>;
    table.readdir = answer<readFolder>;
    table.releasedir = answer<releaseFile>;
    table.fsyncdir = answer<syncFile>;
    table.statfs = answer<statFileSystem>;
    table.setxattr = answer<setAttribute>;
    table.getxattr = answer<getAttribute>;
    table.listxattr = answer<listAttributes>;
    table.removexattr = answer<removeAttribute>;
    table.fallocate = answer<allocate>;
    table.copy_file_range = answer<copyRange>;
    table.lseek = answer<seek>;
    table.ioctl = answer<control>;
    return table;
}

void serveMessage(fuse_session* session, const fuse_buf& message) {
    // O_TMPFILE has no operation in libfuse. Its message and its reply are those of a create, which
    // never has an empty name otherwise.
    constexpr size_t NAME_PLACE = sizeof(fuse_in_header) + sizeof(fuse_create_in);
    auto* const header = static_cast<fuse_in_header*>(message.mem);
    if (message.size > NAME_PLACE && header->opcode == FUSE_TMPFILE) {
        header->opcode = FUSE_CREATE;
        static_cast<char*>(message.mem)[NAME_PLACE] = '\0';
    }
    fuse_session_process_buf(session, &message);
}

}  // namespace emulator
