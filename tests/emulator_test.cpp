// The driver emulator on a mounted volume.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <vector>

#include "emulator_mount.h"
#include "f2fs_ioctl.h"
#include "process.h"
#include "requests.h"
#include "test_tree.h"

namespace {

using emulator::UniqueFd;

UniqueFd openAt(const std::string& path, int flags, mode_t mode = 0644) {
    return UniqueFd(open(path.c_str(), flags | O_CLOEXEC, mode));
}

int tryOpen(const std::string& path, int flags, mode_t mode = 0644) {
    return openAt(path, flags, mode).valid() ? 0 : -1;
}

int linkOpen(int fd, const std::string& name) {
    return linkat(AT_FDCWD, emulator::ProcPath(fd).text, AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW);
}

// Makes a request of up to two words, the first one a descriptor or bits. Returns the bits that
// come back, never the same as a failure.
int ask(int fd, unsigned long request, int64_t first, uint32_t second = 0) {
    uint32_t record[] = {static_cast<uint32_t>(first), second};
    return ioctl(fd, request, record) != 0 ? -1 : static_cast<int>(record[0] & 0xFF);
}

int cloneInto(int fd, int source, uint32_t flags = CLONE_FLAGS) {
    return ask(fd, F2FS_IOC_CLONE_FILE, source, flags);
}

int snapshotInto(int fd, int source, uint32_t flags = 0) {
    return ask(fd, F2FS_IOC_SNAPSHOT_CREATE, source, flags);
}

int mark(const char* path) {
    return ask(openAt(path, O_RDONLY).get(), F2FS_IOC_MODIFY_CHECK, MODIFY_CHECK_FLAG,
               MODIFY_CHECK_SET);
}

int flagOf(const char* path) {
    return ask(openAt(path, O_RDONLY).get(), F2FS_IOC_MODIFY_CHECK, 0, MODIFY_CHECK_GET);
}

// A file's content, its flag word, and whether it is deduplicated and layered.
std::string tellOf(const char* path) {
    dedup_file_info info = {};
    EXPECT_EQ(ioctl(openAt(path, O_RDONLY).get(), F2FS_IOC_DEDUP_GET_FILE_INFO, &info), 0);
    return read(path) + " " + std::to_string(flagOf(path)) + " " + std::to_string(info.is_deduped) +
           " " + std::to_string(info.is_layered);
}

// A volume with the working directory on it.
class EmulatorTest : public EmulatedVolume {
  protected:
    void SetUp() override {
        EmulatedVolume::SetUp();
        fs::current_path(volume.mount());
    }
    void restart(int signal = SIGTERM) {
        if (signal == SIGKILL) {
            volume.kill9();
        } else {
            EXPECT_EQ(volume.stop(signal), 0);
        }
        EXPECT_TRUE(fs::is_empty(volume.mount()));
        ASSERT_TRUE(volume.start()) << volume.errors();
        fs::current_path(volume.mount());
    }
    // Makes "source", prepared, and "file", both marked.
    static void makeFiles() {
        write("source", "source data");
        write("file", "file data");
        const UniqueFd source = openAt("source", O_RDWR);
        const UniqueFd clone = openAt(".", O_TMPFILE | O_RDWR, 0770);
        ASSERT_EQ(mark("file"), 0x82);
        ASSERT_EQ(mark("source"), 0x82);
        ASSERT_GE(cloneInto(clone.get(), source.get()), 0) << errno;
        ASSERT_GE(ask(source.get(), F2FS_IOC_SNAPSHOT_PREPARE, clone.get()), 0) << errno;
    }
};

// What calls returned, or their errno below zero.
struct Results {
    Results& operator<<(long result) {
        list.push_back(result < 0 ? -errno : result);
        return *this;
    }
    void expectAll(long expected) const {
        EXPECT_EQ(list, std::vector<long>(list.size(), expected));
    }
    std::vector<long> list;
};

// What to do in an empty folder, with the same results wherever it is.
const std::pair<const char*, void (*)(Results& tell)> BEHAVIOURS[] = {
    {"every kind of node, and what cannot be made",
     [](Results& tell) {
         const mode_t mask = umask(022);
         tell << tryOpen("file", O_CREAT | O_EXCL | O_RDWR, 0777);
         umask(mask);
         tell << tryOpen("file", O_CREAT | O_EXCL) << tryOpen("file/below", O_CREAT)
              << tryOpen(std::string(255, '\xff'), O_CREAT) << mkfifo("fifo", 0610)
              << mknod("plain", S_IFREG | 0640, 0) << mkdir("d", 0755) << mkdir("d", 0755)
              << symlink(std::string(4000, 'y').c_str(), "\n;\x80") << link("d", "l")
              << link("fifo", "d/fifo") << rename("d", "d/in") << rmdir("d") << unlink("d");
     }},
    {"rename replaces, refuses and exchanges",
     [](Results& tell) {
         write("a", "a");
         write("b", "bb");
         const UniqueFd first = openAt("a", O_RDWR);
         const UniqueFd second = openAt("b", O_RDWR);
         tell << mkdir("d", 0755) << renameat2(AT_FDCWD, "a", AT_FDCWD, "b", RENAME_NOREPLACE)
              << renameat2(AT_FDCWD, "a", AT_FDCWD, "b", RENAME_EXCHANGE) << rename("a", "d")
              << renameat2(AT_FDCWD, "a", AT_FDCWD, "d", RENAME_EXCHANGE)
              << fchmod(first.get(), 0601) << fchmod(second.get(), 0602) << rename("b", "a")
              << pwrite(first.get(), "more", 4, 0) << rename("d/none", "a") << rename("a", "new");
     }},
    {"a file lives on without a name, and by its other names",
     [](Results& tell) {
         write("one", "content");
         tell << link("one", "two") << link("one", "three") << rename("one", "two");
         const UniqueFd fd = openAt("one", O_RDWR);
         write("other", "replaces");
         tell << unlink("one") << fchmod(fd.get(), 0601) << unlink("three")
              << fchmod(fd.get(), 0602) << rename("other", "two") << fchmod(fd.get(), 0603)
              << ftruncate(fd.get(), 3) << linkOpen(fd.get(), "again");
         const UniqueFd unnamed = openAt(".", O_TMPFILE | O_RDWR, 0750);
         tell << ::write(unnamed.get(), "unnamed", 7) << linkOpen(unnamed.get(), "named")
              << linkOpen(openAt(".", O_TMPFILE | O_RDWR | O_EXCL).get(), "never");
     }},
    {"sizes, holes and appending, by the descriptor of a file that is read-only",
     [](Results& tell) {
         const off_t far = off_t{5} << 30;
         const UniqueFd file = openAt("sparse", O_CREAT | O_RDWR, 0440);
         const int fd = file.get();
         tell << pwrite(fd, "x", 1, far) << fallocate(fd, FALLOC_FL_KEEP_SIZE, far + 100, 50)
              << fallocate(fd, FALLOC_FL_PUNCH_HOLE, 0, 1) << (lseek(fd, 1 << 20, SEEK_DATA) >> 12)
              << lseek(fd, far + 1, SEEK_HOLE) << ftruncate(fd, 100) << lseek(fd, 0, SEEK_END)
              << fcntl(fd, F_SETFL, O_APPEND) << pwrite(fd, "end", 3, 0) << fsync(fd)
              << fdatasync(fd) << fsync(openAt(".", O_RDONLY).get());
     }},
    {"owner, mode, times, extended attributes and statfs",
     [](Results& tell) {
         const timespec times[] = {{12345, 678}, {-5, 999999999}};
         const timespec one[] = {{0, UTIME_OMIT}, {99, 1}};
         char value[2000] = {};
         struct stat f = {};
         struct statvfs figures = {};
         write("f", "x");
         tell << symlink("f", "l") << utimensat(AT_FDCWD, "f", times, 0)
              << utimensat(AT_FDCWD, "f", one, 0) << chmod("f", 06755) << chown("f", 12, 34)
              << utimensat(AT_FDCWD, "l", times, AT_SYMLINK_NOFOLLOW) << lchown("l", 56, 78)
              << stat("f", &f) << f.st_atim.tv_nsec << f.st_mtim.tv_sec << lstat("l", &f)
              << f.st_mtim.tv_nsec << setxattr("f", "user.a", "1", 1, XATTR_REPLACE)
              << setxattr("f", "user.b", value, 1000, 0) << getxattr("f", "user.b", nullptr, 0)
              << getxattr("f", "user.b", value, 10) << getxattr("f", "user.b", value, 2000)
              << listxattr("f", value, 2000) << listxattr("f", value, 3)
              << removexattr("f", "user.b") << removexattr("f", "user.b") << statvfs(".", &figures)
              << static_cast<long>(figures.f_blocks);
     }},
    {"new files belong to who makes them; a set-group-ID folder passes its group on",
     [](Results& tell) {
         tell << mkdir("shared", 0777) << chown("shared", 0, 4321) << chmod("shared", 02777)
              << chmod(".", 0777) << setegid(2000) << seteuid(1000);
         for (const std::string folder : {"./", "shared/"}) {
             tell << mkdir((folder + "d").c_str(), 0755) << symlink("x", (folder + "l").c_str())
                  << mkfifo((folder + "fifo").c_str(), 0644) << tryOpen(folder + "f", O_CREAT, 0775)
                  << linkOpen(openAt(folder, O_TMPFILE | O_RDWR, 0775).get(), folder + "unnamed");
         }
         tell << chown("f", 0, 0) << seteuid(0) << setegid(0);
     }},
};

// Every property of a tree's files that a user sees, times and places on the disk apart.
std::string dumpOf(const std::string& root) {
    return runProcess({"sh", "-c",
                       "cd \"$0\" && find . -printf '%P %y %m %n %U:%G %l\\n' -type f "
                       "-exec md5sum {} \\; | sort",
                       root})
        .out;
}

TEST_F(EmulatorTest, BehavesAsAPlainFolder) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "owners can be compared by root only";
    }
    chmod(volume.root().c_str(), 0755);  // other users come here as well
    for (const auto& [name, behave] : BEHAVIOURS) {
        SCOPED_TRACE(name);
        Results results[2];
        const fs::path sides[] = {volume.root() / "side", volume.mount() / "side"};
        for (const size_t side : {0U, 1U}) {
            fs::create_directory(sides[side]);
            fs::current_path(sides[side]);
            behave(results[side]);
        }
        EXPECT_EQ(results[1].list, results[0].list);
        EXPECT_EQ(dumpOf(sides[1]), dumpOf(sides[0]));
        EXPECT_EQ(dumpOf(sides[1]), dumpOf(volume.backing() / "side"));
        EXPECT_GT(fs::remove_all(sides[1]), 0U);
        fs::remove_all(sides[0]);
    }
    EXPECT_TRUE(fs::is_empty(volume.backing()));
}

