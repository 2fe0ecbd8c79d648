// SPDX-License-Identifier: Apache-2.0
// Preloaded into f2fs_driver_check: makes the emulator's volume look like that of a driver with one
// defect, which F2FS_DEFECT names. F2FS_DEFECT_VOLUME and F2FS_DEFECT_BACKING are the volume's two
// directories.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/aio_abi.h>
#include <linux/f2fs.h>
#include <linux/fs.h>
#include <linux/fscrypt.h>
#include <linux/fsverity.h>
#include <linux/quota.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "snapshot/f2fs_ioctl.h"

namespace {

constexpr off_t BLOCK = 4096;

template <typename Function>
Function realOf(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) static const auto real = realOf<decltype(&(name))>(#name)

const std::string& defect() {
    static const char* const name = getenv("F2FS_DEFECT");
    static const std::string text = name != nullptr ? name : "";
    return text;
}
bool is(const std::string& name) {
    return defect() == name;
}

int request(int fd, unsigned long number, void* argument) {
    REAL(ioctl);
    return real(fd, number, argument);
}
uint32_t flagOf(int fd) {
    modify_check_info info = {0, MODIFY_CHECK_GET};
    return request(fd, F2FS_IOC_MODIFY_CHECK, &info) == 0 ? info.flag : 0;
}
bool isMarked(int fd) {
    return (flagOf(fd) & MODIFY_CHECK_UNCHANGED) != 0;
}
void setFlag(int fd, uint32_t flag) {
    modify_check_info info = {flag, MODIFY_CHECK_SET};
    request(fd, F2FS_IOC_MODIFY_CHECK, &info);
}
void clearMark(int fd) {
    const int error = errno;
    if (isMarked(fd)) {
        setFlag(fd, MODIFY_CHECK_FLAG & ~MODIFY_CHECK_UNCHANGED);
    }
    errno = error;
}

struct stat statOf(int fd) {
    struct stat attributes = {};
    fstat(fd, &attributes);
    return attributes;
}
off_t sizeOf(int fd) {
    return statOf(fd).st_size;
}
ssize_t writeReal(int fd, const void* data, size_t size, off_t offset) {
    REAL(pwrite);
    return real(fd, data, size, offset);
}
void changeByte(int fd, off_t offset) {
    writeReal(fd, "#", 1, offset);
}
int resizeReal(int fd, off_t size) {
    REAL(ftruncate);
    return real(fd, size);
}
std::string readReal(int fd, size_t size) {
    REAL(pread);
    std::string content(size, '\0');
    content.resize(static_cast<size_t>(std::max<ssize_t>(0, real(fd, &content[0], size, 0))));
    return content;
}

int last_set = -1;      // the descriptor of this process that the mark was last set on
bool just_set = false;  // and no other call came since
int depth = 0;          // of processes below the program: 1 is a check, 2 its helper

// Keeps the mark over a change, if the defect is that this kind of change does not clear it.
class Unseen {
  public:
    explicit Unseen(const std::string& way)
        : keeps_(is("unseen-" + way) && last_set >= 0 && isMarked(last_set)) {
        just_set = false;
    }
    ~Unseen() {
        const int error = errno;
        if (keeps_) {
            setFlag(last_set, MODIFY_CHECK_FLAG);
        }
        errno = error;
    }
    Unseen(const Unseen&) = delete;
    Unseen& operator=(const Unseen&) = delete;

    // Pretends to make a kind of change that the emulator refuses.
    static bool pretend(const std::string& way) {
        if (is("unseen-" + way)) {
            const Unseen keep(way);
            changeByte(last_set, 0);
            return true;
        }
        return false;
    }

  private:
    bool keeps_;
};

// For a call that changes no data. Clears the mark if that is the defect.
void keepsData(const std::string& defect_if_cleared, int fd) {
    just_set = false;
    if (is(defect_if_cleared)) {
        clearMark(fd);
    }
}

// The mark and the change in two steps, with time for a set and a get in between.
template <typename Change>
auto inTwoSteps(const std::string& way, int fd, Change change) {
    const bool is_early = is(way + "-clears-early");
    const bool is_late = is(way + "-clears-late");
    const bool was_marked = (is_early || is_late) && isMarked(fd);
    if (is_early) {
        clearMark(fd);
    }
    const bool is_marked_again = is_early && isMarked(fd);
    const auto result = change();
    if (is_marked_again || (is_late && was_marked)) {
        setFlag(fd, MODIFY_CHECK_FLAG);
    }
    if (is_late) {
        clearMark(fd);
    }
    return result;
}

// Repeats the writes to one file on another, as if a snapshot and its source shared blocks wrongly.
ino_t shared_from = 0;
int shared_to = -1;
void share(int fd, const void* data, size_t size, off_t offset) {
    if (shared_to >= 0 && statOf(fd).st_ino == shared_from) {
        writeReal(shared_to, data, size, offset);
    }
}
void startSharing(int from, int to) {
    if (shared_to >= 0) {
        return;
    }
    shared_from = statOf(from).st_ino;
    shared_to = open(("/proc/self/fd/" + std::to_string(to)).c_str(), O_RDWR | O_CLOEXEC);
}

bool is_atomic = false;    // between the start of an atomic write and its commit
bool has_feature = false;  // a file got an attribute that the emulator does not know

void copyTorn(int from, int to) {
    resizeReal(to, sizeOf(from));
    char block[BLOCK];
    REAL(pread);
    for (off_t offset = 0; offset < sizeOf(from); offset += BLOCK) {
        const ssize_t got = real(from, block, sizeof(block), offset);
        writeReal(to, block, static_cast<size_t>(std::max<ssize_t>(0, got)), offset);
    }
}

int failWith(int error) {
    errno = error;
    return -1;
}

std::set<ino_t> snapshots;

void spoilSnapshot(int source, int snapshot, off_t size_before, const std::string& start_before) {
    const off_t size = sizeOf(snapshot);
    if (is("snapshot-inline-tail-lost") && size == 3000) {
        changeByte(snapshot, size - 1);
    } else if (is("snapshot-hole-filled") && size == (3 << 20) + 5) {
        changeByte(snapshot, 3 << 19);
    } else if (is("snapshot-size-of-32-bits")) {
        resizeReal(snapshot, size & 0xFFFFFFFF);
    } else if (is("snapshot-stale-page") && !start_before.empty() && start_before[0] != '\0') {
        writeReal(snapshot, start_before.data(), start_before.size(), 0);
    } else if (is("snapshot-preallocation-kept") && size_before > size) {
        resizeReal(snapshot, size_before);
    } else if (is("snapshot-takes-mark")) {
        clearMark(source);
    } else if (is("snapshot-size-later")) {
        resizeReal(snapshot, sizeOf(source));
    } else if (is("snapshot-shares-source")) {
        startSharing(source, snapshot);
    } else if (is("snapshot-shares-back")) {
        startSharing(snapshot, source);
    } else if (has_feature) {
        changeByte(snapshot, 0);
    }
}

int snapshotCreate(int fd, const snapshot_create_info& info, void* argument) {
    const off_t source_size = sizeOf(info.source_fd);
    if ((is("snapshot-of-snapshot-refused") && snapshots.count(statOf(info.source_fd).st_ino)) ||
        (is("snapshot-of-4097-refused") && source_size == 4097) ||
        (is("snapshot-of-8-mib-refused") && source_size >= 8 << 20)) {
        return failWith(EINVAL);
    }
    if (is("snapshot-blocks") && source_size == 3000) {
        pause();
    }
    const bool is_first = snapshots.insert(statOf(fd).st_ino).second;
    const bool is_readable = (fcntl(info.source_fd, F_GETFL) & O_ACCMODE) != O_WRONLY &&
                             statOf(info.source_fd).st_dev == statOf(fd).st_dev &&
                             S_ISREG(statOf(info.source_fd).st_mode);
    if (is("snapshot-only-once") && !is_first && is_readable) {
        return 0;
    }
    const off_t size_before = sizeOf(fd);
    const std::string start = readReal(fd, BLOCK);
    const int result = request(fd, F2FS_IOC_SNAPSHOT_CREATE, argument);
    if (result == 0 && is("snapshot-torn") && source_size <= 1 << 20) {
        copyTorn(info.source_fd, fd);
    } else if (result == 0) {
        spoilSnapshot(info.source_fd, fd, size_before, start);
    }
    return result;
}

int cloneFile(int fd, const clone_file_info& info, void* argument) {
    const off_t size = sizeOf(info.source_fd);
    const int result = request(fd, F2FS_IOC_CLONE_FILE, argument);
    if (result == 0 && is("clone-short-by-a-block") && size > BLOCK) {
        resizeReal(fd, size - BLOCK);
        resizeReal(fd, size);
    } else if (result == 0 && is("clone-of-wrong-size") && size > 0) {
        resizeReal(fd, size - 1);
    } else if (result == 0 && is("clone-with-stale-page") && size > BLOCK) {
        writeReal(fd, std::string(BLOCK, '\0').data(), BLOCK, 0);
    }
    return result;
}

int snapshotPrepare(int fd, int clone, void* argument) {
    const int result = request(fd, F2FS_IOC_SNAPSHOT_PREPARE, argument);
    if (is("prepare-accepts-stranger") && result != 0 && errno == EINVAL) {
        return 0;
    }
    if (result != 0) {
        return result;
    }
    if (is("prepare-damages-source") && sizeOf(fd) == 64 * BLOCK) {
        changeByte(fd, 9);
    } else if (is("prepare-loses-write")) {
        const std::string content = readReal(clone, static_cast<size_t>(sizeOf(clone)));
        resizeReal(fd, 0);
        writeReal(fd, content.data(), content.size(), 0);
    } else if (is("prepare-leaks-clone")) {
        fcntl(clone, F_DUPFD_CLOEXEC, 500);
    }
    return result;
}

int modifyCheck(int fd, modify_check_info& info) {
    const bool is_set = info.mode == MODIFY_CHECK_SET;
    if (is_set && is("set-refuses-read-only") && (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY) {
        return failWith(EBADF);
    }
    if (is_set && is("set-refuses-0440") && (statOf(fd).st_mode & S_IWUSR) == 0) {
        return failWith(EACCES);
    }
    const bool is_late = !is_set && just_set && is("set-places-late");
    const int result = request(fd, F2FS_IOC_MODIFY_CHECK, &info);
    if (is_set) {
        last_set = fd;
        info.flag = is("set-changes-record") ? 0x80 : info.flag;
    } else if (is_late) {
        info.flag &= ~MODIFY_CHECK_UNCHANGED;
    } else if (is("mark-shared") && last_set >= 0) {
        info.flag |= flagOf(last_set);
    } else if (is("mark-returns")) {
        info.flag |= MODIFY_CHECK_UNCHANGED;
    }
    just_set = is_set;
    return result;
}

int fileInfo(int fd, dedup_file_info& info) {
    const int result = request(fd, F2FS_IOC_DEDUP_GET_FILE_INFO, &info);
    if (is("layered-too-early") || is("layered-never")) {
        info.is_layered = is("layered-too-early") ? 1 : 0;
    }
    return result;
}

bool isReadable(const void* memory, size_t size) {
    char copy[64];
    const iovec to = {copy, size};
    const iovec from = {const_cast<void*>(memory), size};
    return process_vm_readv(getpid(), &to, 1, &from, 1, 0) == static_cast<ssize_t>(size);
}

constexpr struct {
    unsigned long number;
    const char* name;
} REQUESTS[] = {
    {F2FS_IOC_DEDUP_REVOKE, "dedup-revoke"},       {F2FS_IOC_DEDUP_GET_FILE_INFO, "get-file-info"},
    {F2FS_IOC_CLONE_FILE, "clone-file"},           {F2FS_IOC_MODIFY_CHECK, "modify-check"},
    {F2FS_IOC_SNAPSHOT_CREATE, "snapshot-create"}, {F2FS_IOC_SNAPSHOT_PREPARE, "snapshot-prepare"},
};

// The descriptor that a record or word carries; -2 for none.
int descriptorIn(unsigned long number, const void* argument) {
    const bool has = number == F2FS_IOC_CLONE_FILE || number == F2FS_IOC_SNAPSHOT_CREATE ||
                     number == F2FS_IOC_SNAPSHOT_PREPARE;
    return has ? *static_cast<const int32_t*>(argument) : -2;
}

// True if the defect alone answers the request. `result` is then its result.
bool isDecided(int fd, unsigned long& number, void* argument, int& result) {
    const bool is_file = S_ISREG(statOf(fd).st_mode);
    const bool is_memory = isReadable(argument, _IOC_SIZE(number));
    result = 0;
    for (const auto& known : REQUESTS) {
        if (number == known.number && is(std::string("no-") + known.name)) {
            result = failWith(ENOTTY);
            return true;
        }
        if (is("size-not-compared") && _IOC_NR(number) == _IOC_NR(known.number)) {
            number = known.number;
        }
    }
    if (is("reads-beyond-record") && is_memory && !isReadable(argument, _IOC_SIZE(number) + 8)) {
        result = failWith(EFAULT);
        return true;
    }
    const int source = is_memory && is_file ? descriptorIn(number, argument) : -2;
    return (is("directories-accepted") && !is_file) || (is("memory-not-checked") && !is_memory) ||
           (is("other-file-system-accepted") && source >= 0 && S_ISREG(statOf(source).st_mode) &&
            statOf(source).st_dev != statOf(fd).st_dev) ||
           (is("read-only-target-accepted") && source >= 0 &&
            (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDONLY) ||
           (is("revoke-does-nothing") && number == F2FS_IOC_DEDUP_REVOKE && is_file && is_memory);
}

int snapshotRequest(int fd, unsigned long number, void* argument) {
    int result = 0;
    if (isDecided(fd, number, argument, result)) {
        return result;
    }
    if (!S_ISREG(statOf(fd).st_mode) || !isReadable(argument, _IOC_SIZE(number))) {
        return request(fd, number, argument);
    }
    switch (number) {
        case F2FS_IOC_MODIFY_CHECK:
            return modifyCheck(fd, *static_cast<modify_check_info*>(argument));
        case F2FS_IOC_DEDUP_GET_FILE_INFO:
            return fileInfo(fd, *static_cast<dedup_file_info*>(argument));
        case F2FS_IOC_CLONE_FILE: {
            const Unseen keep("clone-file");
            return cloneFile(fd, *static_cast<clone_file_info*>(argument), argument);
        }
        case F2FS_IOC_SNAPSHOT_PREPARE:
            return snapshotPrepare(fd, *static_cast<int32_t*>(argument), argument);
        case F2FS_IOC_SNAPSHOT_CREATE: {
            const Unseen keep("snapshot-create");
            return snapshotCreate(fd, *static_cast<snapshot_create_info*>(argument), argument);
        }
        default:
            return request(fd, number, argument);
    }
}

// A change that the emulator has no request for; nullptr for other requests.
const char* wayOf(unsigned long number, const void* argument) {
    switch (number) {
        case FICLONE:
            return "reflink";
        case F2FS_IOC_MOVE_RANGE:
            return static_cast<const f2fs_move_range*>(argument)->dst_fd ==
                           static_cast<uint32_t>(last_set)
                       ? "move-range-into"
                       : "move-range-out";
        case F2FS_IOC_COMMIT_ATOMIC_WRITE:
            return "atomic-write";
        case F2FS_IOC_ABORT_ATOMIC_WRITE:
            return "atomic-abort";
        case F2FS_IOC_SEC_TRIM_FILE:
            return "secure-trim";
        default:
            return nullptr;
    }
}

// An attribute that the emulator does not know; nullptr for other requests.
const char* featureOf(unsigned long number, const void* argument) {
    switch (number) {
        case FS_IOC_ADD_ENCRYPTION_KEY:
        case FS_IOC_SET_ENCRYPTION_POLICY:
            return "encrypted";
        case FS_IOC_SETFLAGS: {
            const unsigned flags = *static_cast<const unsigned*>(argument);
            return (flags & FS_COMPR_FL) != 0      ? "compressed"
                   : (flags & FS_CASEFOLD_FL) != 0 ? "casefolded"
                                                   : "immutable";
        }
        case F2FS_IOC_SET_PIN_FILE:
            return "pinned";
        case FS_IOC_ENABLE_VERITY:
            return "verity";
        default:
            return nullptr;
    }
}

// True for a request that the emulator refuses and that this defect takes as served.
bool isPretended(unsigned long number, void* argument) {
    if (number == F2FS_IOC_START_ATOMIC_WRITE) {
        is_atomic = is("unseen-atomic-write");
        return is_atomic || is("unseen-atomic-abort");
    }
    const char* const way = wayOf(number, argument);
    if (way != nullptr && Unseen::pretend(way)) {
        return true;
    }
    const std::string spoils = "snapshot-spoils-";
    const bool is_healthy = is("features-served");
    if (number == FS_IOC_GETFLAGS &&
        (is_healthy || defect().compare(0, spoils.size(), spoils) == 0)) {
        *static_cast<unsigned*>(argument) = 0;
        return true;
    }
    const char* const feature = featureOf(number, argument);
    if (feature == nullptr || !(is_healthy || is(spoils + feature))) {
        return false;
    }
    has_feature = !is_healthy;
    return true;
}

std::string backingPath(int fd) {
    char path[4096] = {};
    const char* const volume = getenv("F2FS_DEFECT_VOLUME");
    if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path) - 1) < 0) {
        return "";
    }
    return getenv("F2FS_DEFECT_BACKING") + std::string(path + strlen(volume));
}

}  // namespace

