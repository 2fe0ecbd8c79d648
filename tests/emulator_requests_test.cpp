// SPDX-License-Identifier: Apache-2.0
// The emulator's requests without a mount. Each system call that changes a file fails in turn.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "emulator/requests.h"
#include "snapshot/f2fs_ioctl.h"
#include "tests/helpers.h"

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

// FICLONE as file systems do it: data of the destination beyond the source's end stay.
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

constexpr int64_t SOURCE = -9;  // for the source's descriptor
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
        ASSERT_EQ(openVolume(".", volume), 0);
        makeFile("source", SOURCE_DATA, {1, 0x82, 0, 1}, source, source_fd);
        makeFile("file", FILE_DATA, {1, 0x82, 0, 0}, file, fd);
        file->cloned_from = source->number;
        source->cloned_from = file->number;
    }
    void makeFile(const char* name, const char* data, const FileState& state,
                  emulator::Inode*& inode, UniqueFd& opened) {
        unlink(name);
        write(name, data);
        storeRaw(name, &state, sizeof state);
        opened.reset(open(name, O_RDWR | O_CLOEXEC));
        ASSERT_EQ(chmod(name, 0440), 0);
        struct stat attributes;
        ASSERT_EQ(findEntry(volume, *volume.root, name, inode, attributes), 0);
        volume.mount_device = attributes.st_dev;
    }

    int serveOn(emulator::Inode& inode, int on, unsigned int number, uint32_t (&words)[2],
                size_t size = 8) {
        size_t answered = 0;
        bool size_changed = false;
        return emulator::serveRequest(volume,
                                      {inode, on, getpid(), number, words, size, words, size},
                                      answered, size_changed);
    }
    int serve(unsigned int number, int64_t first, uint32_t second = 0) {
        uint32_t words[] = {
            static_cast<uint32_t>(first == SOURCE ? source_fd.get() : static_cast<int>(first)),
            second};
        return serveOn(*file, fd.get(), number, words);
    }
    uint32_t flag() {
        uint32_t words[] = {0, MODIFY_CHECK_GET};
        EXPECT_EQ(serveOn(*file, fd.get(), F2FS_IOC_MODIFY_CHECK, words), 0);
        return words[0];
    }

    // After a request: its success has the whole effect, its failure leaves the file unchanged or
    // empty. If more than one call failed, a part of the data may be there, but never with a mark.
    void expectTruth(int error, const char* new_data, const FileState& new_state, bool persists) {
        const FileState state = loadRaw("file");
        const std::string data = read("file");
        if (error == 0) {
            EXPECT_EQ(data, new_data);
            EXPECT_EQ(memcmp(&state, &new_state, sizeof state), 0) << state.flag;
        } else {
            // EACCES: the mode could not be changed for the moment.
            EXPECT_TRUE(error == EIO || error == EACCES) << error;
            const bool is_empty = data.empty() && state.is_deduped == 0;
            EXPECT_TRUE(data == FILE_DATA || (state.flag == 0x80 && (persists || is_empty)))
                << data << " " << state.flag;
        }
        EXPECT_EQ(flag(), state.flag);
        EXPECT_EQ(read("source"), SOURCE_DATA);
        EXPECT_TRUE(modeOf("file") == 0440 || error == EIO);
    }

    emulator::Volume volume;
    emulator::Inode* source = nullptr;
    emulator::Inode* file = nullptr;
    UniqueFd source_fd;
    UniqueFd fd;
};

// A request on "file", and the data and state that its success leaves. Number 0 stands for any
// other change, of which only clearing the mark is done.
const struct {
    unsigned int number;
    int64_t first;
    uint32_t second;
    const char* data;
    FileState state;
} SUCCESSES[] = {
    {F2FS_IOC_CLONE_FILE, SOURCE, CLONE_FLAGS, SOURCE_DATA, {1, 0x80, 1, 0}},
    {F2FS_IOC_SNAPSHOT_CREATE, SOURCE, 0, SOURCE_DATA, {1, 0x80, 1, 0}},
    {F2FS_IOC_MODIFY_CHECK, 0x182, MODIFY_CHECK_SET, FILE_DATA, {1, 0x182, 0, 0}},
    {F2FS_IOC_SNAPSHOT_PREPARE, SOURCE, 0, FILE_DATA, {1, 0x82, 0, 1}},
    {F2FS_IOC_DEDUP_REVOKE, 0, 0, FILE_DATA, {1, 0x82, 0, 0}},
    {0, 0, 0, FILE_DATA, {1, 0x80, 0, 0}},
};

// Lets one call of each request fail, or all calls from then on, until a run reaches no failure.
// `shares` is the result of FICLONE: without it, the data are copied.
TEST_F(EmulatorRequests, AFailureAtAnyCallLeavesNoWrongMarkAndNoPartOfTheData) {
    for (const auto& row : SUCCESSES) {
        for (const auto& [shares, persists] :
             {std::pair(0, false), {0, true}, {-1, false}, {-1, true}}) {
            bool was_reached = true;
            for (int call = 1; was_reached; ++call) {
                SCOPED_TRACE(testing::Message() << &row - SUCCESSES << " " << shares << " "
                                                << persists << " " << call);
                ASSERT_NO_FATAL_FAILURE(restore());
                faults = {0, call, persists ? 1000 : call, shares};
                const int error = row.number != 0 ? serve(row.number, row.first, row.second)
                                                  : clearMark(*file, fd.get());
                was_reached = faults.call >= call;
                faults = {};
                expectTruth(error, row.data, row.state, persists);
                EXPECT_TRUE(error == 0 || was_reached);
            }
        }
        ASSERT_NO_FATAL_FAILURE(restore());
        volume.read_only = true;
        EXPECT_TRUE(row.number == 0 || serve(row.number, row.first, row.second) == EROFS);
        EXPECT_EQ(flag(), 0x82U);
    }
}

