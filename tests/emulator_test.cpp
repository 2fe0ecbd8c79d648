// SPDX-License-Identifier: Apache-2.0
// The driver emulator on a mounted volume.
#include <dirent.h>
#include <fcntl.h>
#include <linux/falloc.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "emulator/unique_fd.h"
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
std::string stateOf(const char* path) {
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

// Only root can mount, give files away and become another user.
class EmulatorTestAsRoot : public EmulatorTest {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
        EmulatorTest::SetUp();
    }
};

// Commands in an empty directory. Their output and what they leave is the same on every file
// system.
constexpr const char* BEHAVIOURS[] = {
    // Every kind of node, and what cannot be made.
    R"sh(umask 0; mkdir d d; mkfifo -m 610 fifo; ln fifo d/fifo; ln d l; mv d d/in; rmdir d
         touch f f/below $(printf %255s | tr ' ' '\377'); chmod 6755 f; unlink d
         ln -s $(printf %4000s | tr ' ' y) "$(printf '\n;\200')")sh",
    // Renamed and replaced while open.
    R"sh(echo a >a; echo bb >b; mkdir d; exec 3<>a 4<>b; mv -nT a b; mv b a; mkdir -p e g/in; mv -T e g; chmod 601 /dev/fd/3
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
    R"sh(touch f; chmod 6755 f; ln -s f l; chown 12:34 f; chown :99 f; chown -h 56:78 l; touch -d @-5.25 f; touch -ad @99.5 f
         touch -hd @12345 l; stat -c '%x %y' f l; stat -fc %b .; setfattr -n user.a -v 1 f
         setfattr -n user.b -v 2 f; getfattr -dm- f; setfattr -x user.b f; setfattr -x user.b f
         getfattr -n user.b f; getfattr -dm- f)sh",
    // New files belong to their maker; a set-group-ID directory passes its group on.
    R"sh(mkdir s; chown 0:4321 s; chmod 2777 s .
         for d in . s; do setpriv --reuid=1000 --regid=2000 --clear-groups sh -c \
             "mkdir $d/d; ln -s x $d/l; mkfifo $d/p; touch $d/f; chown 0 $d/f"; done)sh",
};

