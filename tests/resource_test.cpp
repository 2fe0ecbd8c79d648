// SPDX-License-Identifier: Apache-2.0
// Operations without enough descriptors or permissions.
#include <grp.h>
#include <sys/resource.h>

#include "snapshot/snapshot.h"
#include "tests/emulator_mount.h"

namespace {

constexpr int FIRST_FREE = 3;  // after the standard streams
constexpr int BROKEN = 100;    // in place of a result

using Operation = std::function<int32_t()>;

// Runs restrict() and then an operation in a process of its own. BROKEN: restrict() failed, or a
// descriptor was left open.
int32_t runRestricted(const std::function<bool()>& restrict, const Operation& operation) {
    const int status = endChild(startChild([&] {
        for (int fd = FIRST_FREE; fd < 1024; ++fd) {
            close(fd);
        }
        int32_t ret = restrict() ? operation() : BROKEN;
        for (int fd = FIRST_FREE; fd < 1024; ++fd) {
            ret = fcntl(fd, F_GETFD) >= 0 ? BROKEN : ret;
        }
        return ret;
    }));
    return static_cast<int8_t>(status);
}

int32_t asUser(const Operation& operation) {
    const auto become_nobody = [] {
        return setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
    };
    return runRestricted([&] { return geteuid() != 0 || become_nobody(); }, operation);
}

class ResourceTest : public VolumeTest {
  protected:
    // Directories inside each other, each with a file.
    void makeSource(int levels) const {
        fs::remove_all(source);
        fs::path directory = source;
        for (int level = 0; level < levels; ++level) {
            fs::create_directory(directory);
            write(directory / "f", std::to_string(level));
            directory /= "d";
        }
    }
    // An unrestricted caller can still destroy and create afterwards.
    void expectNextRound() const {
        EXPECT_EQ(destroy(), fs::exists(target + "/snapshot") ? 0 : -2);
        EXPECT_TRUE(fs::is_empty(target));
        EXPECT_EQ(create(), 0);
        EXPECT_EQ(dump(mirror()), dump(source));
        EXPECT_EQ(destroy(), 0);
    }

    const Operation prepare = [&] { return PreCreateDirSnapshot({source}); };
    const Operation create = [&] { return CreateDirSnapshot({source}, target); };
    const Operation destroy = [&] { return DestroyDirSnapshot(target); };
};

TEST_F(ResourceTest, DescriptorLimits) {
    const rlimit limit = {16, 16};
    const auto with_limit = [&](const Operation& operation) {
        return runRestricted([&] { return setrlimit(RLIMIT_NOFILE, &limit) == 0; }, operation);
    };
    // A walk has one stream open per level, and two descriptors more for a file.
    const int levels = static_cast<int>(limit.rlim_cur) - FIRST_FREE - 2;
    for (const int missing : {0, 1, 2}) {
        makeSource(levels + missing);
        const Dump before = dump(source);
        EXPECT_EQ(with_limit(prepare), missing == 0 ? 0 : -2) << missing;
        EXPECT_EQ(with_limit(create), missing == 0 ? 0 : -2) << missing;
        EXPECT_EQ(dump(source), before);
        expectNextRound();
    }
}

TEST_F(ResourceTest, PermissionsOfAnOrdinaryUser) {
    const struct {
        std::string path;  // that has this mode
        mode_t mode;
        bool has_snapshot;  // while these run:
        int32_t prepare, create, destroy;
    } table[] = {
        {source, 0555, false, -2, -2, -2}, {source, 0000, false, -2, -2, -2},
        {target, 0555, false, 0, -1, -2},  {source + "/f", 0444, false, -2, -2, -2},
        {mirror(), 0555, true, 0, -1, -1}, {mirror() + "/d", 0000, true, 0, -1, -1},
    };
    chmod(volume.root().c_str(), 0755);
    chmod(top.c_str(), 0755);
    for (const auto& row : table) {
        SCOPED_TRACE(row.path + " " + std::to_string(row.mode));
        makeSource(2);
        fs::create_directory(target);
        runProcess(
            {"chown", "-R", "65534:65534", top});  // without root it fails, and is not needed
        ASSERT_TRUE(!row.has_snapshot || asUser(create) == 0);
        const Dump before = dump(source);
        ASSERT_EQ(chmod(row.path.c_str(), row.mode), 0);
        EXPECT_EQ(asUser(prepare), row.prepare);
        EXPECT_EQ(asUser(create), row.create);
        EXPECT_EQ(asUser(destroy), row.destroy);
        ASSERT_EQ(chmod(row.path.c_str(), 0755), 0);
        EXPECT_EQ(dump(source), before);
        EXPECT_EQ(fs::exists(target + "/snapshot"), row.has_snapshot);
        expectNextRound();
    }
}

}  // namespace
