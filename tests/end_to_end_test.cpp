// SPDX-License-Identifier: Apache-2.0
// The real tool and library on a real or emulated volume.
#include "snapshot/snapshot.h"
#include "tests/emulator_mount.h"

namespace {

using EndToEndTest = VolumeTest;

// Everything that file systems allow: names of any bytes, every kind of link, sizes, deep trees.
// (XFS takes link texts of up to 1023 bytes only.)
void makeOddTree(const fs::path& top) {
    fs::path deep = top;
    for (int level = 0; level < 25; ++level) {
        deep /= "D";
    }
    fs::create_directories(deep / "empty");
    write(deep / "bottom", "content");
    const std::string names[] = {
        "plain", "...", " ", ";", "a\n\xFF\x80*\\\"'", "-", std::string(255, 'x')};
    for (const std::string& name : names) {
        write(top / name, std::string(name.size() * 419 % 20000, name[0]));
    }
    write(top / "empty", "");
    write(top / "sparse", "begin");
    fs::resize_file(top / "sparse", 1 << 20);
    std::ofstream(top / "sparse", std::ios::app) << "end";
    int number = 0;
    for (const std::string& text :
         {std::string("nowhere"), std::string("link3"), std::string("../.."),
          std::string("a\n\xFF ;"), std::string(1000, 'x')}) {
        fs::create_symlink(text, top / ("link" + std::to_string(++number)));
    }
}

TEST_F(EndToEndTest, PreCreateDestroy) {
    makeOddTree(source);
    write(source + "/file", "content");
    fs::permissions(source + "/file", fs::perms{0751});
    const Dump before = dump(source);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(run("pre"), 0) << log;
        ASSERT_EQ(run("create"), 0) << log;
        EXPECT_EQ(dump(source), before);
        EXPECT_EQ(dump(mirror()), before);
        EXPECT_EQ(modeOf(mirror() + "/file"), 0440) << "only data is carried over";
    }
    fs::remove_all(source);
    fs::create_directory(source);
    write(source + "/file 2", "later");
    EXPECT_EQ(dump(mirror()), before) << "the snapshot does not follow the source";
    expectDestroy();
    EXPECT_EQ(run("destroy"), 254);
    target = source + "/target";
    ASSERT_EQ(run("create"), 0) << log;
    EXPECT_EQ(dump(mirror()), (Dump{"file 2:later", "target/"})) << "a target inside its source";
}

// How often the command $0 makes each system call for each of 120 files. Left out are the log's own
// calls and those that come once for many files.
constexpr char COUNT_CALLS[] = R"(
    strace -o calls -f -c -Ucalls,name \
        -e'!write,writev,getpid,gettid,brk,mmap,munmap,clock_gettime,getdents64' $0 >&2
    awk '$1 + 0 >= 120 && $2 != "total" { sub(/.*stat.*/, "stat", $2); print int($1 / 120), $2 }' \
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
    for (int i = 0; i < 120; ++i) {
        write(source + "/" + std::to_string(i), "x");
    }
    // Run in this order. The create makes 3 calls to find a file prepared, 9 for its snapshot and 4
    // for its check.
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

}  // namespace