TEST_F(EmulatorTest, ListsTypesAndKeepsItsPlaceInAChangingFolder) {
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(tryOpen("f" + std::to_string(i), O_CREAT), 0);
    }
    DIR* const dir = opendir(".");
    ASSERT_NE(dir, nullptr);
    int removed = 0;
    for (const dirent* entry = nullptr; (entry = readdir(dir)) != nullptr;) {
        EXPECT_EQ(entry->d_type, entry->d_name[0] == 'f' ? DT_REG : DT_DIR);
        removed += unlink(entry->d_name) == 0 ? 1 : 0;
    }
    EXPECT_EQ(removed, 1000);
    rewinddir(dir);
    EXPECT_TRUE(readdir(dir) != nullptr && readdir(dir) != nullptr);  // "." and ".."
    EXPECT_EQ(readdir(dir), nullptr);
    closedir(dir);
}

TEST_F(EmulatorTest, IdleFilesTakeNoDescriptors) {
    const auto descriptors = [&] {
        const fs::directory_iterator all("/proc/" + std::to_string(volume.pid()) + "/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = descriptors();
    for (int i = 0; i < 1500; ++i) {
        const std::string name = std::to_string(i);
        (Results() << tryOpen(name, O_CREAT) << link(name.c_str(), "other") << unlink(name.c_str())
                   << linkOpen(openAt(".", O_TMPFILE | O_RDWR).get(), name)
                   << rename("other", name.c_str()))
            .expectAll(0);
    }
    EXPECT_LT(descriptors(), before + 10);
}

TEST_F(EmulatorTest, ChangesOfDataClearTheMarkAndNothingElseDoes) {
    const auto source = [] { return openAt("source", O_RDONLY); };
    UniqueFd fd;
    const struct {
        int flag;  // of "file" after the call
        std::function<long()> call;
    } rows[] = {
        {0x80, [&] { return pwrite(fd.get(), "f", 1, 0); }},  // the same byte
        {0x80, [&] { return truncate("file", 9); }},          // the same size
        {0x80, [&] { return ftruncate(fd.get(), 3); }},
        {0x80, [&] { return tryOpen("file", O_WRONLY | O_TRUNC); }},
        {0x80, [&] { return tryOpen("file", O_RDONLY | O_TRUNC); }},
        {0x80, [&] { return tryOpen("file", O_RDWR | O_CREAT | O_TRUNC); }},
        {0x80, [&] { return fallocate(fd.get(), 0, 0, 5000); }},
        {0x80, [&] { return copy_file_range(source().get(), nullptr, fd.get(), nullptr, 4, 0); }},
        {0x80, [&] { return cloneInto(fd.get(), source().get()); }},
        {0x80, [&] { return snapshotInto(fd.get(), source().get()); }},
        {0x82, [&] { return link("file", "name"); }},
        {0x80, [&] { return ::write(openAt("name", O_WRONLY | O_APPEND).get(), "x", 1); }},
        {0x82, [&] { return unlink("name"); }},
        {0x82, [&] { return rename("file", "b") < 0 ? -1 : rename("b", "file"); }},
        {0x82, [&] { return tryOpen("file", O_RDWR); }},
        {0x82, [&] { return chmod("file", 0600); }},
        {0x82, [&] { return setxattr("file", "user.x", "", 0, 0); }},
        {0x82, [&] { return cloneInto(openAt("new", O_RDWR | O_CREAT).get(), fd.get()); }},
        {0x82, [&] { return fsync(fd.get()); }},
    };
    makeFiles();
    for (const bool restarts : {false, true}) {  // known to the daemon, and read from the disk
        for (const auto& row : rows) {
            SCOPED_TRACE(&row - rows);
            ASSERT_EQ(mark("file"), 0x82);
            if (restarts) {
                restart();
            }
            fd = openAt("file", O_RDWR);
            EXPECT_GE(row.call(), 0) << errno;
            if (restarts) {
                restart();
            }
            EXPECT_EQ(flagOf("file"), row.flag);
        }
    }
    fd = openAt("file", O_RDWR);
    // Through a shared mapping, data would change without the emulator's knowledge.
    const UniqueFd unnamed = openAt(".", O_TMPFILE | O_RDWR);
    for (const int unmapped : {fd.get(), unnamed.get()}) {
        EXPECT_EQ(mmap(nullptr, 1, PROT_WRITE, MAP_SHARED, unmapped, 0), MAP_FAILED);
    }
}

TEST_F(EmulatorTest, APreparedFileIsSnapshotAndIndependentAfterwards) {
    makeFiles();
    write("target", std::string(10000, 'l'));
    const UniqueFd source = openAt("source", O_RDWR);
    const UniqueFd target = openAt("target", O_RDWR | O_APPEND);
    const off_t far = off_t{5} << 30;
    struct stat attributes = {};
    char byte = 0;
    ASSERT_EQ(fstat(target.get(), &attributes), 0);
    ASSERT_EQ(pwrite(source.get(), "x", 1, far), 1);
    ASSERT_EQ(ftruncate(source.get(), 2 * far), 0);  // a hole before it and one behind it
    ASSERT_GE(snapshotInto(target.get(), source.get()), 0) << errno;
    ASSERT_EQ(fstat(target.get(), &attributes), 0);
    EXPECT_EQ(attributes.st_size, 2 * far);  // at once, not when a cache runs out
    EXPECT_LT(attributes.st_blocks, 100);
    EXPECT_EQ(pread(target.get(), &byte, 1, far), 1);
    EXPECT_EQ(byte, 'x');
    ASSERT_EQ(ftruncate(source.get(), 6), 0);
    ASSERT_GE(snapshotInto(target.get(), source.get()), 0) << errno;
    EXPECT_EQ(::write(target.get(), "+", 1), 1);  // to the end, which the kernel does not know yet
    write("source", "other");
    EXPECT_EQ(tellOf("target"), "source+ 0 1 0");
    EXPECT_EQ(tellOf("source"), "other 128 0 1");
    EXPECT_EQ(ask(target.get(), F2FS_IOC_DEDUP_REVOKE, 0), 0);
    EXPECT_EQ(ask(source.get(), F2FS_IOC_DEDUP_REVOKE, 0), 0);
    EXPECT_EQ(tellOf("target"), "source+ 0 0 0");
    EXPECT_EQ(tellOf("source"), "other 128 0 0");
}

TEST_F(EmulatorTest, StateIsHiddenAndSurvivesHoweverTheDaemonEnds) {
    makeFiles();
    const char* const name = "user.f2fs_emulator";
    const std::string backing = volume.backing() / "source";
    char value[64];
    std::signal(SIGINT, SIG_IGN);  // as a shell does for a job in the background
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGKILL}) {
        SCOPED_TRACE(signal);
        const UniqueFd busy = openAt("file", O_RDWR);
        restart(signal);
        EXPECT_EQ(getxattr(backing.c_str(), name, value, sizeof(value)), 12);
        EXPECT_EQ(listxattr("source", value, sizeof(value)), 0);
        Results results;
        results << getxattr("source", name, value, sizeof(value))
                << setxattr("source", name, "", 0, 0) << removexattr("source", name);
        EXPECT_EQ(results.list, (std::vector<long>{-ENODATA, -EPERM, -ENODATA}));
        EXPECT_EQ(tellOf("source"), "source data 130 0 1");
    }
    std::signal(SIGINT, SIG_DFL);
    fs::current_path(volume.root());
    EXPECT_EQ(runProcess({"fusermount3", "-u", "mount"}).status, 0);
    EXPECT_EQ(volume.stop(0), 0);
    // In the background.
    EXPECT_EQ(runProcess({F2FS_EMULATOR_PATH, "backing", "mount"}).status, 0);
    EXPECT_EQ(tellOf("mount/source"), "source data 130 0 1");
    EXPECT_EQ(runProcess({"fusermount3", "-u", "mount"}).status, 0);
}