TEST_F(EmulatorTestAsRoot, BehavesAsAPlainDirectory) {
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

// A bind mount. The destructor unmounts it.
struct Mount {
    Mount(const fs::path& from, const fs::path& at) : point(fs::absolute(at)) {
        EXPECT_EQ(mount(from.c_str(), point.c_str(), "", MS_BIND, nullptr), 0) << errno;
    }
    ~Mount() {
        umount2(point.c_str(), MNT_DETACH);
    }
    Mount(const Mount&) = delete;
    Mount& operator=(const Mount&) = delete;
    const std::string point;
};

TEST_F(EmulatorTestAsRoot, AReadOnlyBackingDirectoryRefusesEveryChange) {
    shell("echo a >a; mkdir d; setfattr -n user.a -v 1 a");
    ASSERT_EQ(volume.stop(SIGTERM), 0);
    const Mount backing(volume.backing(), volume.backing());
    ASSERT_TRUE(volume.start());
    ASSERT_EQ(mount("", backing.point.c_str(), "", MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), 0);
    fs::current_path(volume.mount());
    for (const char* const command :
         {"mkdir n", "mkfifo p", "ln -s x l", "touch t", "rm -f a", "rmdir d", "ln a b", "mv a c",
          ">a", ">>a", "truncate -s 9 a", "touch -d @1 a", "chmod 1 a", "chown 1 a",
          "setfattr -n user.b a", "setfattr -x user.a a"}) {
        EXPECT_NE(shell(command).find("Read-only file system"), std::string::npos) << command;
    }
    EXPECT_EQ(check("a", MODIFY_CHECK_SET), -1);
    EXPECT_EQ(shell("cat a; ls"), "a\na\nd\n");
    fs::current_path("/");
}

// The volume is still served afterwards; a daemon that waits for itself is killed.
TEST_F(EmulatorTestAsRoot, AMountOfTheVolumeBelowItsBackingDirectoryIsRefused) {
    const pid_t daemon = volume.pid();
    const pid_t watchdog = startChild([=] { return sleep(60) == 0 ? kill(daemon, SIGKILL) : 0; });
    const fs::path backing = volume.backing();
    fs::create_directory(backing / "d");
    write(backing / "f", "data");
    write("known", "data");
    const UniqueFd known = openAt("known");
    const Mount mounts[] = {
        {".", backing / "d"}, {"known", backing / "f"}, {"known", backing / "known"}};
    for (const char* const command :
         {"ls -d d", "cat f", "ln f g", "rm -f f", "mv f d", "mv d x", "rm -f known"}) {
        EXPECT_NE(shell(command).find(": Invalid cross-device link"), std::string::npos) << command;
    }
    EXPECT_EQ(fchmod(known.get(), 0600), -1);
    EXPECT_EQ(shell("ls"), "d\nf\nknown\n");
    EXPECT_EQ(endChild(watchdog, SIGKILL), 128 + SIGKILL);
}

TEST_F(EmulatorTestAsRoot, ServesCallsThatNoCommandMakes) {
    chmod(volume.root().c_str(), 0755);
    // Unnamed files belong to their maker, too.
    ASSERT_TRUE(chmod(".", 0777) == 0 && setegid(2000) == 0 && seteuid(1000) == 0);
    EXPECT_EQ(linkUnnamed("named"), 0);
    ASSERT_TRUE(seteuid(0) == 0 && setegid(0) == 0);
    EXPECT_EQ(shell("stat -c %u:%g ../backing/named"), "1000:2000\n");
    char byte = 0;  // too small for a value
    EXPECT_EQ(setxattr("named", "user.x", "long", 4, 0), 0);
    EXPECT_TRUE(getxattr("named", "user.x", &byte, 1) == -1 && errno == ERANGE);
    char value[4] = {};  // exactly large enough
    EXPECT_EQ(getxattr("named", "user.x", value, 4), 4);
    // Holes are found as in the backing file.
    const UniqueFd holes = openAt("named", O_RDWR);
    const UniqueFd backing = openAt("../backing/named");
    ASSERT_EQ(pwrite(holes.get(), value, 4, 1 << 20), 4);
    for (const auto& [offset, whence] :
         {std::pair(0, SEEK_DATA), {0, SEEK_HOLE}, {1 << 21, SEEK_DATA}}) {
        EXPECT_EQ(lseek(holes.get(), offset, whence), lseek(backing.get(), offset, whence));
    }
    ASSERT_EQ(ftruncate(holes.get(), 0), 0);
    // Names exchanged while a file is open.
    write("other", "other");
    const UniqueFd other = openAt("other", O_RDWR);
    EXPECT_EQ(renameat2(AT_FDCWD, "named", AT_FDCWD, "other", RENAME_EXCHANGE), 0);
    EXPECT_EQ(fchmod(other.get(), 0601), 0);
    EXPECT_EQ(ftruncate(other.get(), 2), 0);
    EXPECT_EQ(shell("stat -c '%n %a %s' *"), "named 601 2\nother 755 0\n");
    // Replaced behind the emulator.
    shell("cd ../backing; mv other away; echo >other");
    EXPECT_TRUE(fchmod(holes.get(), 0600) == -1 && errno == ESTALE);
}

TEST_F(EmulatorTest, KnowsManyFilesWithoutDescriptorsAndListsThemDuringRemoval) {
    const std::string proc = "/proc/" + std::to_string(volume.pid());
    const std::string count = "ls " + proc + "/fd | wc -l";
    const std::string kilobytes = "awk '/VmRSS/ { print $2 }' " + proc + "/status";
    const int before = std::stoi(shell(count));
    for (int i = 0; i < 1500; ++i) {
        const std::string name = std::string(200, 'x') + std::to_string(i);
        ASSERT_TRUE(openAt(name, O_CREAT).valid() && link(name.c_str(), "other") == 0 &&
                    unlink(name.c_str()) == 0 && rename("other", name.c_str()) == 0 &&
                    linkUnnamed(name + " unnamed") == 0);
    }
    EXPECT_LT(std::stoi(shell(count)), before + 10);
    // Open directories take no memory for their entries.
    const int memory = std::stoi(shell(kilobytes));
    std::vector<std::unique_ptr<DIR, int (*)(DIR*)>> dirs;
    for (int i = 0; i < 30; ++i) {
        dirs.emplace_back(opendir("."), closedir);
        while (readdir(dirs.back().get()) != nullptr) {
        }
    }
    EXPECT_LT(std::stoi(shell(kilobytes)), memory + 8000);
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
    dirs.clear();
    EXPECT_TRUE(openAt("last", O_CREAT).valid());  // served after the directories were closed
    EXPECT_LT(std::stoi(shell(count)), before + 10);
}

// What is done to "file", open as `fd`, and its flag afterwards.
const std::pair<int, std::function<long(int fd)>> CHANGES[] = {
    {0x80, [](int fd) { return pwrite(fd, "f", 1, 0); }},    // the same byte
    {0x80, [](int /*fd*/) { return truncate("file", 9); }},  // the same size
    {0x80, [](int /*fd*/) { return openAt("file", O_RDONLY | O_TRUNC).get(); }},
    {0x80, [](int /*fd*/) { return openAt("file", O_RDWR | O_CREAT | O_TRUNC).get(); }},
    {0x80, [](int fd) { return ftruncate(fd, 3); }},
    {0x80, [](int fd) { return fallocate(fd, 0, 0, 5000); }},
    {0x80, [](int fd) { return fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, 0, 2); }},
    {0x80, [](int fd) { return fallocate(fd, FALLOC_FL_ZERO_RANGE, 0, 2); }},
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
            // EOPNOTSUPP: the backing file system has no such change.
            EXPECT_TRUE(row.second(openAt("file", O_RDWR).get()) >= 0 || errno == EOPNOTSUPP)
                << errno;
            if (restarts) {
                restart();
            }
            EXPECT_EQ(check("file", MODIFY_CHECK_GET), row.first);
        }
    }
    // Through a shared mapping, data would change without the emulator's knowledge.
    const UniqueFd fd = openAt("file", O_RDWR);
    EXPECT_EQ(mmap(nullptr, 1, PROT_WRITE, MAP_SHARED, fd.get(), 0), MAP_FAILED);
    // A mark that cannot be cleared keeps data from changing. An append-only file is such a case,
    // where the backing file system has that: an open descriptor still writes, but no attribute
    // changes.
    ASSERT_EQ(check("file", MODIFY_CHECK_SET), 0x82);
    const std::string before = stateOf("file");
    if (shell("chattr +a ../backing/file").empty()) {
        for (const auto& row : CHANGES) {
            EXPECT_TRUE(row.first == 0x82 || row.second(fd.get()) < 0) << &row - CHANGES;
        }
        EXPECT_EQ(stateOf("file") + shell("chattr -a ../backing/file"), before);
    }
}