TEST_F(EmulatorRequests, RefusalsChangeNothing) {
    const UniqueFd writer(open("source", O_WRONLY | O_CLOEXEC));
    const UniqueFd path(open("source", O_PATH | O_CLOEXEC));
    const UniqueFd elsewhere(memfd_create("elsewhere", MFD_CLOEXEC));
    source->state = FileState();
    file->cloned_from = source->cloned_from = 0;
    const struct {
        int error;
        unsigned int number;
        int64_t first;
        uint32_t second;
    } table[] = {
        {EBADF, F2FS_IOC_CLONE_FILE, writer.get(), CLONE_FLAGS},
        {EBADF, F2FS_IOC_CLONE_FILE, path.get(), CLONE_FLAGS},
        {EBADF, F2FS_IOC_SNAPSHOT_PREPARE, 987654, 0},
        {EXDEV, F2FS_IOC_CLONE_FILE, elsewhere.get(), CLONE_FLAGS},
        {EXDEV, F2FS_IOC_SNAPSHOT_PREPARE, elsewhere.get(), 0},
        {EINVAL, F2FS_IOC_CLONE_FILE, volume.root->fd.get(), CLONE_FLAGS},
        {EINVAL, F2FS_IOC_CLONE_FILE, fd.get(), CLONE_FLAGS},
        {EINVAL, F2FS_IOC_CLONE_FILE, SOURCE, 0},
        {EINVAL, F2FS_IOC_SNAPSHOT_CREATE, SOURCE, 1},
        {EINVAL, F2FS_IOC_SNAPSHOT_CREATE, SOURCE, 0},
        {EINVAL, F2FS_IOC_SNAPSHOT_PREPARE, SOURCE, 0},
        {EINVAL, F2FS_IOC_DEDUP_REVOKE, 1, 0},
        {EINVAL, F2FS_IOC_MODIFY_CHECK, 0, 12},
        {ENOTTY, _IO(F2FS_IOC_MAGIC, 0x6A), 0, 0},
    };
    for (const auto& [error, number, first, second] : table) {
        EXPECT_EQ(serve(number, first, second), error) << number << " " << first << " " << second;
    }
    uint32_t words[] = {static_cast<uint32_t>(source_fd.get()), CLONE_FLAGS};
    EXPECT_EQ(serveOn(*file, path.get(), F2FS_IOC_CLONE_FILE, words), EBADF);  // not for writing
    EXPECT_EQ(serveOn(*file, fd.get(), F2FS_IOC_DEDUP_GET_FILE_INFO, words, 7), EINVAL);
    EXPECT_EQ(serveOn(*file, fd.get(), F2FS_IOC_SNAPSHOT_PREPARE, words, 3), EINVAL);
    EXPECT_EQ(serveOn(*volume.root, fd.get(), F2FS_IOC_MODIFY_CHECK, words), ENOTTY);
    EXPECT_EQ(read("file"), FILE_DATA);
    EXPECT_EQ(flag(), 0x82U);
}

TEST_F(EmulatorRequests, ARecordOfAnotherSizeOrVersionCountsAsNone) {
    chmod("file", 0640);
    for (const auto& [version, size] :
         {std::pair(1U, 0), {1, 11}, {1, 12}, {1, 13}, {1, 24}, {2, 12}}) {
        const FileState records[] = {{version, 0x82, 1, 1}, {}};
        storeRaw("file", records, static_cast<size_t>(size));
        file->state.reset();
        EXPECT_EQ(flag(), version == 1 && size == 12 ? 0x82U : 0U) << version << " " << size;
    }
}

// A thread switches a descriptor between a file that may be read and one that may not.
TEST_F(EmulatorRequests, AnExchangedDescriptorGivesNoAccess) {
    write("own", "own");
    const UniqueFd own(open("own", O_RDONLY | O_CLOEXEC));
    const UniqueFd secret(open("source", O_PATH | O_CLOEXEC));
    const UniqueFd exchanged(dup(own.get()));
    emulator::Inode* known = nullptr;
    struct stat attributes;
    ASSERT_EQ(findEntry(volume, *volume.root, "own", known, attributes), 0);
    std::atomic<bool> ends = false;
    std::thread exchanger([&] {
        while (!ends) {
            dup2(secret.get(), exchanged.get());
            dup2(own.get(), exchanged.get());
        }
    });
    bool leaks = false;
    for (int i = 0; i < 5000 && !leaks; ++i) {
        leaks = serve(F2FS_IOC_CLONE_FILE, exchanged.get(), CLONE_FLAGS) == 0 &&
                read("file") == SOURCE_DATA;
    }
    ends = true;
    exchanger.join();
    EXPECT_FALSE(leaks);
}

}  // namespace
