// SPDX-License-Identifier: Apache-2.0
// The driver emulator on a mounted volume.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <tuple>

#include "emulator/requests.h"
#include "snapshot/f2fs_ioctl.h"
#include "snapshot/snapshot.h"
#include "tests/emulator_mount.h"
#include "tests/helpers.h"

namespace {

using emulator::UniqueFd;

UniqueFd openAt(const std::string& path, int flags = O_RDONLY, mode_t mode = 0644) {
    return UniqueFd(open(path.c_str(), flags | O_CLOEXEC, mode));
}

// Makes an unnamed file and gives it a name.
int linkUnnamed(const std::string& name) {
    const UniqueFd fd = openAt(".", O_TMPFILE | O_RDWR, 0775);
    return linkat(AT_FDCWD, emulator::ProcPath(fd.get()).text, AT_FDCWD, name.c_str(),
                  AT_SYMLINK_FOLLOW);
}

// Makes a request of up to two words, the first one a descriptor or bits. Returns the bits that
// come back, never the same as a failure.
int ask(int fd, unsigned long request, int64_t first, uint32_t second = 0) {
    uint32_t record[] = {static_cast<uint32_t>(first), second};
    return ioctl(fd, request, record) != 0 ? -1 : static_cast<int>(record[0] & 0xFF);
}

int clone(int fd, const char* source) {
    return ask(fd, F2FS_IOC_CLONE_FILE, openAt(source).get(), CLONE_FLAGS);
}

int snapshot(int fd, const char* source) {
    return ask(fd, F2FS_IOC_SNAPSHOT_CREATE, openAt(source).get());
}

// Sets or gets a file's flag word.
int check(const char* path, uint32_t mode) {
    return ask(openAt(path).get(), F2FS_IOC_MODIFY_CHECK, MODIFY_CHECK_FLAG, mode);
}

// A file's content, its flag word, and whether it is deduplicated and layered.
std::string tellOf(const char* path) {
    dedup_file_info info = {};
    EXPECT_EQ(ioctl(openAt(path).get(), F2FS_IOC_DEDUP_GET_FILE_INFO, &info), 0);
    return read(path) + " " + std::to_string(check(path, MODIFY_CHECK_GET)) + " " +
           std::to_string(info.is_deduped) + " " + std::to_string(info.is_layered);
}

// A volume with the working directory on it.
class EmulatorTest : public EmulatedVolume {
  protected:
    void SetUp() override {
        EmulatedVolume::SetUp();
        fs::current_path(volume.mount());
    }
    void restart(int signal = SIGTERM) {
        EXPECT_EQ(volume.stop(signal), signal == SIGKILL ? 128 + SIGKILL : 0);
        ASSERT_TRUE(volume.start()) << volume.errors();
        fs::current_path(volume.mount());
    }
    // Makes "source", prepared, and "file", both marked.
    static void makeFiles() {
        write("source", "source data");
        write("file", "file data");
        ASSERT_EQ(check("file", MODIFY_CHECK_SET), 0x82);
        ASSERT_EQ(PreCreateSingleFileSnapshot(".", "source"), 0);
    }
};

// What to do in an empty folder, with the same outcome wherever it is.
constexpr const char* BEHAVIOURS[] = {
    // Every kind of node, and what cannot be made.
    R"sh(umask 0; mkdir d d; mkfifo -m 610 fifo; ln fifo d/fifo; ln d l; mv d d/in; rmdir d
         touch f f/below $(printf %255s | tr ' ' '\377'); chmod 6755 f; unlink d
         ln -s $(printf %4000s | tr ' ' y) "$(printf '\n;\200')")sh",
    // Renamed and replaced while open.
    R"sh(echo a >a; echo bb >b; mkdir d; exec 3<>a 4<>b; mv -nT a b; mv b a; chmod 601 /dev/fd/3
         echo more >&3; cat /dev/fd/3; mv none a; mv a new; chmod 602 /dev/fd/4; mv new d/far
         chmod 603 /dev/fd/4)sh",
    // A file lives on without a name, and by its other names.
    R"sh(echo content >one; ln one two; ln one three; echo replaces >other; exec 3<>one; unlink one
         chmod 601 /dev/fd/3; unlink three; chmod 602 /dev/fd/3; mv other two; chmod 603 /dev/fd/3
         truncate -s 3 /dev/fd/3; stat -Lc '%a %h' /dev/fd/3; cat /dev/fd/3; ln -L /dev/fd/3 x)sh",
    // Sizes, holes and appending.
    R"sh(truncate -s 5G f; printf x >>f; fallocate -n -o 5G -l 90000 f; fallocate -p -l 1 f
         stat -c '%s %b' f; tail -c 1 f; timeout 9 cp f g; stat -c %s g; truncate -s 100 f g
         printf end >>f; sync f; sync -d f .)sh",
    // Owner, mode, times, extended attributes and statfs.
    R"sh(touch f; chmod 6755 f; ln -s f l; chown 12:34 f; chown -h 56:78 l; touch -d @-5.25 f; touch -ad @99.5 f
         touch -hd @12345 l; stat -c '%x %y' f l; stat -fc %b .; setfattr -n user.a -v 1 f
         setfattr -n user.b -v 2 f; getfattr -dm- f; setfattr -x user.b f; setfattr -x user.b f
         getfattr -n user.b f; getfattr -dm- f)sh",
    // New files belong to who makes them; a set-group-ID folder passes its group on.
    R"sh(mkdir s; chown 0:4321 s; chmod 2777 s .
         for d in . s; do setpriv --reuid=1000 --regid=2000 --clear-groups sh -c \
             "mkdir $d/d; ln -s x $d/l; mkfifo $d/p; touch $d/f; chown 0 $d/f"; done)sh",
};