TEST_F(EmulatorTest, RefusalsLeaveTheFileAlone) {
    makeFiles();
    const UniqueFd source = openAt("source", O_RDWR);
    const UniqueFd source_writer = openAt("source", O_WRONLY);
    const UniqueFd source_path = openAt("source", O_PATH);
    const UniqueFd file = openAt("file", O_RDWR);
    const UniqueFd file_reader = openAt("file", O_RDONLY);
    const UniqueFd folder = openAt(".", O_RDONLY);
    const UniqueFd foreign = openAt(volume.backing() / "source", O_RDONLY);
    (Results() << cloneInto(file.get(), -1) << cloneInto(file.get(), 987654)
               << cloneInto(file.get(), source_writer.get())
               << cloneInto(file.get(), source_path.get())
               << cloneInto(file_reader.get(), source.get()) << snapshotInto(file.get(), -1)
               << snapshotInto(file_reader.get(), source.get())
               << ask(source.get(), F2FS_IOC_SNAPSHOT_PREPARE, -5))
        .expectAll(-EBADF);
    (Results() << cloneInto(file.get(), foreign.get()) << snapshotInto(file.get(), foreign.get())
               << ask(source.get(), F2FS_IOC_SNAPSHOT_PREPARE, foreign.get()))
        .expectAll(-EXDEV);
    (Results() << cloneInto(file.get(), folder.get()) << cloneInto(file.get(), file_reader.get())
               << cloneInto(file.get(), source.get(), 0)
               << snapshotInto(file.get(), source.get(), 1)
               << snapshotInto(source.get(), file_reader.get())
               << ask(source.get(), F2FS_IOC_SNAPSHOT_PREPARE, file.get())
               << ask(file.get(), F2FS_IOC_DEDUP_REVOKE, 1)
               << ask(file.get(), F2FS_IOC_MODIFY_CHECK, 0, 12))
        .expectAll(-EINVAL);
    (Results() << ask(folder.get(), F2FS_IOC_MODIFY_CHECK, 0, MODIFY_CHECK_GET)
               << ask(file.get(), _IO(F2FS_IOC_MAGIC, 0x6A), 0)
               << ask(file.get(), _IOWR(F2FS_IOC_MAGIC, 1, int32_t), 0))
        .expectAll(-ENOTTY);
    EXPECT_EQ(tellOf("file"), "file data 130 0 0");
    EXPECT_EQ(tellOf("source"), "source data 130 0 1");
}

