// SPDX-License-Identifier: Apache-2.0
// The command-line tool and its path routines.
#include <dlfcn.h>

#include "tests/fake_kernel.h"
#include "tests/helpers.h"
#include "tool/main.h"
#include "tool/paths.h"

namespace {

using ToolTest = TestTree;
using TestCaseTest = TestTree;
using PathsTest = TestTree;
using Words = std::vector<std::string>;

constexpr char HELP[] = R"(Help:
-------------precreatedirsnapshot-------------
f2fs_snapshot pre [src_path_list]
ex:      f2fs_snapshot pre /data/media/0/DCIM
ex:      f2fs_snapshot pre "/data/media/0/DCIM;/data/media/0/Download"

-------------createdirsnapshot-------------
f2fs_snapshot create [src_path_list] [target_path]
ex:      f2fs_snapshot create /data/media/0/DCIM /data/media/0/snapshotdir
ex:      f2fs_snapshot create "/data/media/0/DCIM;/data/media/0/Download" /data/media/0/snapshotdir

-------------destroydirsnapshot-------------
f2fs_snapshot destroy [target_path]
ex:      f2fs_snapshot destroy /data/media/0/snapshotdir

-------------testcase-------------
f2fs_snapshot testcase
ex:      f2fs_snapshot testcase

)";

TEST_F(ToolTest, EndsWithAVerdictAndItsStatus) {
    fs::create_directories(at("empty"));
    fs::create_directories(at("x;/y/snapshot"));
    const std::string success = "execute sucess\n";
    const std::string not_found = "execute fail ret = -2\n";
    const std::string count = HELP + std::string("invalid argument number = ");
    const std::string command = HELP + std::string("invalid argument command\n");
    const std::string usage = "execute fail ret = -22\n";
    const struct {
        Words arguments;
        std::string out;
        int status;
        std::string logged;  // among others
    } table[] = {
        {{}, count + "1\n" + usage, 234, ""},
        {{"create", "a", "b", "c"}, count + "5\n" + usage, 234, ""},
        {{"pre"}, command + usage, 234, ""},
        {{"testcase", "a"}, command + usage, 234, ""},
        {{"create", "a"}, command + usage, 234, ""},
        {{"pre", "a", "b"}, command + usage, 234, ""},
        {{"PRE", "a"}, command + usage, 234, ""},
        {{"", "a"}, command + usage, 234, ""},
        {{"pre", ";;" + at("empty") + ";"}, success, 0, "PreCreateDirSnapshot entry"},
        {{"pre", at("none")}, not_found, 254, "Failed to open dir"},
        {{"create", "", at("t")}, success, 0, "empty dirpath size just return 0"},
        {{"create", ";" + at("empty"), at("a;b")}, success, 0, "a;b/snapshot"},
        {{"create", at("none"), at("t")}, not_found, 254, "snapshot first create fail ret = -2"},
        {{"destroy", at("x;/y")}, success, 0, ""},
        {{"destroy", at("x;/y")}, not_found, 254, "x;/y/snapshot"},
    };
    for (const auto& row : table) {
        Words words = row.arguments;
        words.insert(words.begin(), F2FS_SNAPSHOT_TOOL_PATH);
        const Outcome tool = runProcess(words);
        EXPECT_EQ(tool.out, row.out);
        EXPECT_EQ(tool.status, row.status) << row.out;
        EXPECT_NE(tool.err.find(row.logged), std::string::npos) << tool.err;
    }
    EXPECT_TRUE(fs::is_directory(at("a;b/snapshot") + at("empty")));
}