TEST_F(EmulatorTest, BehavesAsAPlainFolder) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "owners can be compared by root only";
    }
    chmod(volume.root().c_str(), 0755);  // other users come here as well
    const std::string dump =
        "find . -printf '%P %y %m %n %U:%G %l\\n' -type f -exec md5sum {} + | sort";
    const fs::path sides[] = {volume.root() / "side", volume.mount() / "side"};
    for (const char* const script : BEHAVIOURS) {
        SCOPED_TRACE(script);
        std::string outcomes[2];
        for (const size_t side : {0U, 1U}) {
            fs::create_directory(sides[side]);
            fs::current_path(sides[side]);
            outcomes[side] = shell(script);
            outcomes[side] += shell(dump);
        }
        EXPECT_EQ(outcomes[1], outcomes[0]);
        EXPECT_EQ(outcomes[0].find("not found"), std::string::npos) << outcomes[0];
        EXPECT_EQ(shell("cd ../../backing/side; " + dump), shell(dump));
        fs::remove_all(sides[0]);
        fs::remove_all(sides[1]);
    }
}

TEST_F(EmulatorTest, DoesWhatNoCommandAsksFor) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user for a while";
    }
    chmod(volume.root().c_str(), 0755);
    // Unnamed files belong to who makes them, too.
    ASSERT_TRUE(chmod(".", 0777) == 0 && setegid(2000) == 0 && seteuid(1000) == 0);
    EXPECT_EQ(linkUnnamed("named"), 0);
    ASSERT_TRUE(seteuid(0) == 0 && setegid(0) == 0);
    EXPECT_EQ(shell("stat -c %u:%g ../backing/named"), "1000:2000\n");
    char byte = 0;  // too small for a value
    EXPECT_EQ(setxattr("named", "user.x", "long", 4, 0), 0);
    EXPECT_TRUE(getxattr("named", "user.x", &byte, 1) == -1 && errno == ERANGE);
    // Names exchanged while a file is open.
    write("other", "other");
    const UniqueFd other = openAt("other", O_RDWR);
    EXPECT_EQ(renameat2(AT_FDCWD, "named", AT_FDCWD, "other", RENAME_EXCHANGE), 0);
    EXPECT_EQ(fchmod(other.get(), 0601), 0);
    EXPECT_EQ(ftruncate(other.get(), 2), 0);
    EXPECT_EQ(shell("stat -c '%n %a %s' *"), "named 601 2\nother 755 0\n");
}

