// What the operations do where descriptors, disk space or permission run out.
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <functional>

#include "snapshot.h"
#include "tool_on_volume.h"
#include "tree_gen.h"

namespace {

constexpr int FIRST_FREE = 3;  // behind the standard streams
constexpr int BROKEN = 100;    // in place of a result

// Runs an operation in a process of its own that may have so many descriptors open, the standard
// streams included. BROKEN: it left one open.
int32_t withDescriptors(rlim_t limit, const std::function<int32_t()>& operation) {
    const int status = endChild(startChild([&] {
        for (int fd = FIRST_FREE; fd < 1024; ++fd) {
            close(fd);
        }
        const rlimit descriptors = {limit, limit};
        int32_t ret = setrlimit(RLIMIT_NOFILE, &descriptors) == 0 ? operation() : BROKEN;
        for (int fd = FIRST_FREE; fd < 1024; ++fd) {
            ret = fcntl(fd, F_GETFD) >= 0 ? BROKEN : ret;
        }
        return ret;
    }));
    return static_cast<int8_t>(status);
}

class ResourceTest : public ToolOnVolume {
  protected:
    // Folders inside each other, each with a file.
    void makeSource(int levels) const {
        fs::remove_all(source);
        fs::path folder = source;
        for (int level = 0; level < levels; ++level) {
            fs::create_directory(folder);
            write(folder / "f", std::to_string(level));
            folder /= "d";
        }
    }
    // What is left is nothing that the next caller, who lacks nothing, could not deal with.
    void expectNextRound() const {
        EXPECT_EQ(destroy(), fs::exists(target + "/snapshot") ? 0 : -2);
        EXPECT_TRUE(fs::is_empty(target));
        EXPECT_EQ(create(), 0);
        EXPECT_EQ(dump(mirror()), dump(source));
        EXPECT_EQ(destroy(), 0);
    }

    const std::function<int32_t()> prepare = [&] { return PreCreateDirSnapshot({source}); };
    const std::function<int32_t()> create = [&] { return CreateDirSnapshot({source}, target); };
    const std::function<int32_t()> destroy = [&] { return DestroyDirSnapshot(target); };
};

TEST_F(ResourceTest, DescriptorLimits) {
    for (const rlim_t limit : {8U, 16U, 64U}) {
        SCOPED_TRACE(limit);
        // A walk has one stream open per level, and for a file two descriptors more.
        const int levels = static_cast<int>(limit) - FIRST_FREE - 2;
        for (const int missing : {0, 1, 2, 30}) {
            makeSource(levels + missing);
            const std::vector<std::string> before = dump(source);
            const int32_t expected = missing == 0 ? 0 : -2;
            EXPECT_EQ(withDescriptors(limit, prepare), expected) << missing;
            EXPECT_EQ(withDescriptors(limit, create), expected) << missing;
            if (missing == 0) {
                EXPECT_EQ(dump(mirror()), before);
                // Seen from the snapshot root, the folders above the source come on top.
                EXPECT_EQ(withDescriptors(limit, destroy), -1);
            }
            EXPECT_EQ(dump(source), before);
            expectNextRound();
        }
    }
}

TEST_F(ResourceTest, PermissionsOfAnOrdinaryUser) {
    constexpr uid_t NOBODY = 65534;
    const bool is_root = geteuid() == 0;
    const auto asUser = [=](const std::function<int32_t()>& operation) {
        const int status = endChild(startChild([&] {
            const bool is_user = !is_root || (setgroups(0, nullptr) == 0 && setgid(NOBODY) == 0 &&
                                              setuid(NOBODY) == 0);
            return is_user ? operation() : BROKEN;
        }));
        return static_cast<int8_t>(status);
    };
    const struct {
        std::string path;  // whose mode is
        mode_t mode;
        bool has_snapshot;  // while these run:
        int32_t prepare, create, destroy;
    } table[] = {
        {source, 0555, false, -2, -2, -2},        {source, 0000, false, -2, -2, -2},
        {source + "/d", 0555, false, -2, -2, -2}, {source + "/f", 0444, false, -2, -2, -2},
        {target, 0555, false, 0, -1, -2},         {target, 0000, false, 0, -1, -2},
        {mirror(), 0555, true, 0, -1, -1},        {mirror() + "/d", 0000, true, 0, -1, -1},
    };
    chmod(volume.root().c_str(), 0755);
    for (const auto& row : table) {
        SCOPED_TRACE(row.path + " " + std::to_string(row.mode));
        makeSource(2);
        fs::create_directory(target);
        for (const auto& entry : fs::recursive_directory_iterator(volume.mount())) {
            ASSERT_TRUE(!is_root || chown(entry.path().c_str(), NOBODY, NOBODY) == 0);
        }
        ASSERT_TRUE(!row.has_snapshot || asUser(create) == 0);
        const std::vector<std::string> before = dump(source);
        const int mode = modeOf(row.path);
        ASSERT_EQ(chmod(row.path.c_str(), row.mode), 0);
        EXPECT_EQ(asUser(prepare), row.prepare);
        EXPECT_EQ(asUser(create), row.create);
        EXPECT_EQ(asUser(destroy), row.destroy);
        ASSERT_EQ(chmod(row.path.c_str(), static_cast<mode_t>(mode)), 0);
        EXPECT_EQ(dump(source), before);
        EXPECT_EQ(fs::exists(target + "/snapshot"), row.has_snapshot);
        expectNextRound();
    }
}

// A small file system of memory, mounted where nobody else sees it.
class SmallDisk : public ResourceTest {
  protected:
    void SetUp() override {
        mounted = geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
                  mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                  mount("small", disk.c_str(), "tmpfs", 0, "size=16m") == 0;
        if (!mounted) {
            GTEST_SKIP() << "mounting a small file system takes root";
        }
        if (setxattr(disk.c_str(), "user.probe", "", 0, 0) != 0) {
            GTEST_SKIP() << "this kernel's tmpfs keeps no user attributes";
        }
        ResourceTest::SetUp();
    }
    void TearDown() override {
        ResourceTest::TearDown();
        if (mounted) {
            umount2(disk.c_str(), MNT_DETACH);
        }
    }

