#include "file_state.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>

#include "f2fs_ioctl.h"
#include "unique_fd.h"

namespace emulator {
namespace {

constexpr uint32_t kRecordVersion = 1;

struct StateRecord {
    uint32_t version;
    uint32_t flag;
    uint16_t is_deduped;
    uint16_t is_layered;
};
static_assert(sizeof(StateRecord) == 12);

// user attributes obey the file's mode. The driver does not, and the library marks files it made
// with mode 0440; so the owner's access is widened for the moment of the call.
template <typename Call>
int withOwnerAccess(const char* path, Call call) {
    int error = call();
    if (error != EACCES) {
        return error;
    }
    struct stat attributes;
    if (stat(path, &attributes) != 0) {
        return errno;
    }
    const mode_t mode = attributes.st_mode & 07777;
    if (chmod(path, mode | S_IRUSR | S_IWUSR) != 0) {
        return EACCES;  // not the owner; the first answer stands
    }
    error = call();
    if (chmod(path, mode) != 0 && error == 0) {
        error = errno;
    }
    return error;
}

}  // namespace

int loadState(Inode& inode, int fd) {
    if (inode.state) {
        return 0;
    }
    const ProcPath path(fd);
    StateRecord record = {};
    ssize_t size = 0;
    const int error = withOwnerAccess(path.text, [&] {
        size = getxattr(path.text, kStateAttribute, &record, sizeof(record));
        return size >= 0 ? 0 : errno;
    });
    if (error != 0 && error != ENODATA && error != ERANGE) {
        return error;
    }
    FileState state;
    // A record of another make counts as none: the file is then taken as modified, which is safe.
    if (error == 0 && size == sizeof(record) && record.version == kRecordVersion) {
        state = {record.flag, record.is_deduped != 0, record.is_layered != 0};
    }
    inode.state = state;
    return 0;
}

int storeState(Inode& inode, int fd, const FileState& state) {
    const ProcPath path(fd);
    const StateRecord record = {kRecordVersion, state.flag, state.is_deduped, state.is_layered};
    const int error = withOwnerAccess(path.text, [&] {
        return setxattr(path.text, kStateAttribute, &record, sizeof(record), 0) == 0 ? 0 : errno;
    });
    if (error == 0) {
        inode.state = state;
    }
    return error;
}

int clearMark(Inode& inode, int fd) {
    if (const int error = loadState(inode, fd)) {
        return error;
    }
    if ((inode.state->flag & MODIFY_CHECK_UNCHANGED) == 0) {
        return 0;
    }
    FileState state = *inode.state;
    state.flag &= ~MODIFY_CHECK_UNCHANGED;
    return storeState(inode, fd, state);
}

}  // namespace emulator