TEST_F(EmulatorTest, KnowsManyFilesWithoutDescriptorsAndListsThemWhileTheyGo) {
    const std::string count = "ls /proc/" + std::to_string(volume.pid()) + "/fd | wc -l";
    const int before = std::stoi(shell(count));
    for (int i = 0; i < 1500; ++i) {
        const std::string name = std::to_string(i);
        ASSERT_TRUE(openAt(name, O_CREAT).valid() && link(name.c_str(), "other") == 0 &&
                    unlink(name.c_str()) == 0 && rename("other", name.c_str()) == 0 &&
                    linkUnnamed(name + " unnamed") == 0);
    }
    EXPECT_LT(std::stoi(shell(count)), before + 10);
    DIR* const dir = opendir(".");
    ASSERT_NE(dir, nullptr);
    int removed = 0;
    while (const dirent* entry = readdir(dir)) {
        const bool is_file = unlink(entry->d_name) == 0;
        EXPECT_EQ(entry->d_type, is_file ? DT_REG : DT_DIR);
        removed += is_file ? 1 : 0;
    }
    EXPECT_EQ(removed, 3000);
    rewinddir(dir);
    EXPECT_TRUE(readdir(dir) != nullptr && readdir(dir) != nullptr);  // "." and ".."
    EXPECT_EQ(readdir(dir), nullptr);
    closedir(dir);
}

// What is done to "file", open as `fd`, and its flag afterwards.
const std::pair<int, std::function<long(int fd)>> CHANGES[] = {
    {0x80, [](int fd) { return pwrite(fd, "f", 1, 0); }},    // the same byte
    {0x80, [](int /*fd*/) { return truncate("file", 9); }},  // the same size
    {0x80, [](int /*fd*/) { return openAt("file", O_RDONLY | O_TRUNC).get(); }},
    {0x80, [](int /*fd*/) { return openAt("file", O_RDWR | O_CREAT | O_TRUNC).get(); }},
    {0x80, [](int fd) { return ftruncate(fd, 3); }},
    {0x80, [](int fd) { return fallocate(fd, 0, 0, 5000); }},
    {0x80,
     [](int fd) { return copy_file_range(openAt("source").get(), nullptr, fd, nullptr, 4, 0); }},
    {0x80, [](int fd) { return clone(fd, "source"); }},
    {0x80, [](int fd) { return snapshot(fd, "source"); }},
    {0x82, [](int /*fd*/) { return link("file", "name"); }},
    {0x80, [](int /*fd*/) { return ::write(openAt("name", O_WRONLY | O_APPEND).get(), "x", 1); }},
    {0x82, [](int /*fd*/) { return rename("name", "b") < 0 ? -1 : unlink("b"); }},
    {0x82, [](int /*fd*/) { return chmod("file", 0600); }},
    {0x82, [](int /*fd*/) { return setxattr("file", "user.x", "", 0, 0); }},
    {0x82, [](int /*fd*/) { return clone(openAt("new", O_RDWR | O_CREAT).get(), "file"); }},
};

TEST_F(EmulatorTest, ChangesOfDataClearTheMarkAndNothingElseDoes) {
    makeFiles();
    for (const bool restarts : {false, true}) {  // known to the daemon, and read from the disk
        for (const auto& row : CHANGES) {
            SCOPED_TRACE(&row - CHANGES);
            ASSERT_EQ(check("file", MODIFY_CHECK_SET), 0x82);
            if (restarts) {
                restart();
            }
            EXPECT_GE(row.second(openAt("file", O_RDWR).get()), 0) << errno;
            if (restarts) {
                restart();
            }
            EXPECT_EQ(check("file", MODIFY_CHECK_GET), row.first);
        }
    }
    // Through a shared mapping, data would change without the emulator's knowledge.
    const UniqueFd fd = openAt("file", O_RDWR);
    EXPECT_EQ(mmap(nullptr, 1, PROT_WRITE, MAP_SHARED, fd.get(), 0), MAP_FAILED);
}

