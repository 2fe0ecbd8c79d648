// SPDX-License-Identifier: Apache-2.0
// The command-line tool, through its real binary where the engine's result can be had that way.
#include <dlfcn.h>

#include "tests/fake_kernel.h"
#include "tests/process.h"
#include "tests/test_tree.h"
#include "tool/main.h"

namespace {

using ToolTest = TestTree;

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

void expectTool(std::vector<std::string> arguments, const std::string& out, int status,
                const std::string& logged = "") {
    arguments.insert(arguments.begin(), F2FS_SNAPSHOT_TOOL_PATH);
    const Outcome tool = runProcess(arguments);
    EXPECT_EQ(tool.out, out);
    EXPECT_EQ(tool.status, status) << out;
    EXPECT_NE(tool.err.find(logged), std::string::npos) << tool.err;
}

TEST_F(ToolTest, WrongUsage) {
    const std::string command = "invalid argument command";
    const std::pair<std::vector<std::string>, std::string> table[] = {
        {{}, "invalid argument number = 1"},
        {{"create", "a", "b", "c"}, "invalid argument number = 5"},
        {{"pre"}, command},
        {{"testcase", "a"}, command},
        {{"create", "a"}, command},
        {{"pre", "a", "b"}, command},
        {{"PRE", "a"}, command},
        {{"", "a"}, command},
    };
    for (const auto& [arguments, complaint] : table) {
        expectTool(arguments, HELP + complaint + "\nexecute fail ret = -22\n", 234);
    }
}

TEST_F(ToolTest, CommandsReachTheEngine) {
    const std::string success = "execute sucess\n";
    const std::string not_found = "execute fail ret = -2\n";
    fs::create_directories(at("empty"));
    fs::create_directories(at("x;/y/snapshot"));
    expectTool({"pre", ";;" + at("empty") + ";"}, success, 0, "PreCreateDirSnapshot entry");
    expectTool({"pre", at("none")}, not_found, 254, "Failed to open dir");
    expectTool({"create", "", at("t")}, success, 0, "empty dirpath size just return 0");
    expectTool({"create", ";" + at("empty"), at("a;b")}, success, 0, "a;b/snapshot");
    EXPECT_TRUE(fs::is_directory(at("a;b/snapshot") + at("empty")));
    expectTool({"destroy", at("x;/y")}, success, 0);
    expectTool({"destroy", at("x;/y")}, not_found, 254, "x;/y/snapshot");
}

TEST_F(ToolTest, APositiveResultIsAFailureToo) {
    fs::create_directory(at("s"));
    write(at("s/a"), "");
    FakeKernel kernel(root);
    kernel.answer("DEDUP_GET_FILE_INFO", {300, 0, {}});
    // The library's, which comes next after this program's own.
    const auto tool_main = reinterpret_cast<int (*)(int, char**)>(dlsym(RTLD_NEXT, "main"));
    ASSERT_NE(tool_main, nullptr) << dlerror();
    std::string words[] = {"f2fs_snapshot", "pre", at("s")};
    char* argv[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(kernel.run([&] { return tool_main(3, argv); }), 300);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "execute fail ret = 300\n");

    kernel.fault = {1, true, EIO};  // its folders are not this test's: no call gets through
    EXPECT_EQ(kernel.run(default_testcase), -2);
}

}  // namespace