// The library's main, in this process, on a fake kernel.
TEST_F(TestCaseTest, EndsWithItsFirstFailure) {
    // The library's main comes next after this program's own.
    const auto tool_main = reinterpret_cast<int (*)(int, char**)>(dlsym(RTLD_NEXT, "main"));
    ASSERT_NE(tool_main, nullptr) << dlerror();
    const std::string media = "/data/media/0/";
    fs::create_directories(at(media + "DCIM"));
    fs::create_directories(at(media + "Documents"));
    const Words steps = {
        "I ---defaulttestcase enter---\\n", "I ------PreCreateDirSnapshot entry------\\n",
        "I ------CreateDirSnapshot for dstpath [/data/media/0/snapshotdir_001] entry------\\n",
        "I ------DestroyDirSnapshot for dstpath [/data/media/0/snapshotdir_001] entry------\\n",
        "I ---defaulttestcase exit---\\n"};
    const std::string mirror = "/data/media/0/snapshotdir_001/snapshot" + media;
    const struct {
        std::string call;  // that fails
        int skip;          // calls like it
        int answer;
        int result;
        size_t steps;
    } table[] = {
        {"none", 0, 0, 0, 5},
        {"opendir " + media + "Documents", 0, -1, -2, 2},
        {"DEDUP", 0, 300, 300, 2},
        {"mkdir " + mirror + "Documents", 0, 5, 5, 3},
        {"rmdir " + mirror + "DCIM", 0, -1, -1, 4},
        {"rmdir", 5, 5, 5, 4},  // of the snapshot root

    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.call);
        FakeKernel kernel(root);
        kernel.has_media = true;
        kernel.answer(row.call, {row.answer, EIO, {}}, row.skip);
        fs::remove_all(at(media + "snapshotdir_001"));
        write(at(media + "Documents/file"), "");
        std::string words[] = {"f2fs_snapshot", "testcase"};
        char* argv[] = {words[0].data(), words[1].data(), nullptr};
        testing::internal::CaptureStdout();
        EXPECT_EQ(kernel.run([&] { return tool_main(2, argv); }), row.result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(),
                  row.result == 0 ? "execute sucess\n"
                                  : "execute fail ret = " + std::to_string(row.result) + "\n");
        std::string expected;
        for (size_t step = 0; step < row.steps; ++step) {
            expected += steps[step] + "\n";
        }
        EXPECT_EQ(kernel.text({"I ---"}), expected);
        EXPECT_EQ(kernel.text({"CLONE_FILE"}).empty(), row.result == -2 || row.result == 300);
    }
}

TEST_F(PathsTest, SplittingDropsEmptyPiecesAndKeepsEverythingElse) {
    Words pieces = {"kept"};
    splitDirsString(";/a;/a;; b\n;/c:d", ';', pieces);
    splitDirsString("", ';', pieces);
    splitDirsString("e:f;g:", ':', pieces);
    EXPECT_EQ(pieces, (Words{"kept", "/a", "/a", " b\n", "/c:d", "e", "f;g"}));
    Words list = {"/a;/b;/c"};  // split into itself, which moves its first text
    splitDirsString(list[0], ';', list);
    EXPECT_EQ(list, (Words{"/a;/b;/c", "/a", "/b", "/c"}));
}

TEST_F(PathsTest, PathsWithDotDotInsideAreRejected) {
    FakeKernel kernel(root);
    for (const char* path : {"", "../a", "/data/x/..", "/..", "/data/..x/y", "/data/x../y"}) {
        EXPECT_TRUE(kernel.run([&] { return checkPathRegulate(path); })) << path;
    }
    for (const char* path : {"/../", "/data/../x", "x/../"}) {
        EXPECT_FALSE(kernel.run([&] { return checkPathRegulate(path); })) << path;
        EXPECT_EQ(kernel.text(), std::string("E checkPathRegulate path ") + path + " failed\\n\n");
    }
}

TEST_F(PathsTest, MissingDirectoriesAreMadeUpToTheFirstFailure) {
    FakeKernel kernel(root);
    const struct {
        const char* path;
        int32_t result;
        std::string end;  // of the trace, after the directories above root
    } table[] = {
        {"a/b", 0, "stat $/a = -1\nmkdir $/a 0770\nstat $/a/b = -1\nmkdir $/a/b 0770\n"},
        {"c/", 0, "stat $/c = -1\nmkdir $/c 0770\nstat $/c/\n"},
        {"a//b", 0, "stat $/a\nstat $/a/\nstat $/a//b\n"},
        {"file/x/y", -1, "mkdir $/file/x 0770 = -1\nE Failed to mkdir $/file/x ret = -1\\n\n"},
        {"file/x", -1, "mkdir $/file/x 0770 = -1\nE final Failed to mkdir $/file/x ret = -1\\n\n"},
        {"p/x", 5, "mkdir $/p 0770\nE Failed to mkdir $/p ret = 5\\n\n"},
    };
    write(at("file"), "");
    kernel.answer("mkdir $/p ", {5, 0, {}});
    for (const auto& row : table) {
        EXPECT_EQ(kernel.run([&] { return mkdirsLoop(at(row.path).c_str()); }), row.result);
        const std::string text = kernel.text();
        EXPECT_EQ(text.rfind(row.end), text.size() - row.end.size()) << text;
    }
    EXPECT_EQ(kernel.run([] { return mkdirsLoop("/"); }), 0);
    EXPECT_EQ(kernel.text(), "stat /\n");
    EXPECT_EQ(kernel.run([] { return mkdirsLoop(""); }), 0);
    EXPECT_EQ(kernel.text(), "");
    const auto path = [&](size_t length) {
        return std::string(length - at("d").size(), '/') + at("d");
    };
    EXPECT_EQ(mkdirsLoop(path(254).c_str()), 0);
    EXPECT_TRUE(fs::is_directory(at("d")));
    EXPECT_DEATH(mkdirsLoop(path(255).c_str()), "");
    EXPECT_DEATH(mkdirsLoop(path(400).c_str()), "");
}

}  // namespace