TEST_F(EmulatorTest, APreparedFileIsSnapshotAndIndependentAfterwards) {
    makeFiles();
    write("target", std::string(10000, 'l'));
    const UniqueFd target = openAt("target", O_RDWR | O_APPEND);
    // With a hole before its last byte and one behind it.
    shell("truncate -s 5G source; printf x >>source; truncate -s 10G source; stat target");
    ASSERT_GE(snapshot(target.get(), "source"), 0) << errno;
    // At once, not when a cache runs out.
    EXPECT_EQ(shell("test $(stat -c %b target) -lt 100 && stat -c %s target;"
                    "tail -c +5368709121 target 2>/dev/null | head -c 1"),
              "10737418240\nx");
    fs::resize_file("source", 6);
    ASSERT_GE(snapshot(target.get(), "source"), 0) << errno;
    EXPECT_EQ(::write(target.get(), "+", 1), 1);  // to the end, which the kernel does not know yet
    write("source", "other");
    EXPECT_EQ(tellOf("target"), "source+ 0 1 0");
    EXPECT_EQ(tellOf("source"), "other 128 0 1");
    EXPECT_EQ(ask(target.get(), F2FS_IOC_DEDUP_REVOKE, 0), 0);
    EXPECT_EQ(ask(openAt("source").get(), F2FS_IOC_DEDUP_REVOKE, 0), 0);
    EXPECT_EQ(tellOf("target"), "source+ 0 0 0");
    EXPECT_EQ(tellOf("source"), "other 128 0 0");
}

constexpr char TRY_ATTRIBUTE[] =
    "name=user.f2fs_emulator; getfattr -dm- source; getfattr -n $name source;"
    "setfattr -n $name source; setfattr -x $name source";
constexpr char HIDDEN[] =
    "source: user.f2fs_emulator: No such attribute\n"
    "setfattr: source: Operation not permitted\nsetfattr: source: No such attribute\n";

TEST_F(EmulatorTest, StateIsHiddenAndSurvivesHoweverTheDaemonEnds) {
    makeFiles();
    signal(SIGINT, SIG_IGN);  // as a shell does for a job in the background
    for (const int end : {SIGTERM, SIGINT, SIGHUP, SIGKILL}) {
        SCOPED_TRACE(end);
        const UniqueFd busy = openAt("file", O_RDWR);
        restart(end);
        EXPECT_EQ(shell(TRY_ATTRIBUTE), HIDDEN);
        EXPECT_EQ(tellOf("source"), "source data 130 0 1");
    }
    signal(SIGINT, SIG_DFL);
    fs::current_path(volume.root());
    EXPECT_EQ(shell("fusermount3 -u mount"), "");
    EXPECT_EQ(volume.stop(0), 0);
    // In the background.
    EXPECT_EQ(runProcess({F2FS_EMULATOR_PATH, "backing", "mount"}).status, 0);
    EXPECT_EQ(tellOf("mount/source"), "source data 130 0 1");
    EXPECT_EQ(shell("fusermount3 -u mount"), "");
}

TEST_F(EmulatorTest, RefusalsLeaveTheFileAlone) {
    makeFiles();
    const int fds[] = {open("source", O_RDWR), open("source", O_WRONLY),
                       open("file", O_RDWR),   open("file", O_RDONLY),
                       open(".", O_RDONLY),    open("../backing/source", O_RDONLY)};
    const auto& [source, source_writer, file, file_reader, folder, foreign] = fds;
    const std::tuple<int, int, unsigned long, int, uint32_t> table[] = {
        {EBADF, file, F2FS_IOC_CLONE_FILE, source_writer, CLONE_FLAGS},
        {EBADF, file_reader, F2FS_IOC_SNAPSHOT_CREATE, source, 0},
        {EBADF, source, F2FS_IOC_SNAPSHOT_PREPARE, 987654, 0},
        {EXDEV, file, F2FS_IOC_CLONE_FILE, foreign, CLONE_FLAGS},
        {EXDEV, source, F2FS_IOC_SNAPSHOT_PREPARE, foreign, 0},
        {EINVAL, file, F2FS_IOC_CLONE_FILE, folder, CLONE_FLAGS},
        {EINVAL, file, F2FS_IOC_CLONE_FILE, file_reader, CLONE_FLAGS},
        {EINVAL, file, F2FS_IOC_CLONE_FILE, source, 0},
        {EINVAL, file, F2FS_IOC_SNAPSHOT_CREATE, source, 1},
        {EINVAL, source, F2FS_IOC_SNAPSHOT_CREATE, file_reader, 0},
        {EINVAL, source, F2FS_IOC_SNAPSHOT_PREPARE, file, 0},
        {EINVAL, file, F2FS_IOC_DEDUP_REVOKE, 1, 0},
        {EINVAL, file, F2FS_IOC_MODIFY_CHECK, 0, 12},
        {ENOTTY, folder, F2FS_IOC_MODIFY_CHECK, 0, MODIFY_CHECK_GET},
        {ENOTTY, file, _IO(F2FS_IOC_MAGIC, 0x6A), 0, 0},
    };
    for (const auto& [error, fd, request, first, second] : table) {
        errno = 0;
        ask(fd, request, first, second);
        EXPECT_EQ(errno, error) << request << " " << first << " " << second;
    }
    std::for_each(std::begin(fds), std::end(fds), close);
    EXPECT_EQ(tellOf("file"), "file data 130 0 0");
    EXPECT_EQ(tellOf("source"), "source data 130 0 1");
}