// Without a mount, as an ordinary user.
TEST(EmulatorRequests, ShortRecordsAreRefusedAndReadOnlyFilesServed) {
    const EmulatorMount place;
    chmod(place.root().c_str(), 0755);
    chmod(place.backing().c_str(), 0777);
    ASSERT_EQ(seteuid(geteuid() == 0 ? 65534 : geteuid()), 0);
    emulator::Volume volume;
    ASSERT_EQ(emulator::openVolume(place.backing().c_str(), volume), 0);
    const UniqueFd fd = openAt(place.backing() / "file", O_CREAT | O_RDWR, 0440);
    struct stat attributes = {};
    int error = 0;
    emulator::Inode* inode = emulator::lookUp(volume, *volume.root, "file", attributes, error);
    ASSERT_NE(inode, nullptr);
    const auto serve = [&](unsigned int number, size_t size) {
        uint32_t record[] = {MODIFY_CHECK_FLAG, MODIFY_CHECK_SET};
        size_t answered = 0;
        bool size_changed = false;
        return emulator::serveRequest(
            volume, {*inode, fd.get(), getpid(), number, record, size, record, size}, answered,
            size_changed);
    };
    for (const unsigned int number :
         {0x4004F566U, 0x8008F567U, 0x4008F569U, 0xC008F56AU, 0x4008F56CU, 0x4004F56DU}) {
        EXPECT_EQ(serve(number, _IOC_SIZE(number) - 1), EINVAL) << number;
    }
    EXPECT_EQ(serve(F2FS_IOC_MODIFY_CHECK, 8), 0);
    EXPECT_EQ(modeOf(place.backing() / "file"), 0440);
    ASSERT_EQ(seteuid(getuid()), 0);
}