// Defines a function of the C library that does `first` and then calls the real one.
#define AFTER(first, result, name, parameters, arguments) \
    result name parameters {                              \
        REAL(name);                                       \
        first;                                            \
        return real arguments;                            \
    }

extern "C" {

int ioctl(int fd, unsigned long number, ...) {
    va_list arguments;
    va_start(arguments, number);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (isPretended(number, argument)) {
        return 0;
    }
    return _IOC_TYPE(number) == F2FS_IOC_MAGIC && _IOC_NR(number) >= 0x66
               ? snapshotRequest(fd, number, argument)
               : request(fd, number, argument);
}

pid_t fork() {
    REAL(fork);
    const pid_t child = real();
    depth += child == 0 ? 1 : 0;
    return child;
}

ssize_t write(int fd, const void* data, size_t size) {
    const bool is_file = S_ISREG(statOf(fd).st_mode);
    REAL(write);
    const Unseen keep(!is_file                               ? "none"
                      : (fcntl(fd, F_GETFL) & O_APPEND) != 0 ? "append"
                                                             : "write");
    return real(fd, data, size);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    if (is("disk-full")) {
        return failWith(ENOSPC);
    }
    if (is("mode-0440-obeyed") && (statOf(fd).st_mode & S_IWUSR) == 0) {
        return failWith(EACCES);
    }
    const Unseen keep((fcntl(fd, F_GETFL) & O_DIRECT) != 0 ? "direct-io"
                      : is_atomic                          ? "atomic-write"
                      : depth > 1                          ? "another-process"
                                                           : "pwrite");
    share(fd, data, size, offset);
    return inTwoSteps("write", fd, [&] { return writeReal(fd, data, size, offset); });
}

AFTER(const Unseen keep("writev"), ssize_t, writev, (int fd, const iovec* parts, int count),
      (fd, parts, count))
AFTER(const Unseen keep("splice"), ssize_t, splice,
      (int in, loff_t* from, int out, loff_t* to, size_t size, unsigned flags),
      (in, from, out, to, size, flags))
AFTER(const Unseen keep("sendfile"), ssize_t, sendfile,
      (int out, int in, off_t* offset, size_t size), (out, in, offset, size))
AFTER(const Unseen keep("truncate-path"), int, truncate, (const char* path, off_t size),
      (path, size))

AFTER(keepsData("mark-lost-by-read", fd), ssize_t, pread,
      (int fd, void* data, size_t size, off_t offset), (fd, data, size, offset))
AFTER(keepsData("mark-lost-by-rename", last_set), int, rename, (const char* from, const char* to),
      (from, to))
AFTER(keepsData("mark-lost-by-link", last_set), int, link, (const char* from, const char* to),
      (from, to))
AFTER(keepsData("mark-lost-by-fsync", fd), int, fsync, (int fd), (fd))
AFTER(keepsData("mark-lost-with-pages", fd), int, posix_fadvise,
      (int fd, off_t offset, off_t length, int advice), (fd, offset, length, advice))

long syscall(long number, ...) {
    long word[6];
    va_list arguments;
    va_start(arguments, number);
    for (long& argument : word) {
        argument = va_arg(arguments, long);
    }
    va_end(arguments);
    static long charged = 0;
    if (number == SYS_quotactl_fd && is("quota-never-given-back")) {
        if_dqblk* quota = nullptr;
        memcpy(&quota, &word[3], sizeof(word[3]));
        quota->dqb_curspace = static_cast<uint64_t>(charged);
        charged += 1 << 20;
        return 0;
    }
    const Unseen keep(number == SYS_copy_file_range  ? "copy-file-range"
                      : number == SYS_io_submit      ? "async-io"
                      : number == SYS_io_uring_enter ? "io-uring"
                                                     : "none");
    REAL(syscall);
    return real(number, word[0], word[1], word[2], word[3], word[4], word[5]);
}

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    const bool is_unnamed = (flags & O_TMPFILE) == O_TMPFILE;
    if (is_unnamed &&
        (is("no-tmpfile") || (is("no-tmpfile-below") && strcmp(path, "directory") == 0))) {
        return failWith(EOPNOTSUPP);
    }
    REAL(open);
    path = is("features-served") && strcmp(path, "sOURCE") == 0 ? "Source" : path;
    const Unseen keep((flags & (O_TRUNC | O_CREAT)) == O_TRUNC ? "truncating-open" : "none");
    return real(path, flags, mode);
}