TEST_F(EmulatorTestAsRoot, LimitsAndMountOptionsAreObeyed) {
    makeFiles();
    fs::current_path(volume.root());
    ASSERT_EQ(volume.stop(SIGTERM), 0);
    // A limit of the daemon, which it must survive.
    EXPECT_EQ(shell("(ulimit -f 16; exec " F2FS_EMULATOR_PATH " backing mount 2>/dev/null)"
                    "; head -c 8192 /dev/zero >mount/large; echo x >>mount/large"
                    "; stat -c %s mount/large; fusermount3 -u mount; flock backing true"),
              "sh: 1: echo: echo: I/O error\n8192\n");
    EXPECT_EQ(shell(F2FS_EMULATOR_PATH " backing mount -o ro 2>/dev/null"), "");
    for (const bool is_read_only : {true, false, true}) {
        const unsigned long flags = is_read_only ? MS_REMOUNT | MS_RDONLY : MS_REMOUNT;
        ASSERT_EQ(mount("", "mount", "", flags, nullptr), 0);
        errno = 0;
        EXPECT_EQ(ask(openAt("mount/file").get(), F2FS_IOC_MODIFY_CHECK, 0x92, MODIFY_CHECK_SET),
                  is_read_only ? -1 : 0x92);
        EXPECT_EQ(errno, is_read_only ? EROFS : 0);
    }
    EXPECT_EQ(shell("fusermount3 -u mount"), "");
}

