// The command-line tool, through its real binary where the engine's result can be had that way.
#include <dlfcn.h>

#include "fake_kernel.h"
#include "process.h"
#include "test_tree.h"

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

Outcome tool(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), F2FS_SNAPSHOT_TOOL_PATH);
    return runProcess(arguments);
}

TEST_F(ToolTest, WrongUsage) {
    const std::string number = "invalid argument number = ";
    const std::string command = "invalid argument command";
    const std::pair<std::vector<std::string>, std::string> table[] = {
        {{}, number + "1"},
        {{"create", "a", "b", "c"}, number + "5"},
        {{"destroy", "a", "b", "c", "d"}, number + "6"},
        {{"pre"}, command},
        {{"testcase", "a"}, command},
        {{"create", "a"}, command},
        {{"pre", "a", "b"}, command},
        {{"destroy", "a", "b"}, command},
        {{"PRE", "a"}, command},
        {{"--help"}, command},
        {{""}, command},
    };
    for (const auto& [arguments, complaint] : table) {
        const Outcome outcome = tool(arguments);
        EXPECT_EQ(outcome.out, HELP + complaint + "\nexecute fail ret = -22\n");
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.status, 234);
    }
}

TEST_F(ToolTest, CommandsReachTheEngine) {
    fs::create_directories(at("empty"));
    fs::create_directories(at("x;/y/snapshot"));
    const struct {
        std::vector<std::string> arguments;
        int result;
        std::string logged;
    } table[] = {
        {{"pre", ""}, 0, "PreCreateDirSnapshot entry"},
        {{"pre", ";;" + at("empty") + ";"}, 0, ""},
        {{"pre", at("none")}, -2, "Failed to open dir"},
        {{"create", "", at("t")}, 0, "empty dirpath size just return 0"},
        {{"create", at("empty"), at("a;b")}, 0, "a;b/snapshot"},
        {{"create", at("a/../b"), at("t")}, -1, "checkPathRegulate"},
        {{"destroy", at("x;/y")}, 0, ""},
        {{"destroy", at("x;/y")}, -2, "x;/y/snapshot"},
    };
    for (const auto& row : table) {
        const Outcome outcome = tool(row.arguments);
        const std::string fail = "execute fail ret = " + std::to_string(row.result) + "\n";
        EXPECT_EQ(outcome.out, row.result == 0 ? "execute sucess\n" : fail) << row.arguments[1];
        EXPECT_EQ(outcome.status, row.result & 0xFF) << row.arguments[1];
        EXPECT_NE(outcome.err.find(row.logged), std::string::npos) << outcome.err;
    }
    EXPECT_TRUE(fs::is_directory(at("a;b/snapshot") + at("empty")));
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
}

}  // namespace