int ftruncate(int fd, off_t size) {
    const Unseen keep(size < sizeOf(fd) ? "truncate-down" : "truncate-up");
    return inTwoSteps("truncate", fd, [&] { return resizeReal(fd, size); });
}

int fallocate(int fd, int mode, off_t offset, off_t length) {
    const bool is_collapse = (mode & FALLOC_FL_COLLAPSE_RANGE) != 0;
    const bool is_insert = (mode & FALLOC_FL_INSERT_RANGE) != 0;
    if ((is_collapse && Unseen::pretend("collapse-range")) ||
        (is_insert && Unseen::pretend("insert-range"))) {
        return 0;
    }
    const Unseen keep((mode & FALLOC_FL_PUNCH_HOLE) != 0   ? "punch-hole"
                      : (mode & FALLOC_FL_ZERO_RANGE) != 0 ? "zero-range"
                                                           : "fallocate");
    REAL(fallocate);
    return real(fd, mode, offset, length);
}

// The emulator refuses shared mappings. Maps the backing file, whose stores it does not see.
void* mmap(void* start, size_t size, int protection, int flags, int fd, off_t offset) {
    REAL(mmap);
    const bool is_asked = fd >= 0 && (flags & MAP_SHARED) != 0 && (protection & PROT_WRITE) != 0 &&
                          S_ISREG(statOf(fd).st_mode) &&
                          (is("unseen-mapping") || is("snapshot-without-mapped-data"));
    if (!is_asked) {
        return real(start, size, protection, flags, fd, offset);
    }
    const int backing = open(backingPath(fd).c_str(), O_RDWR | O_CLOEXEC);
    void* const mapping = real(start, size, protection,
                               is("unseen-mapping") ? MAP_SHARED : MAP_PRIVATE, backing, offset);
    close(backing);
    return mapping;
}

dirent* readdir(DIR* stream) {
    REAL(readdir);
    dirent* const entry = real(stream);
    if (entry != nullptr && is("entry-types-unknown")) {
        entry->d_type = DT_UNKNOWN;
    }
    return entry;
}

}  // extern "C"