TEST_F(EmulatorTestAsRoot, AnOrdinaryUserServesAVolumeOfTheirOwn) {
    ASSERT_EQ(volume.stop(SIGTERM), 0);
    fs::current_path(volume.root());
    chmod(".", 0777);
    // Copied, since that user may not be allowed to enter the build directory.
    shell("cp " F2FS_EMULATOR_PATH " " F2FS_SNAPSHOT_TOOL_PATH " $(ldd " F2FS_SNAPSHOT_TOOL_PATH
          " | awk '/libf2fs_snapshot/ { print $3 }') .");
    EXPECT_EQ(shell(R"sh(unshare --mount sh -c '
        mknod fuse c 10 229; chmod 666 fuse; mount --bind fuse /dev/fuse; export LD_LIBRARY_PATH=.
        exec setpriv --reuid=65534 --regid=65533 --clear-groups sh -c "
            mkdir own at; ./f2fs_emulator own at 2>log; mkdir at/s; echo data >at/s/file
            ./f2fs_snapshot create $PWD/at/s $PWD/at/t 2>log; echo more >>at/s/file
            find at -name file | xargs stat -c %u:%g:%a:%s | sort; fusermount3 -u at"')sh"),
              "execute sucess\n65534:65533:440:5\n65534:65533:644:10\n");
}

TEST_F(EmulatorTest, ASnapshotOfAPreparedFileIsIndependent) {
    makeFiles();
    write("target", std::string(10000, 'l'));
    const UniqueFd target = openAt("target", O_RDWR | O_APPEND);
    // With a hole before its last byte and one after it.
    shell("truncate -s 5G source; printf x >>source; truncate -s 10G source; stat target");
    ASSERT_GE(snapshot(target.get(), "source"), 0) << errno;
    // At once, not when a cache expires.
    EXPECT_EQ(shell("test $(stat -c %b target) -lt 100 && stat -c %s target;"
                    "tail -c +5368709121 target 2>/dev/null | head -c 1"),
              "10737418240\nx");
    fs::resize_file("source", 6);
    ASSERT_GE(snapshot(target.get(), "source"), 0) << errno;
    EXPECT_EQ(::write(target.get(), "+", 1), 1);  // to the end, which the kernel does not know yet
    write("source", "other");
    EXPECT_EQ(stateOf("target"), "source+ 0 1 0");
    EXPECT_EQ(stateOf("source"), "other 128 0 1");
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
        EXPECT_EQ(stateOf("source"), "source data 130 0 1");
    }
    signal(SIGINT, SIG_DFL);
    fs::current_path(volume.root());
    EXPECT_EQ(shell("fusermount3 -u mount"), "");
    EXPECT_EQ(volume.stop(0), 0);
    // In the background.
    EXPECT_EQ(runProcess({F2FS_EMULATOR_PATH, "backing", "mount"}).status, 0);
    EXPECT_EQ(stateOf("mount/source"), "source data 130 0 1");
    EXPECT_EQ(shell("fusermount3 -u mount"), "");
}

TEST_F(EmulatorTest, ReportsAnErrorInOneLine) {
    fs::current_path(volume.root());
    fs::create_directories("other/inside");
    write("file", "");
    const std::string emulator = F2FS_EMULATOR_PATH " ";
    const std::string usage = shell(emulator + "-h 2>/dev/null");
    EXPECT_EQ(usage.compare(0, 21, "Usage: f2fs_emulator "), 0);
    EXPECT_EQ(shell(emulator + "--help 2>/dev/null; echo $?"), usage + "0\n");
    for (const char* const option : {"-V", "--version"}) {
        EXPECT_EQ(shell(emulator + option + " 2>/dev/null; echo $?"), "f2fs_emulator 1.0.0\n0\n");
    }
    for (const char* const wrong : {"", "other mount file", "other mount -z", "other mount -o"}) {
        EXPECT_EQ(shell(emulator + wrong + " >/dev/null; echo $?"), usage + "2\n") << wrong;
    }
    const std::string no_tmpfile = strerror(geteuid() == 0 ? EOPNOTSUPP : EACCES);
    const std::pair<const char*, std::string> table[] = {
        {"none mount", "open the backing directory none: No such file or directory"},
        {"backing other", "open the backing directory backing: another emulator shows it"},
        {"/proc mount", "make an unnamed temporary file in /proc: " + no_tmpfile},
        {"other none", "mount on none: No such file or directory"},
        {"other file", "mount on file: Not a directory"},
        {"other other/inside", "mount on other/inside: it is inside the backing directory"},
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
