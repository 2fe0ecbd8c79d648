// SPDX-License-Identifier: Apache-2.0
// The emulator's requests without a mount. Each system call that changes a file fails in turn.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "emulator/requests.h"
#include "snapshot/f2fs_ioctl.h"
#include "tests/test_tree.h"

namespace {

struct {
    int call = 0;     // counts the calls
    int failing = 0;  // the call that fails, 0 for none
    int last = 0;     // the last one that fails
    int shares = -1;  // result of FICLONE
} faults;

bool fails() {
    ++faults.call;
    errno = EIO;
    return faults.call >= faults.failing && faults.call <= faults.last;
}

}  // namespace

// The linker binds the calls of the emulator to these (--wrap).
// NOLINTBEGIN(bugprone-reserved-identifier)
#define FALLIBLE(result, name, parameters, arguments)          \
    extern "C" result __real_##name parameters;                \
    extern "C" result __wrap_##name parameters {               \
        return fails() ? result(-1) : __real_##name arguments; \
    }

FALLIBLE(ssize_t, getxattr, (const char* path, const char* name, void* value, size_t size),
         (path, name, value, size))
FALLIBLE(int, setxattr,
         (const char* path, const char* name, const void* value, size_t size, int flags),
         (path, name, value, size, flags))
FALLIBLE(int, chmod, (const char* path, mode_t mode), (path, mode))
FALLIBLE(int, ftruncate, (int fd, off_t size), (fd, size))
FALLIBLE(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence))
// Copies in pieces, so that one can fail after another.
FALLIBLE(ssize_t, copy_file_range,
         (int in, off_t* from, int out, off_t* to, size_t size, unsigned flags),
         (in, from, out, to, std::min<size_t>(size, 4), flags))

