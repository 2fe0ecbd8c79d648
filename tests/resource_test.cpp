// What the operations do where descriptors, disk space or permission run out.
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <functional>

#include "emulator_mount.h"
#include "snapshot.h"
#include "tree_gen.h"

namespace {

constexpr int FIRST_FREE = 3;  // behind the standard streams
constexpr int LEAK = 100;      // in place of a result
constexpr uid_t NOBODY = 65534;

// Runs an operation in a process of its own that starts with the standard streams only and then
// accepts a limit.
int32_t inChild(const std::function<void()>& limit, const std::function<int32_t()>& operation) {
    const pid_t child = fork();
    if (child == 0) {
        for (int fd = FIRST_FREE; fd < 1024; ++fd) {
            close(fd);
        }
        limit();
        int32_t ret = operation();
        for (int fd = FIRST_FREE; fd < 1024; ++fd) {
            ret = fcntl(fd, F_GETFD) >= 0 ? LEAK : ret;
        }
        _exit(ret);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? static_cast<int8_t>(WEXITSTATUS(status)) : 128 + WTERMSIG(status);
}

class ResourceTest : public EmulatedVolume {
  protected:
    void SetUp() override {
        EmulatedVolume::SetUp();
        if (!IsSkipped() && !HasFatalFailure()) {
            source = at("s");
            target = at("t");
            fs::create_directory(target);
        }
    }

    int32_t prepare() const {
        return PreCreateDirSnapshot({source});
    }
    int32_t create() const {
        return CreateDirSnapshot({source}, target);
    }
    int32_t destroy() const {
        return DestroyDirSnapshot(target);
    }
    std::string mirror() const {
        return target + "/snapshot" + source;
    }
    // Nothing is left that the next caller, who lacks nothing, could not deal with.
    void expectNextRound() const {
        EXPECT_EQ(destroy(), fs::exists(target + "/snapshot") ? 0 : -2);
        EXPECT_TRUE(fs::is_empty(target));
        EXPECT_EQ(create(), 0);
        EXPECT_EQ(dump(mirror()), dump(source));
        EXPECT_EQ(destroy(), 0);
    }

    std::string source;
    std::string target;
};

// Folders inside each other, each with a file.
void makeDeepTree(fs::path folder, int levels) {
    for (int level = 0; level < levels; ++level) {
        fs::create_directory(folder);
        write(folder / "f", std::to_string(level));
        folder /= "d";
    }
}

TEST_F(ResourceTest, DescriptorLimits) {
    const auto with = [&](rlim_t count, const auto& operation) {
        const auto limit = [=] {
            const rlimit descriptors = {count, count};
            setrlimit(RLIMIT_NOFILE, &descriptors);
        };
        return inChild(limit, [&] { return operation(); });
    };
    for (const int limit : {8, 16, 64}) {
        SCOPED_TRACE(limit);
        // A walk has one stream open per level, and for a file two descriptors more.
        const int levels = limit - FIRST_FREE - 2;
        makeDeepTree(source, levels);
        EXPECT_EQ(with(limit, [&] { return prepare(); }), 0);
        EXPECT_EQ(with(limit, [&] { return create(); }), 0);
        EXPECT_EQ(dump(mirror()), dump(source));
        // The root lies as many levels above its mirror as the source below "/".
        EXPECT_EQ(with(limit, [&] { return destroy(); }), -1);
        expectNextRound();

        for (const int more : {1, 2, 30}) {
            fs::remove_all(source);
            makeDeepTree(source, levels + more);
            const std::vector<std::string> before = dump(source);
            EXPECT_EQ(with(limit, [&] { return prepare(); }), -2) << more;
            EXPECT_EQ(with(limit, [&] { return create(); }), -2) << more;
            EXPECT_EQ(dump(source), before);
            expectNextRound();
        }
        fs::remove_all(source);
    }
}

// A small file system of memory, mounted where nobody else sees it.
class SmallDisk : public ResourceTest {
  protected:
    void SetUp() override {
        mounted_ = geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount("small", disk().c_str(), "tmpfs", 0, "size=16m") == 0;
        if (!mounted_) {
            GTEST_SKIP() << "needs root, to mount a small file system in a namespace of its own";
        }
        write(disk() / "probe", "");
        if (setxattr((disk() / "probe").c_str(), "user.probe", "", 0, 0) != 0) {
            GTEST_SKIP() << "this kernel's tmpfs keeps no user attributes";
        }
        ResourceTest::SetUp();
    }
    void TearDown() override {
        ResourceTest::TearDown();
        if (mounted_) {
            umount2(disk().c_str(), MNT_DETACH);
        }
    }

    fs::path disk() const {
        return volume.backing();
    }
    // Leaves so much; in a tmpfs, "size" is counted in pages and "nr_inodes" in files.
    bool leaveFree(const std::string& what, uint64_t count) const {
        struct statvfs now = {};
        statvfs(disk().c_str(), &now);
        const uint64_t limit = what == "size" ? (now.f_blocks - now.f_bfree + count) * now.f_bsize
                                              : now.f_files - now.f_ffree + count;
        return mount(nullptr, disk().c_str(), nullptr, MS_REMOUNT,
                     (what + "=" + std::to_string(limit)).c_str()) == 0;
    }

  private:
    bool mounted_ = false;
};

TEST_F(SmallDisk, IsFullAtEveryStep) {
    fs::create_directories(source + "/d");
    for (const char* name : {"/a", "/b", "/d/c"}) {
        write(source + name, std::string(10000, *name));
    }
    fs::create_symlink(std::string(3000, 'x'), source + "/l");
    const std::vector<std::string> before = dump(source);
    for (const char* what : {"size", "nr_inodes"}) {
        int32_t ret = -1;
        uint64_t steps = 0;
        for (; ret != 0 && steps < 200; ++steps) {
            ASSERT_TRUE(leaveFree(what, steps)) << strerror(errno);
            ret = create();
            EXPECT_TRUE(ret == 0 || ret == -1 || ret == -2) << ret;
            // Only where the mirror of the source itself could not be made, something stays.
            EXPECT_TRUE(ret == 0 || !fs::exists(mirror())) << steps;
            EXPECT_EQ(dump(source), before);
            if (ret != 0) {
                EXPECT_EQ(destroy(), fs::exists(target + "/snapshot") ? 0 : -2);
                EXPECT_TRUE(fs::is_empty(target));
            }
        }
        EXPECT_EQ(ret, 0);
        EXPECT_GT(steps, 4U);
        EXPECT_EQ(dump(mirror()), before);
        printf("%s: full at %lu steps, then created\n", what,
               static_cast<unsigned long>(steps - 1));
        ASSERT_TRUE(leaveFree(what, 0));
        EXPECT_EQ(destroy(), 0) << "on a full disk";
        EXPECT_TRUE(fs::is_empty(target));
        ASSERT_TRUE(leaveFree(what, 4000));
    }
    expectNextRound();
}

TEST_F(SmallDisk, IsReadOnly) {
    makeDeepTree(source, 3);
    ASSERT_EQ(create(), 0);
    const std::vector<std::string> before = dump(volume.mount());
    const auto remount = [&](unsigned long flag) {
        return mount(nullptr, volume.mount().c_str(), nullptr, MS_REMOUNT | MS_BIND | flag,
                     nullptr);
    };
    ASSERT_EQ(remount(MS_RDONLY), 0);
    EXPECT_EQ(prepare(), -2);
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(CreateDirSnapshot({source}, at("new")), -1);
    EXPECT_EQ(destroy(), -1);
    EXPECT_EQ(dump(volume.mount()), before);
    ASSERT_EQ(remount(0), 0);
    expectNextRound();
}

// For a user who is an ordinary one already there is nothing to give up.
void becomeOrdinaryUser() {
    if (geteuid() == 0 &&
        (setgroups(0, nullptr) != 0 || setgid(NOBODY) != 0 || setuid(NOBODY) != 0)) {
        _exit(LEAK);
    }
}

TEST_F(ResourceTest, PermissionsOfAnOrdinaryUser) {
    const auto asUser = [&](const auto& operation) {
        return inChild(becomeOrdinaryUser, [&] { return operation(); });
    };
    const struct {
        std::string path;  // whose mode is
        mode_t mode;
        bool has_snapshot;  // while these run:
        int32_t prepare;
        int32_t create;
        int32_t destroy;
    } table[] = {
        {source, 0555, false, -2, -2, -2},        {source, 0000, false, -2, -2, -2},
        {source + "/d", 0555, false, -2, -2, -2}, {source + "/d", 0000, false, -2, -2, -2},
        {source + "/f", 0444, false, -2, -2, -2}, {target, 0555, false, 0, -1, -2},
        {target, 0000, false, 0, -1, -2},         {mirror(), 0555, true, 0, -1, -1},
        {mirror(), 0000, true, 0, -1, -1},        {mirror() + "/d", 0555, true, 0, -1, -1},
        {mirror() + "/d", 0000, true, 0, -1, -1},
    };
    chmod(volume.root().c_str(), 0755);
    for (const auto& row : table) {
        SCOPED_TRACE(row.path + " " + std::to_string(row.mode));
        makeDeepTree(source, 2);
        for (const auto& entry : fs::recursive_directory_iterator(volume.mount())) {
            ASSERT_TRUE(geteuid() != 0 || chown(entry.path().c_str(), NOBODY, NOBODY) == 0);
        }
        ASSERT_TRUE(!row.has_snapshot || asUser([&] { return create(); }) == 0);
        const std::vector<std::string> before = dump(source);
        const int mode = modeOf(row.path);
        ASSERT_EQ(chmod(row.path.c_str(), row.mode), 0);
        EXPECT_EQ(asUser([&] { return prepare(); }), row.prepare);
        EXPECT_EQ(asUser([&] { return create(); }), row.create);
        EXPECT_EQ(asUser([&] { return destroy(); }), row.destroy);
        ASSERT_EQ(chmod(row.path.c_str(), static_cast<mode_t>(mode)), 0);
        EXPECT_EQ(dump(source), before);
        EXPECT_EQ(fs::exists(target + "/snapshot"), row.has_snapshot);
        expectNextRound();
        fs::remove_all(source);
    }
}

}  // namespace