// Without a mount, as an ordinary user.
using EmulatorRequests = TestTree;

TEST_F(EmulatorRequests, ShortRecordsAreRefusedAndReadOnlyFilesServed) {
    chmod(root.c_str(), 0777);
    ASSERT_EQ(seteuid(geteuid() == 0 ? 65534 : geteuid()), 0);
    const UniqueFd fd = openAt(at("file"), O_CREAT | O_RDWR, 0440);
    emulator::Volume volume;
    emulator::Inode inode;
    inode.type = S_IFREG;
    const auto serve = [&](unsigned int number, size_t size) {
        uint32_t record[] = {MODIFY_CHECK_FLAG, MODIFY_CHECK_SET};
        size_t answered = 0;
        bool size_changed = false;
        return emulator::serveRequest(
            volume, {inode, fd.get(), getpid(), number, record, size, record, size}, answered,
            size_changed);
    };
    EXPECT_EQ(serve(F2FS_IOC_DEDUP_GET_FILE_INFO, 7), EINVAL);  // its answer would be
    EXPECT_EQ(serve(F2FS_IOC_SNAPSHOT_PREPARE, 3), EINVAL);     // its argument is
    EXPECT_EQ(serve(F2FS_IOC_MODIFY_CHECK, 8), 0);
    EXPECT_EQ(modeOf(at("file")), 0440);
    ASSERT_EQ(seteuid(getuid()), 0);
}

TEST_F(EmulatorTest, SaysWhatIsWrongInOneLine) {
    fs::current_path(volume.root());
    fs::create_directories("other/inside");
    write("file", "");
    const std::string emulator = F2FS_EMULATOR_PATH " ";
    const std::string usage = shell(emulator + "--help 2>/dev/null");
    EXPECT_EQ(usage.compare(0, 21, "Usage: f2fs_emulator "), 0);
    EXPECT_EQ(shell(emulator + "-V 2>/dev/null; echo $?"), "f2fs_emulator 1.0.0\n0\n");
    for (const char* const wrong : {"", "other mount file", "other mount -z"}) {
        EXPECT_EQ(shell(emulator + wrong + " >/dev/null; echo $?"), usage + "2\n") << wrong;
    }
    const std::string no_tmpfile = strerror(geteuid() == 0 ? EOPNOTSUPP : EACCES);
    const std::pair<const char*, std::string> table[] = {
        {"none mount", "open the backing folder none: No such file or directory"},
        {"/proc mount", "make an unnamed temporary file in /proc: " + no_tmpfile},
        {"other none", "mount on none: No such file or directory"},
        {"other file", "mount on file: Not a directory"},
        {"other other/inside", "mount on other/inside: it is inside the backing folder"},
        {"other mount",
         "mount on mount: it is a mount point already, to be freed with fusermount3 -u"},
        {"other other -o no", "mount on other: unknown option(s): `-o no'"},
    };
    for (const auto& [arguments, says] : table) {
        EXPECT_EQ(shell(emulator + arguments + " >/dev/null; echo $?"),
                  "f2fs_emulator: cannot " + says + "\n1\n");
    }
}

}  // namespace