TEST_F(EmulatorTest, SaysWhatIsWrongInOneLine) {
    fs::current_path(volume.root());
    fs::create_directories("other/inside");
    write("file", "");
    const std::string usage = runProcess({F2FS_EMULATOR_PATH, "--help"}).out;
    EXPECT_EQ(usage.compare(0, 21, "Usage: f2fs_emulator "), 0);
    const std::string no_tmpfile = strerror(geteuid() == 0 ? EOPNOTSUPP : EACCES);
    const struct {
        const char* arguments;
        int status;
        std::string says;
    } cases[] = {
        {"-h", 0, usage},
        {"--version", 0, "f2fs_emulator 1.0.0\n"},
        {"", 2, usage},
        {"other mount file", 2, usage},
        {"other mount -z", 2, usage},
        {"none mount", 1, "open the backing folder none: No such file or directory"},
        {"file mount", 1, "open the backing folder file: Not a directory"},
        {"/proc mount", 1, "make an unnamed temporary file in /proc: " + no_tmpfile},
        {"other none", 1, "mount on none: No such file or directory"},
        {"other file", 1, "mount on file: Not a directory"},
        {"other other/inside", 1, "mount on other/inside: it is inside the backing folder"},
        {"other mount", 1,
         "mount on mount: it is a mount point already, to be freed with fusermount3 -u"},
        {"other other -o no", 1, "mount on other: unknown option(s): `-o no'"},
    };
    for (const auto& [arguments, status, says] : cases) {
        const Outcome outcome =
            runProcess({"sh", "-c", std::string(F2FS_EMULATOR_PATH " ") + arguments});
        EXPECT_EQ(outcome.status, status) << arguments;
        EXPECT_EQ(outcome.out, status == 0 ? says : "");
        EXPECT_EQ(outcome.err, status == 1 ? "f2fs_emulator: cannot " + says + "\n"
                                           : usage.substr(status == 2 ? 0 : usage.size()));
    }
}

}  // namespace