// FICLONE as a file system does it: what the destination has behind the source's end stays.
extern "C" int __wrap_ioctl(int fd, unsigned long number, int source) {
    char data[64];
    const ssize_t size = pread(source, data, sizeof data, 0);
    const bool succeeds = !fails() && number == FICLONE && faults.shares == 0;
    return succeeds && pwrite(fd, data, static_cast<size_t>(size), 0) == size ? 0 : -1;
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

using emulator::FileState;
using emulator::UniqueFd;

constexpr char SOURCE_DATA[] = "source data";
constexpr char FILE_DATA[] = "longer data of the file";

void storeRaw(const char* path, const void* value, size_t size) {
    ASSERT_EQ(__real_setxattr(path, emulator::STATE_ATTRIBUTE, value, size, 0), 0);
}

FileState loadRaw(const char* path) {
    FileState state;
    EXPECT_EQ(__real_getxattr(path, emulator::STATE_ATTRIBUTE, &state, sizeof state),
              static_cast<ssize_t>(sizeof state));
    return state;
}

bool operator==(const FileState& a, const FileState& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

// A directory with two files of mode 0440, both marked and the first one prepared. The process is
// an ordinary user and its own caller, the directory its own mount.
class EmulatorRequests : public TestTree {
  protected:
    void SetUp() override {
        TestTree::SetUp();
        chmod(root.c_str(), 0777);
        ASSERT_EQ(seteuid(geteuid() == 0 ? 65534 : geteuid()), 0);
        restore();
    }
    void TearDown() override {
        faults = {};
        ASSERT_EQ(seteuid(getuid()), 0);
        TestTree::TearDown();
    }

    void restore() {
        faults = {};
        volume = {};
        for (const bool is_source : {true, false}) {
            const char* const name = is_source ? "source" : "file";
            unlink(name);
            write(name, is_source ? SOURCE_DATA : FILE_DATA);
            const FileState state = {1, 0x82, 0, static_cast<uint16_t>(is_source ? 1 : 0)};
            storeRaw(name, &state, sizeof state);
            (is_source ? source_fd : fd).reset(open(name, O_RDWR | O_CLOEXEC));
            ASSERT_EQ(chmod(name, 0440), 0);
        }
        struct stat attributes;
        ASSERT_EQ(openVolume(".", volume), 0);
        ASSERT_EQ(findEntry(volume, *volume.root, "source", source, attributes), 0);
        ASSERT_EQ(findEntry(volume, *volume.root, "file", file, attributes), 0);
        volume.mount_device = attributes.st_dev;
    }

    // Serves a request on "file". Returns what it answers in `words`.
    int serve(unsigned int number, uint32_t (&words)[2], size_t size = 8) {
        size_t answered = 0;
        return emulator::serveRequest(volume,
                                      {*file, fd.get(), getpid(), number, words, size, words, size},
                                      answered, size_changed);
    }
    uint32_t flag() {
        uint32_t words[] = {0, MODIFY_CHECK_GET};
        EXPECT_EQ(serve(F2FS_IOC_MODIFY_CHECK, words), 0);
        return words[0];
    }

    emulator::Volume volume;
    emulator::Inode* source = nullptr;
    emulator::Inode* file = nullptr;
    UniqueFd source_fd;
    UniqueFd fd;
    bool size_changed = false;
};

// A request, and the data and state that its success leaves. Number 0 is any other change of data,
// of which only the part before the change takes place.
constexpr uint32_t SOURCE = 0xF0F0F0F0;
const struct {
    unsigned int number;
    uint32_t words[2];
    const char* data;
    FileState state;
} SUCCESSES[] = {
    {F2FS_IOC_CLONE_FILE, {SOURCE, CLONE_FLAGS}, SOURCE_DATA, {1, 0x80, 1, 0}},
    {F2FS_IOC_SNAPSHOT_CREATE, {SOURCE, 0}, SOURCE_DATA, {1, 0x80, 1, 0}},
    {F2FS_IOC_MODIFY_CHECK, {0x182, MODIFY_CHECK_SET}, FILE_DATA, {1, 0x182, 0, 0}},
    {F2FS_IOC_SNAPSHOT_PREPARE, {SOURCE, 0}, FILE_DATA, {1, 0x82, 0, 1}},
    {F2FS_IOC_DEDUP_REVOKE, {0, 0}, FILE_DATA, {1, 0x82, 0, 0}},
    {0, {}, FILE_DATA, {1, 0x80, 0, 0}},
};

TEST_F(EmulatorRequests, AFailureAtAnyCallLeavesNoWrongMarkAndNoPartOfTheData) {
    for (const auto& row : SUCCESSES) {
        // Sharing or copying; one call fails, or all from then on.
        for (const int variant : {0, 1, 2, 3}) {
            bool was_reached = true;
            for (int call = 1; was_reached; ++call) {
                SCOPED_TRACE(testing::Message()
                             << &row - SUCCESSES << " " << variant << " " << call);
                ASSERT_NO_FATAL_FAILURE(restore());
                const bool persists = variant / 2 == 1;
                source->cloned_from = file->number;
                faults = {0, call, persists ? 1000 : call, variant % 2 == 0 ? 0 : -1};
                uint32_t words[] = {row.words[0], row.words[1]};
                if (words[0] == SOURCE) {
                    words[0] = static_cast<uint32_t>(source_fd.get());
                }
                const int error = row.number != 0 ? serve(row.number, words)
                                                  : emulator::clearMark(*file, fd.get());
                was_reached = faults.call >= call;
                faults = {};
                const FileState state = loadRaw("file");
                const std::string data = read("file");
                if (error == 0) {
                    EXPECT_EQ(data, row.data);
                    EXPECT_TRUE(state == row.state) << state.flag;
                } else {
                    // EACCES: the mode could not be changed for the moment.
                    EXPECT_TRUE(was_reached && (error == EIO || error == EACCES)) << error;
                    EXPECT_TRUE(data == FILE_DATA || (state.flag == 0x80 && data.empty()) ||
                                (state.flag == 0x80 && persists))
                        << data << " " << state.flag;
                    EXPECT_TRUE(data == FILE_DATA || persists || state.is_deduped == 0);
                }
                EXPECT_EQ(flag(), state.flag);
                EXPECT_EQ(read("source"), SOURCE_DATA);
                EXPECT_TRUE(loadRaw("source") == (FileState{1, 0x82, 0, 1}));
                EXPECT_TRUE(modeOf("file") == 0440 || error == EIO);
            }
        }
    }
}

TEST_F(EmulatorRequests, ARecordOfAnotherSizeOrVersionCountsAsNone) {
    const FileState records[] = {{1, 0x82, 1, 1}, {2, 0x82, 1, 1}};
    for (const size_t size : {0, 11, 12, 13, 24}) {
        for (const FileState& record : records) {
            char value[24] = {};
            memcpy(value, &record, sizeof record);
            ASSERT_EQ(chmod("file", 0640), 0);
            storeRaw("file", value, size);
            file->state.reset();
            EXPECT_EQ(flag(), size == 12 && record.version == 1 ? 0x82U : 0U) << size;
        }
    }
}

TEST_F(EmulatorRequests, ShortRecordsAreRefusedAndAReadOnlyVolumeKeepsItsState) {
    uint32_t words[] = {MODIFY_CHECK_FLAG, MODIFY_CHECK_SET};
    EXPECT_EQ(serve(F2FS_IOC_DEDUP_GET_FILE_INFO, words, 7), EINVAL);  // no room for the answer
    EXPECT_EQ(serve(F2FS_IOC_SNAPSHOT_PREPARE, words, 3), EINVAL);     // no whole argument
    EXPECT_EQ(serve(F2FS_IOC_MODIFY_CHECK, words, 8), 0);
    EXPECT_EQ(modeOf("file"), 0440);
    volume.read_only = true;
    for (const auto& row : SUCCESSES) {
        if (row.number != 0) {
            source->cloned_from = file->number;
            uint32_t copy[] = {
                row.words[0] == SOURCE ? static_cast<uint32_t>(source_fd.get()) : row.words[0],
                row.words[1]};
            EXPECT_EQ(serve(row.number, copy), EROFS) << row.number;
        }
    }
    EXPECT_TRUE(loadRaw("file") == (FileState{1, 0x82, 0, 0}));
}

}  // namespace
