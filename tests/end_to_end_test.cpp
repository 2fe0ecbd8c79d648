// SPDX-License-Identifier: Apache-2.0
// The real tool and library on a mounted emulator.
#include "snapshot/snapshot.h"
#include "tests/tool_on_volume.h"
#include "tests/tree_gen.h"

namespace {

using EndToEndTest = ToolOnVolume;

TEST_F(EndToEndTest, PreCreateDestroy) {
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
    size_t entries = 0;
    for (uint32_t seed = 1; seed <= 100; ++seed) {
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
    printf("%zu entries\n", entries);
}

TEST_F(EndToEndTest, ATargetInsideItsSource) {
    write(source + "/file", "content");
    target = source + "/target";
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(run("create"), 0) << log;
        EXPECT_EQ(dump(mirror()), (std::vector<std::string>{"file:content", "target/"}));
    }
}

// How often the command $0 makes each system call for each of 200 files. Left out are the log's own
// calls and those that come once for many files.
constexpr char COUNT_CALLS[] = R"(
    strace -o calls -f -c -Ucalls,name \
        -e'!write,writev,getpid,gettid,brk,mmap,munmap,clock_gettime,getdents64' $0 >&2
    awk '$1 + 0 >= 200 && $2 != "total" { sub(/.*stat.*/, "stat", $2); print int($1 / 200), $2 }' \
        calls | sort -k 2)";

TEST_F(EndToEndTest, NoCallMoreThanNamed) {
#ifdef F2FS_SNAPSHOT_SANITIZED
    GTEST_SKIP() << "a sanitizer makes calls of its own";
#endif
    fs::current_path(volume.root());
    const std::string refusal = shell("strace -o calls true");
    if (!refusal.empty()) {
        GTEST_SKIP() << refusal;
    }
    for (int i = 0; i < 200; ++i) {
        write(source + "/" + std::to_string(i), "x");
    }
    // One after the other. Of the create, prepared already: 3 calls, the snapshot: 9, the check: 4.
    const std::pair<std::string, const char*> table[] = {
        {"pre " + source, "2 close\n4 ioctl\n2 openat\n"},
        {"pre " + source, "1 close\n1 ioctl\n1 openat\n"},
        {"create " + source + " " + target, "4 close\n1 fallocate\n5 ioctl\n4 openat\n2 stat\n"},
        {"destroy " + target, "1 unlink\n"},
    };
    for (const auto& [arguments, calls] : table) {
        const std::string command = F2FS_SNAPSHOT_TOOL_PATH " " + arguments;
        EXPECT_EQ(runProcess({"sh", "-c", COUNT_CALLS, command}).out, calls) << command;
    }
}

// Runs the test case of the tool $2 where the volume $1 is /data: in a root folder $0 of its own.
constexpr char RUN_TEST_CASE[] = R"(
    mount -t tmpfs none "$0" && cd "$0" || exit
    for folder in /*/; do
        mkdir -p ".$folder" && mount --rbind "$folder" ".$folder"
    done
    mkdir -p data && mount --bind "$1" data && exec chroot . "$2" testcase)";

TEST_F(EndToEndTest, TheBuiltInTestCase) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, for a root folder of its own";
    }
    for (const std::string folder : {"DCIM", "Documents"}) {
        fs::create_directories(at("media/0/") + folder);
        write(at("media/0/") + folder + "/file", "content");
    }
    fs::create_directory(volume.root() / "root");
    const Outcome outcome =
        runProcess({"unshare", "--mount", "sh", "-c", RUN_TEST_CASE, volume.root() / "root",
                    top, F2FS_SNAPSHOT_TOOL_PATH});
    EXPECT_EQ(outcome.out, "execute sucess\n") << outcome.err;
    for (const char* line : {"CreateSingleFileSnapshot for [/data/media/0/DCIM/file]\n",
                             "CreateSingleFileSnapshot for [/data/media/0/Documents/file]\n",
                             "---defaulttestcase exit---\n"}) {
        EXPECT_NE(outcome.err.find(line), std::string::npos) << line;
    }
    EXPECT_TRUE(fs::is_empty(at("media/0/snapshotdir_001")));
}

}  // namespace