    // Leaves so many free pages ("size") or files ("nr_inodes").
    bool leaveFree(const std::string& what, uint64_t count) const {
        struct statvfs now = {};
        statvfs(disk.c_str(), &now);
        const uint64_t limit = what == "size" ? (now.f_blocks - now.f_bfree + count) * now.f_bsize
                                              : now.f_files - now.f_ffree + count;
        return mount(nullptr, disk.c_str(), nullptr, MS_REMOUNT,
                     (what + "=" + std::to_string(limit)).c_str()) == 0;
    }

    const fs::path disk = volume.backing();
    bool mounted = false;
};

TEST_F(SmallDisk, IsFullAtEveryStep) {
    makeSource(2);
    write(source + "/large", std::string(10000, 'x'));
    fs::create_symlink(std::string(3000, 'x'), source + "/link");
    const std::vector<std::string> before = dump(source);
    for (const char* what : {"size", "nr_inodes"}) {
        uint64_t free = 0;
        for (int32_t ret = -1; ret != 0; ++free) {
            ASSERT_TRUE(free < 200 && leaveFree(what, free)) << free;
            ret = create();
            EXPECT_TRUE(ret == 0 || ret == -1 || ret == -2) << ret;
            // A root is left only where the mirror of the source itself could not be made.
            EXPECT_EQ(fs::exists(mirror()), ret == 0) << free;
            EXPECT_EQ(dump(source), before);
            EXPECT_TRUE(ret == 0 || destroy() == 0 || fs::is_empty(target)) << free;
        }
        printf("full at %d points by %s\n", static_cast<int>(free - 1), what);
        EXPECT_GT(free, 5U);
        EXPECT_EQ(dump(mirror()), before);
        ASSERT_TRUE(leaveFree(what, 0));
        EXPECT_EQ(destroy(), 0) << "on a full disk";
        ASSERT_TRUE(leaveFree(what, 4000));
        expectNextRound();
    }
}

TEST_F(SmallDisk, IsReadOnly) {
    makeSource(3);
    ASSERT_EQ(create(), 0);
    const std::vector<std::string> before = dump(volume.mount());
    const auto remount = [&](unsigned long flag) {
        return mount(nullptr, volume.mount().c_str(), nullptr, MS_REMOUNT | MS_BIND | flag,
                     nullptr);
    };
    ASSERT_EQ(remount(MS_RDONLY), 0);
    EXPECT_EQ(prepare(), -2);
    EXPECT_EQ(create(), -1);
    EXPECT_EQ(destroy(), -1);
    EXPECT_EQ(dump(volume.mount()), before);
    ASSERT_EQ(remount(0), 0);
    expectNextRound();
}

}  // namespace
