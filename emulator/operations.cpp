#include "operations.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "copy.h"
#include "file_state.h"
#include "requests.h"

namespace emulator {
namespace {

constexpr size_t kMaxCopy = 1 << 30;  // a reply's byte count has 32 bits

Volume& volumeOf(fuse_req_t req) {
    return *static_cast<Volume*>(fuse_req_userdata(req));
}

int fdOf(const fuse_file_info* info) {
    return static_cast<int>(info->fh);
}

// 0 for a call that went well, else its errno.
int errorOf(int result) {
    return result >= 0 ? 0 : errno;
}

fuse_entry_param entryOf(const Volume& volume, const Inode& inode, const struct stat& attributes) {
    fuse_entry_param entry = {};
    entry.ino = idOf(volume, inode);
    entry.attr = attributes;
    entry.attr_timeout = kCacheSeconds;
    entry.entry_timeout = kCacheSeconds;
    return entry;
}

void replyEntry(fuse_req_t req, Volume& volume, Inode& parent, const char* name) {
    int error = 0;
    struct stat attributes;
    Inode* const inode = lookUp(volume, parent, name, attributes, error);
    if (inode == nullptr) {
        fuse_reply_err(req, error);
        return;
    }
    const fuse_entry_param entry = entryOf(volume, *inode, attributes);
    if (fuse_reply_entry(req, &entry) != 0) {
        forget(volume, *inode, 1);
    }
}

void replyAttributes(fuse_req_t req, const Inode& inode) {
    struct stat attributes;
    if (const int error = statInode(inode, attributes)) {
        fuse_reply_err(req, error);
    } else {
        fuse_reply_attr(req, &attributes, kCacheSeconds);
    }
}

void replyWritten(fuse_req_t req, ssize_t written) {
    if (written < 0) {
        fuse_reply_err(req, errno);
    } else {
        fuse_reply_write(req, static_cast<size_t>(written));
    }
}

// Runs a call on the path of an inode and replies with its result.
template <typename Call>
void replyCall(fuse_req_t req, fuse_ino_t id, Call call) {
    UniqueFd fd;
    int error = openInode(inodeOf(volumeOf(req), id), O_PATH, fd);
    if (error == 0) {
        error = errorOf(call(ProcPath(fd.get()).text));
    }
    fuse_reply_err(req, error);
}

void initialize(void* /*user_data*/, fuse_conn_info* connection) {
    // A message has to be in memory to be looked at.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_SPLICE_READ);
    // The backing file system does not take set-ID bits away on a write by root, so the kernel is
    // to do it. It does so for a truncating open when that comes as an open and a setattr.
    connection->want &= ~static_cast<unsigned>(FUSE_CAP_HANDLE_KILLPRIV | FUSE_CAP_ATOMIC_O_TRUNC);
    // The kernel checks access by the lists; the backing file system inherits them, in place of
    // the umask.
    connection->want |= connection->capable & (FUSE_CAP_POSIX_ACL | FUSE_CAP_DONT_MASK);
}

void lookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    Volume& volume = volumeOf(req);
    replyEntry(req, volume, inodeOf(volume, parent), name);
}

void forgetOne(fuse_req_t req, fuse_ino_t id, uint64_t count) {
    Volume& volume = volumeOf(req);
    forget(volume, inodeOf(volume, id), count);
    fuse_reply_none(req);
}

void forgetMany(fuse_req_t req, size_t count, fuse_forget_data* forgets) {
    Volume& volume = volumeOf(req);
    for (size_t i = 0; i < count; ++i) {
        forget(volume, inodeOf(volume, forgets[i].ino), forgets[i].nlookup);
    }
    fuse_reply_none(req);
}

void getAttributes(fuse_req_t req, fuse_ino_t id, fuse_file_info* /*info*/) {
    replyAttributes(req, inodeOf(volumeOf(req), id));
}

// An open file is truncated through its descriptor where that allows it: it may be writable while
// the file's mode is not. A truncating open for reading only has no such descriptor.
int setSize(Inode& inode, int fd, const fuse_file_info* info, off_t size) {
    if (const int error = clearMark(inode, fd)) {
        return error;
    }
    if (info != nullptr && (fcntl(fdOf(info), F_GETFL) & O_ACCMODE) != O_RDONLY) {
        return errorOf(ftruncate(fdOf(info), size));
    }
    return errorOf(truncate(ProcPath(fd).text, size));
}

timespec timeToSet(int to_set, int set, int set_now, const timespec& given) {
    if ((to_set & set_now) != 0) {
        return {0, UTIME_NOW};
    }
    return (to_set & set) != 0 ? given : timespec{0, UTIME_OMIT};
}

int applyAttributes(Inode& inode, const struct stat& given, int to_set,
                    const fuse_file_info* info) {
    UniqueFd fd;
    if (const int error = openInode(inode, O_PATH, fd)) {
        return error;
    }
    if ((to_set & (FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0) {
        const uid_t uid = (to_set & FUSE_SET_ATTR_UID) != 0 ? given.st_uid : static_cast<uid_t>(-1);
        const gid_t gid = (to_set & FUSE_SET_ATTR_GID) != 0 ? given.st_gid : static_cast<gid_t>(-1);
        if (fchownat(fd.get(), "", uid, gid, AT_EMPTY_PATH) != 0) {
            return errno;
        }
    }
    // After the owner: a change of owner takes set-ID bits away.
    if ((to_set & FUSE_SET_ATTR_MODE) != 0 &&
        chmod(ProcPath(fd.get()).text, given.st_mode & 07777) != 0) {
        return errno;
    }
    if ((to_set & FUSE_SET_ATTR_SIZE) != 0) {
        if (const int error = setSize(inode, fd.get(), info, given.st_size)) {
            return error;
        }
    }
    // After the size: a truncation changes the times.
    const timespec times[2] = {
        timeToSet(to_set, FUSE_SET_ATTR_ATIME, FUSE_SET_ATTR_ATIME_NOW, given.st_atim),
        timeToSet(to_set, FUSE_SET_ATTR_MTIME, FUSE_SET_ATTR_MTIME_NOW, given.st_mtim)};
    if (times[0].tv_nsec == UTIME_OMIT && times[1].tv_nsec == UTIME_OMIT) {
        return 0;
    }
    return errorOf(utimensat(AT_FDCWD, ProcPath(fd.get()).text, times, 0));
}

void setAttributes(fuse_req_t req, fuse_ino_t id, struct stat* given, int to_set,
                   fuse_file_info* info) {
    Inode& inode = inodeOf(volumeOf(req), id);
    if (const int error = applyAttributes(inode, *given, to_set, info)) {
        fuse_reply_err(req, error);
    } else {
        replyAttributes(req, inode);
    }
}

void readLink(fuse_req_t req, fuse_ino_t id) {
    UniqueFd fd;
    if (const int error = openInode(inodeOf(volumeOf(req), id), O_PATH, fd)) {
        fuse_reply_err(req, error);
        return;
    }
    char target[PATH_MAX + 1];
    const ssize_t length = readlinkat(fd.get(), "", target, PATH_MAX);
    if (length < 0) {
        fuse_reply_err(req, errno);
        return;
    }
    target[length] = '\0';
    fuse_reply_readlink(req, target);
}

// Makes a named object with make(folder's descriptor) and gives it to the caller.
template <typename Make>
int makeNamed(fuse_req_t req, const Inode& parent, const char* name, Make make) {
    const Caller caller = {fuse_req_ctx(req)->uid, fuse_req_ctx(req)->gid};
    const int folder = parent.fd.get();
    umask(fuse_req_ctx(req)->umask);
    if (make(folder) < 0) {
        return errno;
    }
    const int error = giveToCaller(volumeOf(req), caller, folder, folder, name);
    if (error != 0 && unlinkat(folder, name, 0) != 0 && errno == EISDIR) {
        unlinkat(folder, name, AT_REMOVEDIR);
    }
    return error;
}

template <typename Make>
void makeAndReply(fuse_req_t req, fuse_ino_t parent_id, const char* name, Make make) {
    Volume& volume = volumeOf(req);
    Inode& parent = inodeOf(volume, parent_id);
    if (const int error = makeNamed(req, parent, name, make)) {
        fuse_reply_err(req, error);
    } else {
        replyEntry(req, volume, parent, name);
    }
}

void makeNode(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode, dev_t device) {
    makeAndReply(req, parent, name,
                 [=](int folder) { return mknodat(folder, name, mode, device); });
}

void makeFolder(fuse_req_t req, fuse_ino_t parent, const char* name, mode_t mode) {
    makeAndReply(req, parent, name, [=](int folder) { return mkdirat(folder, name, mode); });
}

void makeSymlink(fuse_req_t req, const char* target, fuse_ino_t parent, const char* name) {
    makeAndReply(req, parent, name, [=](int folder) { return symlinkat(target, folder, name); });
}

void unlinkFile(fuse_req_t req, fuse_ino_t parent, const char* name) {
    Volume& volume = volumeOf(req);
    fuse_reply_err(req, removeName(volume, inodeOf(volume, parent), name));
}

void removeFolder(fuse_req_t req, fuse_ino_t parent, const char* name) {
    const Inode& folder = inodeOf(volumeOf(req), parent);
    fuse_reply_err(req, errorOf(unlinkat(folder.fd.get(), name, AT_REMOVEDIR)));
}

void renameEntry(fuse_req_t req, fuse_ino_t parent, const char* name, fuse_ino_t new_parent,
                 const char* new_name, unsigned int flags) {
    Volume& volume = volumeOf(req);
    fuse_reply_err(req, changeName(volume, inodeOf(volume, parent), name,
                                   inodeOf(volume, new_parent), new_name, flags));
}

void linkFile(fuse_req_t req, fuse_ino_t id, fuse_ino_t new_parent_id, const char* new_name) {
    Volume& volume = volumeOf(req);
    Inode& new_parent = inodeOf(volume, new_parent_id);
    if (const int error = addName(inodeOf(volume, id), new_parent, new_name)) {
        fuse_reply_err(req, error);
    } else {
        replyEntry(req, volume, new_parent, new_name);
    }
}

// Every read and write of a regular file comes to the emulator at once: nothing waits in the page
// cache between a mark and its check.
void handOver(fuse_file_info& info, UniqueFd& fd) {
    info.fh = static_cast<uint64_t>(fd.get());
    info.direct_io = 1;
}

void openFile(fuse_req_t req, fuse_ino_t id, fuse_file_info* info) {
    UniqueFd fd;
    if (const int error = openInode(inodeOf(volumeOf(req), id), backingFlags(info->flags), fd)) {
        fuse_reply_err(req, error);
        return;
    }
    handOver(*info, fd);
    if (fuse_reply_open(req, info) == 0) {
        fd.release();
    }
}

int createNamed(fuse_req_t req, Inode& parent, const char* name, mode_t mode, int flags,
                UniqueFd& fd) {
    const int error = makeNamed(req, parent, name, [&](int folder) {
        fd.reset(openat(folder, name, backingFlags(flags) | O_CREAT | O_EXCL | O_CLOEXEC, mode));
        return fd.get();
    });
    // The kernel believes that there is no such file. Told that it is mistaken it looks the file
    // up and opens it with all the checks that an existing file asks for.
    return error == EEXIST && (flags & O_EXCL) == 0 ? ESTALE : error;
}

void createFile(fuse_req_t req, fuse_ino_t parent_id, const char* name, mode_t mode,
                fuse_file_info* info) {
    Volume& volume = volumeOf(req);
    Inode& parent = inodeOf(volume, parent_id);
    UniqueFd fd;
    struct stat attributes;
    int error = createNamed(req, parent, name, mode, info->flags, fd);
    Inode* const inode = error == 0 ? lookUp(volume, parent, name, attributes, error) : nullptr;
    if (inode == nullptr) {
        fuse_reply_err(req, error);
        return;
    }
    inode->state = FileState();
    handOver(*info, fd);
    const fuse_entry_param entry = entryOf(volume, *inode, attributes);
    if (fuse_reply_create(req, &entry, info) == 0) {
        fd.release();
    } else {
        forget(volume, *inode, 1);
    }
}

void readFile(fuse_req_t req, fuse_ino_t /*id*/, size_t size, off_t offset, fuse_file_info* info) {
    std::vector<char>& buffer = volumeOf(req).buffer;
    buffer.resize(std::max(buffer.size(), size));
    const ssize_t got = pread(fdOf(info), buffer.data(), size, offset);
    if (got < 0) {
        fuse_reply_err(req, errno);
    } else {
        fuse_reply_buf(req, buffer.data(), static_cast<size_t>(got));
    }
}

void writeFile(fuse_req_t req, fuse_ino_t id, const char* data, size_t size, off_t offset,
               fuse_file_info* info) {
    Volume& volume = volumeOf(req);
    int error = clearMark(inodeOf(volume, id), fdOf(info));
    if (error == 0 && volume.drop_setid_bits) {
        error = dropSetidBits(fdOf(info));
    }
    if (error != 0) {
        fuse_reply_err(req, error);
        return;
    }
    const iovec source = {const_cast<char*>(data), size};
    const int append = (info->flags & O_APPEND) != 0 ? RWF_APPEND : 0;
    replyWritten(req, pwritev2(fdOf(info), &source, 1, offset, append));
}

void releaseFile(fuse_req_t req, fuse_ino_t /*id*/, fuse_file_info* info) {
    close(fdOf(info));
    fuse_reply_err(req, 0);
}

void syncFile(fuse_req_t req, fuse_ino_t /*id*/, int data_only, fuse_file_info* info) {
    const int fd = fdOf(info);
    fuse_reply_err(req, errorOf(data_only != 0 ? fdatasync(fd) : fsync(fd)));
}

void openFolder(fuse_req_t req, fuse_ino_t id, fuse_file_info* info) {
    Volume& volume = volumeOf(req);
    UniqueFd fd;
    if (const int error = openInode(inodeOf(volume, id), O_RDONLY | O_DIRECTORY, fd)) {
        fuse_reply_err(req, error);
        return;
    }
    OpenFolder folder = {{fdopendir(fd.get()), closedir}, {}};
    if (!folder.stream) {
        fuse_reply_err(req, errno);
        return;
    }
    const int handle = fd.release();
    info->fh = static_cast<uint64_t>(handle);
    volume.folders.insert_or_assign(handle, std::move(folder));
    if (fuse_reply_open(req, info) != 0) {
        volume.folders.erase(handle);
    }
}

// For file systems that do not tell types in their listings.
unsigned char typeOf(int folder, const char* name) {
    struct stat attributes;
    if (fstatat(folder, name, &attributes, AT_SYMLINK_NOFOLLOW) != 0) {
        return DT_UNKNOWN;
    }
    return static_cast<unsigned char>(IFTODT(attributes.st_mode));
}

int listFolder(OpenFolder& folder) {
    DIR* const stream = folder.stream.get();
    folder.entries.clear();
    rewinddir(stream);
    for (;;) {
        errno = 0;
        const dirent* const entry = readdir(stream);
        if (entry == nullptr) {
            return errno;
        }
        const unsigned char type =
            entry->d_type != DT_UNKNOWN ? entry->d_type : typeOf(dirfd(stream), entry->d_name);
        folder.entries.push_back({entry->d_ino, type, entry->d_name});
    }
}

void readFolder(fuse_req_t req, fuse_ino_t /*id*/, size_t size, off_t offset,
                fuse_file_info* info) {
    Volume& volume = volumeOf(req);
    OpenFolder& folder = volume.folders.at(fdOf(info));
    if (offset == 0) {
        if (const int error = listFolder(folder)) {
            fuse_reply_err(req, error);
            return;
        }
    }
    std::vector<char>& buffer = volume.buffer;
    buffer.resize(std::max(buffer.size(), size));
    size_t used = 0;
    for (auto next = static_cast<size_t>(offset); next < folder.entries.size(); ++next) {
        const FolderEntry& entry = folder.entries[next];
        struct stat attributes = {};
        attributes.st_ino = entry.number;
        attributes.st_mode = static_cast<mode_t>(DTTOIF(entry.type));
        const size_t length =
            fuse_add_direntry(req, buffer.data() + used, size - used, entry.name.c_str(),
                              &attributes, static_cast<off_t>(next + 1));
        if (length > size - used) {
            break;
        }
        used += length;
    }
    fuse_reply_buf(req, buffer.data(), used);
}

void releaseFolder(fuse_req_t req, fuse_ino_t /*id*/, fuse_file_info* info) {
    volumeOf(req).folders.erase(fdOf(info));
    fuse_reply_err(req, 0);
}

void syncFolder(fuse_req_t req, fuse_ino_t /*id*/, int /*data_only*/, fuse_file_info* info) {
    fuse_reply_err(req, errorOf(fsync(fdOf(info))));
}

void statFileSystem(fuse_req_t req, fuse_ino_t /*id*/) {
    struct statvfs figures;
    if (fstatvfs(volumeOf(req).root->fd.get(), &figures) != 0) {
        fuse_reply_err(req, errno);
    } else {
        fuse_reply_statfs(req, &figures);
    }
}

bool isHidden(const char* attribute) {
    return strcmp(attribute, kStateAttribute) == 0;
}

void setAttribute(fuse_req_t req, fuse_ino_t id, const char* name, const char* value, size_t size,
                  int flags) {
    if (isHidden(name)) {
        fuse_reply_err(req, EPERM);
        return;
    }
    replyCall(req, id, [=](const char* path) { return setxattr(path, name, value, size, flags); });
}

void removeAttribute(fuse_req_t req, fuse_ino_t id, const char* name) {
    if (isHidden(name)) {
        fuse_reply_err(req, ENODATA);
        return;
    }
    replyCall(req, id, [=](const char* path) { return removexattr(path, name); });
}

// Answers with a value, or with its size when the caller asks with no room.
void replyValue(fuse_req_t req, const char* value, size_t length, size_t room) {
    if (room == 0) {
        fuse_reply_xattr(req, length);
    } else if (length > room) {
        fuse_reply_err(req, ERANGE);
    } else {
        fuse_reply_buf(req, value, length);
    }
}

void getAttribute(fuse_req_t req, fuse_ino_t id, const char* name, size_t room) {
    const Volume& volume = volumeOf(req);
    UniqueFd fd;
    if (isHidden(name)) {
        fuse_reply_err(req, ENODATA);
        return;
    }
    if (const int error = openInode(inodeOf(volume, id), O_PATH, fd)) {
        fuse_reply_err(req, error);
        return;
    }
    std::vector<char> value(XATTR_SIZE_MAX);
    const ssize_t length = getxattr(ProcPath(fd.get()).text, name, value.data(), value.size());
    if (length < 0) {
        fuse_reply_err(req, errno);
    } else {
        replyValue(req, value.data(), static_cast<size_t>(length), room);
    }
}

void listAttributes(fuse_req_t req, fuse_ino_t id, size_t room) {
    UniqueFd fd;
    if (const int error = openInode(inodeOf(volumeOf(req), id), O_PATH, fd)) {
        fuse_reply_err(req, error);
        return;
    }
    std::vector<char> names(XATTR_LIST_MAX);
    const ssize_t length = listxattr(ProcPath(fd.get()).text, names.data(), names.size());
    if (length < 0) {
        fuse_reply_err(req, errno);
        return;
    }
    size_t kept = 0;
    for (size_t i = 0; i < static_cast<size_t>(length);) {
        const size_t next = i + strlen(&names[i]) + 1;
        if (!isHidden(&names[i])) {
            memmove(&names[kept], &names[i], next - i);
            kept += next - i;
        }
        i = next;
    }
    replyValue(req, names.data(), kept, room);
}

void allocate(fuse_req_t req, fuse_ino_t id, int mode, off_t offset, off_t length,
              fuse_file_info* info) {
    int error = clearMark(inodeOf(volumeOf(req), id), fdOf(info));
    if (error == 0) {
        error = errorOf(fallocate(fdOf(info), mode, offset, length));
    }
    fuse_reply_err(req, error);
}

void copyRange(fuse_req_t req, fuse_ino_t /*from_id*/, off_t from, fuse_file_info* from_info,
               fuse_ino_t to_id, off_t to, fuse_file_info* to_info, size_t length, int flags) {
    if (const int error = clearMark(inodeOf(volumeOf(req), to_id), fdOf(to_info))) {
        fuse_reply_err(req, error);
        return;
    }
    replyWritten(req, copy_file_range(fdOf(from_info), &from, fdOf(to_info), &to,
                                      std::min(length, kMaxCopy), static_cast<unsigned>(flags)));
}

void seek(fuse_req_t req, fuse_ino_t /*id*/, off_t offset, int whence, fuse_file_info* info) {
    const off_t found = lseek(fdOf(info), offset, whence);
    if (found < 0) {
        fuse_reply_err(req, errno);
    } else {
        fuse_reply_lseek(req, found);
    }
}

void control(fuse_req_t req, fuse_ino_t id, unsigned int number, void* /*argument*/,
             fuse_file_info* info, unsigned int /*flags*/, const void* in, size_t in_size,
             size_t out_size) {
    Volume& volume = volumeOf(req);
    Inode& inode = inodeOf(volume, id);
    char out[16] = {};
    const Request request = {inode,   fdOf(info), fuse_req_ctx(req)->pid,         number, in,
                             in_size, out,        std::min(out_size, sizeof(out))};
    size_t answered = 0;
    bool size_changed = false;
    const int error = serveRequest(volume, request, answered, size_changed);
    if (size_changed) {
        // Before the reply, so that the caller never sees the old size. The negative offset spares
        // the page cache, and with it any wait for a page that only this thread can fill.
        fuse_lowlevel_notify_inval_inode(volume.session, id, -1, 0);
    }
    if (error != 0) {
        fuse_reply_err(req, error);
    } else {
        fuse_reply_ioctl(req, 0, out, answered);
    }
}

}  // namespace

// An inode number as node id or the other way round.
static fuse_ino_t exchangeRoot(const Volume& volume, fuse_ino_t id) {
    if (id == FUSE_ROOT_ID) {
        return volume.root->number;
    }
    return id == volume.root->number ? FUSE_ROOT_ID : id;
}

Inode& inodeOf(const Volume& volume, fuse_ino_t id) {
    return *volume.inodes.at(static_cast<ino_t>(exchangeRoot(volume, id)));
}

fuse_ino_t idOf(const Volume& volume, const Inode& inode) {
    return exchangeRoot(volume, inode.number);
}

int backingFlags(int flags) {
    return flags & (O_ACCMODE | O_SYNC | O_NOATIME);
}

int giveToCaller(const Volume& volume, const Caller& caller, int folder, int at, const char* name) {
    if (!volume.owns_as_caller || (caller.uid == geteuid() && caller.gid == getegid())) {
        return 0;
    }
    struct stat parent;
    struct stat made;
    if (fstat(folder, &parent) != 0 ||
        fstatat(at, name, &made, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
        return errno;
    }
    const gid_t gid = (parent.st_mode & S_ISGID) != 0 ? made.st_gid : caller.gid;
    if (fchownat(at, name, caller.uid, gid, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0) {
        return errno;
    }
    if (!S_ISREG(made.st_mode) || (made.st_mode & (S_ISUID | S_ISGID)) == 0) {
        return 0;
    }
    const mode_t mode = made.st_mode & 07777;  // the change of owner took bits away
    return errorOf(*name != '\0' ? fchmodat(at, name, mode, 0) : fchmod(at, mode));
}

fuse_lowlevel_ops operations() {
    fuse_lowlevel_ops table = {};
    table.init = initialize;
    table.lookup = lookup;
    table.forget = forgetOne;
    table.forget_multi = forgetMany;
    table.getattr = getAttributes;
    table.setattr = setAttributes;
    table.readlink = readLink;
    table.mknod = makeNode;
    table.mkdir = makeFolder;
    table.symlink = makeSymlink;
    table.unlink = unlinkFile;
    table.rmdir = removeFolder;
    table.rename = renameEntry;
    table.link = linkFile;
    table.open = openFile;
    table.create = createFile;
    table.read = readFile;
    table.write = writeFile;
    table.release = releaseFile;
    table.fsync = syncFile;
    table.opendir = openFolder;
    table.readdir = readFolder;
    table.releasedir = releaseFolder;
    table.fsyncdir = syncFolder;
    table.statfs = statFileSystem;
    table.setxattr = setAttribute;
    table.getxattr = getAttribute;
    table.listxattr = listAttributes;
    table.removexattr = removeAttribute;
    table.fallocate = allocate;
    table.copy_file_range = copyRange;
    table.lseek = seek;
    table.ioctl = control;
    return table;
}

}  // namespace emulator
