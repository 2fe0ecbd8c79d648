// The real tool and library on a mounted emulator.
#include <cstdlib>
#include <map>
#include <sstream>

#include "snapshot.h"
#include "tool_on_volume.h"
#include "tree_gen.h"

namespace {

using EndToEndTest = ToolOnVolume;

TEST_F(EndToEndTest, PreCreateDestroy) {
    TreeGenerator(1).fill(source);
    fs::create_directory(source + "/folder");
    write(source + "/folder/file", "content");
    fs::permissions(source + "/folder/file", fs::perms{0751});
    const std::vector<std::string> before = dump(source);
    ASSERT_EQ(run("pre"), 0) << log;
    ASSERT_EQ(run("create"), 0) << log;
    EXPECT_EQ(dump(source), before);
    EXPECT_EQ(modeOf(mirror() + "/folder/file"), 0440) << "nothing but data is carried over";

    fs::remove(source + "/folder/file");
    write(source + "/folder/file 2", "later");
    EXPECT_EQ(dump(mirror()), before) << "the snapshot does not follow the source";
    expectDestroy();
    EXPECT_EQ(run("destroy"), 254);
}

TEST_F(EndToEndTest, SnapshotsOfRandomTreesEqualTheirSources) {
    constexpr uint32_t TREES = 100;
    size_t entries = 0;
    for (uint32_t seed = 1; seed <= TREES; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        fs::remove_all(source);
        fs::create_directory(source);
        TreeGenerator(seed).fill(source);
        const std::vector<std::string> before = dump(source);
        entries += before.size();
        ASSERT_EQ(CreateDirSnapshot({source}, target), 0);
        EXPECT_EQ(dump(mirror()), before);
        EXPECT_EQ(dump(source), before);
        ASSERT_EQ(DestroyDirSnapshot(target), 0);
        EXPECT_TRUE(fs::is_empty(target));
    }
    printf("%u trees, %zu entries\n", TREES, entries);
}

TEST_F(EndToEndTest, ATargetInsideItsSource) {
    write(source + "/file", "content");
    target = source + "/target";
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(run("create"), 0) << log;
        EXPECT_EQ(dump(mirror()), (std::vector<std::string>{"file:content", "target/"}));
    }
}

// Adds the system calls of a run, times `sign`, to the counts by name. Left out are the log's own
// calls, and those that come once for many files.
void addCalls(const std::vector<std::string>& command, int sign,
              std::map<std::string, long>& counts) {
    std::vector<std::string> traced = {
        "strace", "-f", "-c", "-Ucalls,name",
        "-etrace=!write,writev,getpid,gettid,brk,mmap,munmap,clock_gettime,getdents64"};
    traced.insert(traced.end(), command.begin(), command.end());
    const Outcome outcome = runProcess(traced);
    EXPECT_EQ(outcome.status, 0);
    std::istringstream lines(outcome.err.substr(outcome.err.rfind("calls syscall")));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        long calls = 0;
        std::string name;
        if (fields >> calls >> name && name != "total") {
            counts[name.find("stat") != std::string::npos ? "stat" : name] += sign * calls;
        }
    }
}

TEST_F(EndToEndTest, NoCallMoreThanNamed) {
#ifdef F2FS_SNAPSHOT_SANITIZED
    GTEST_SKIP() << "a sanitizer makes calls of its own";
#endif
    if (std::system("strace -o /dev/null true 2>/dev/null") != 0) {
        GTEST_SKIP() << "strace is missing or not permitted";
    }
    // One after the other, with the calls of 100 files.
    const std::pair<const char*, std::string> table[] = {
        {"pre", "close 200, ioctl 400, openat 200, "},
        {"pre", "close 100, ioctl 100, openat 100, "},
        // Prepared already: 3 calls, the snapshot: 9, the check: 4.
        {"create", "close 400, fallocate 100, ioctl 500, openat 400, stat 200, "},
        {"destroy", "unlink 100, "},
    };
    std::map<std::string, long> differences[std::size(table)];
    for (const int count : {50, 150}) {
        fs::remove_all(target);
        fs::remove_all(source);
        fs::create_directory(source);
        for (int i = 0; i < count; ++i) {
            write(source + "/" + std::to_string(i), "x");
        }
        for (size_t i = 0; i < std::size(table); ++i) {
            addCalls(commandLine(table[i].first), count == 50 ? -1 : 1, differences[i]);
        }
    }
    for (size_t i = 0; i < std::size(table); ++i) {
        std::string calls;
        for (const auto& [name, number] : differences[i]) {
            calls += number != 0 ? name + " " + std::to_string(number) + ", " : "";
        }
        EXPECT_EQ(calls, table[i].second) << table[i].first;
    }
}

TEST_F(EndToEndTest, TheBuiltInTestCase) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, for a root folder of its own";
    }
    const std::string media = at("media/0");
    fs::create_directories(media + "/DCIM");
    write(media + "/DCIM/photo", "photo");
    const std::string root = (volume.root() / "root").string();
    fs::create_directory(root);
    const auto run = [&] {
        // In a mount namespace of its own the fixed paths exist and nothing else changes.
        const std::string script =
            "mount -t tmpfs none '" + root + "' && cd '" + root + "' && for entry in /*; do " +
            "if [ -L $entry ]; then cp -a $entry .$entry; elif [ -d $entry ]; then " +
            "mkdir -p .$entry && mount --rbind $entry .$entry; fi; done && mkdir -p data && " +
            "mount --bind '" + volume.mount().string() + "' data && exec chroot . " +
            F2FS_SNAPSHOT_TOOL_PATH + " testcase";
        return runProcess({"unshare", "--mount", "sh", "-c", script});
    };
    Outcome outcome = run();
    EXPECT_EQ(outcome.out, "execute fail ret = -2\n") << outcome.err;
    EXPECT_NE(outcome.err.find("---defaulttestcase enter---\n"), std::string::npos);
    EXPECT_NE(outcome.err.find("Failed to open dir /data/media/0/Documents\n"), std::string::npos);
    EXPECT_EQ(outcome.err.find("---defaulttestcase exit---\n"), std::string::npos);

    fs::create_directories(media + "/Documents");
    outcome = run();
    EXPECT_EQ(outcome.out, "execute sucess\n") << outcome.err;
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.err.find("F2FS_IOC_SNAPSHOT_CREATE ioctl create success\n"),
              std::string::npos);
    EXPECT_NE(outcome.err.find("---defaulttestcase exit---\n"), std::string::npos);
    EXPECT_TRUE(fs::is_empty(media + "/snapshotdir_001"));
}

}  // namespace
