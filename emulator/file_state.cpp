// SPDX-License-Identifier: Apache-2.0
#include "emulator/file_state.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>

#include "emulator/inode.h"
#include "snapshot/f2fs_ioctl.h"

namespace emulator {
namespace {

// A user attribute obeys the mode of its file, but a mark does not: the library marks the files
// that it made with mode 0440. So the owner gets access for the duration of the call.
template <typename Call>
int withOwnerAccess(const char* path, Call call) {
    struct stat attributes;
    if (call() >= 0) {
        return 0;
    }
    if (errno != EACCES || stat(path, &attributes) != 0) {
        return errno;
    }
    const mode_t mode = attributes.st_mode & 07777;
    if (chmod(path, mode | S_IRUSR | S_IWUSR) != 0) {
        return EACCES;  // not the owner: the first error stands
    }
    const int error = call() >= 0 ? 0 : errno;
    return chmod(path, mode) != 0 && error == 0 ? errno : error;
}

}  // namespace

int loadState(Inode& inode, int fd) {
    if (inode.state) {
        return 0;
    }
    const ProcPath path(fd);
    FileState state;
    ssize_t size = 0;
    const int error = withOwnerAccess(path.text, [&] {
        return size = getxattr(path.text, STATE_ATTRIBUTE, &state, sizeof(state));
    });
    if (error != 0 && error != ENODATA && error != ERANGE) {
        return error;
    }
    // A record of another size or version counts as none: the file then has no mark, which is safe.
    const bool is_own = error == 0 && size == sizeof(state) && state.version == FileState().version;
    inode.state = is_own ? state : FileState();
    return 0;
}

int storeState(Inode& inode, int fd, const FileState& state) {
    const ProcPath path(fd);
    inode.state.reset();  // unknown after a failure, which may come before or after the change
    const int error = withOwnerAccess(
        path.text, [&] { return setxattr(path.text, STATE_ATTRIBUTE, &state, sizeof(state), 0); });
    if (error == 0) {
        inode.state = state;
    }
    return error;
}

int clearMark(Inode& inode, int fd) {
    const int error = loadState(inode, fd);
    if (error != 0 || (inode.state->flag & MODIFY_CHECK_UNCHANGED) == 0) {
        return error;
    }
    FileState state = *inode.state;
    state.flag &= ~MODIFY_CHECK_UNCHANGED;
    return storeState(inode, fd, state);
}

}  // namespace emulator
