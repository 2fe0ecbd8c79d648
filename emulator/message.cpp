#include "message.h"

#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "operations.h"

namespace emulator {
namespace {

// Reads a record at an offset of a message. False: the message ends before.
template <typename Record>
bool readRecord(const fuse_buf& message, size_t offset, Record& record) {
    if (message.size < offset + sizeof(record)) {
        return false;
    }
    memcpy(&record, static_cast<const char*>(message.mem) + offset, sizeof(record));
    return true;
}

fuse_attr attributesOf(const struct stat& from) {
    fuse_attr to = {};
    to.ino = from.st_ino;
    to.size = static_cast<uint64_t>(from.st_size);
    to.blocks = static_cast<uint64_t>(from.st_blocks);
    to.atime = static_cast<uint64_t>(from.st_atim.tv_sec);
    to.mtime = static_cast<uint64_t>(from.st_mtim.tv_sec);
    to.ctime = static_cast<uint64_t>(from.st_ctim.tv_sec);
    to.atimensec = static_cast<uint32_t>(from.st_atim.tv_nsec);
    to.mtimensec = static_cast<uint32_t>(from.st_mtim.tv_nsec);
    to.ctimensec = static_cast<uint32_t>(from.st_ctim.tv_nsec);
    to.mode = from.st_mode;
    to.nlink = static_cast<uint32_t>(from.st_nlink);
    to.uid = from.st_uid;
    to.gid = from.st_gid;
    to.blksize = static_cast<uint32_t>(from.st_blksize);
    return to;
}

// Makes an unnamed file that belongs to the caller. 0 or the error.
int makeUnnamed(const Volume& volume, const fuse_in_header& header, const fuse_create_in& wanted,
                UniqueFd& fd) {
    const int folder = inodeOf(volume, header.nodeid).fd.get();
    umask(wanted.umask);
    fd.reset(open(ProcPath(folder).text,
                  O_TMPFILE | O_CLOEXEC | backingFlags(static_cast<int>(wanted.flags)),
                  wanted.mode & 07777));
    if (!fd.valid()) {
        return errno;
    }
    return giveToCaller(volume, {header.uid, header.gid}, folder, fd.get(), "");
}

// What the kernel expects as answer: these records without padding.
struct Created {
    fuse_out_header header;
    fuse_entry_out entry;
    fuse_open_out opened;
};
static_assert(sizeof(Created) ==
              sizeof(fuse_out_header) + sizeof(fuse_entry_out) + sizeof(fuse_open_out));

bool reply(const Volume& volume, Created& answer, size_t size) {
    answer.header.len = static_cast<uint32_t>(size);
    return write(fuse_session_fd(volume.session), &answer, size) >= 0;
}

void createUnnamed(Volume& volume, const fuse_in_header& header, const fuse_create_in& wanted) {
    UniqueFd fd;
    struct stat attributes;
    Created answer = {};
    answer.header.unique = header.unique;
    int error = makeUnnamed(volume, header, wanted, fd);
    Inode* const inode = error == 0 ? adopt(volume, fd.get(), attributes, error) : nullptr;
    if (inode == nullptr) {
        answer.header.error = -error;
        reply(volume, answer, sizeof(answer.header));
        return;
    }
    answer.entry.nodeid = idOf(volume, *inode);
    answer.entry.attr_valid = static_cast<uint64_t>(kCacheSeconds);
    answer.entry.attr = attributesOf(attributes);
    answer.opened.fh = static_cast<uint64_t>(fd.get());
    answer.opened.open_flags = FOPEN_DIRECT_IO;
    if (reply(volume, answer, sizeof(answer))) {
        fd.release();
    } else {
        forget(volume, *inode, 1);
    }
}

}  // namespace

void serveMessage(Volume& volume, const fuse_buf& message) {
    fuse_in_header header;
    fuse_create_in create;
    fuse_write_in write;
    const bool known = readRecord(message, 0, header);
    if (known && header.opcode == FUSE_TMPFILE && readRecord(message, sizeof(header), create)) {
        createUnnamed(volume, header, create);
        return;
    }
    volume.drop_setid_bits = known && header.opcode == FUSE_WRITE &&
                             readRecord(message, sizeof(header), write) &&
                             (write.write_flags & FUSE_WRITE_KILL_SUIDGID) != 0;
    fuse_session_process_buf(volume.session, &message);
}

}  // namespace emulator
