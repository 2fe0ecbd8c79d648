// SPDX-License-Identifier: Apache-2.0
#include "tool/paths.h"

#include "tests/fake_kernel.h"
#include "tests/test_tree.h"

namespace {

using PathsTest = TestTree;

TEST(SplitDirsString, DropsEmptyPiecesAndKeepsEverythingElse) {
    std::vector<std::string> pieces = {"kept"};
    splitDirsString(";/a;/a;; b\n;/c:d", ';', pieces);
    splitDirsString("", ';', pieces);
    splitDirsString("e:f;g:", ':', pieces);
    EXPECT_EQ(pieces, (std::vector<std::string>{"kept", "/a", "/a", " b\n", "/c:d", "e", "f;g"}));
    // A list is split into itself, which moves its first text.
    std::vector<std::string> list = {"/a;/b;/c"};
    splitDirsString(list[0], ';', list);
    EXPECT_EQ(list, (std::vector<std::string>{"/a;/b;/c", "/a", "/b", "/c"}));
}

TEST_F(PathsTest, OnlyAStepUpInsideThePathIsRejected) {
    FakeKernel kernel(root);
    for (const char* path : {"", "../a", "/data/x/..", "/..", "/data/..x/y", "/data/x../y"}) {
        EXPECT_TRUE(kernel.run([&] { return checkPathRegulate(path); })) << path;
    }
    for (const char* path : {"/../", "/data/../x", "x/../"}) {
        EXPECT_FALSE(kernel.run([&] { return checkPathRegulate(path); })) << path;
        EXPECT_EQ(kernel.text(), std::string("E checkPathRegulate path ") + path + " failed\\n\n");
    }
}

TEST_F(PathsTest, MkdirsLoopMakesWhatIsMissingAndStopsAtTheFirstFailure) {
    FakeKernel kernel(root);
    const struct {
        const char* path;
        int32_t result;
        std::string end;  // of the trace, behind the folders above root
    } table[] = {
        {"a/b", 0, "stat $/a = -1\nmkdir $/a 0770 = 0\nstat $/a/b = -1\nmkdir $/a/b 0770 = 0\n"},
        {"c/", 0, "stat $/c = -1\nmkdir $/c 0770 = 0\nstat $/c/ = 0\n"},
        {"a//b", 0, "stat $/a = 0\nstat $/a/ = 0\nstat $/a//b = 0\n"},
        {"file/x/y", -1, "mkdir $/file/x 0770 = -1\nE Failed to mkdir $/file/x ret = -1\\n\n"},
        {"file/x", -1, "mkdir $/file/x 0770 = -1\nE final Failed to mkdir $/file/x ret = -1\\n\n"},
    };
    write(at("file"), "");
    for (const auto& row : table) {
        EXPECT_EQ(kernel.run([&] { return mkdirsLoop(at(row.path).c_str()); }), row.result);
        const std::string text = kernel.text();
        EXPECT_EQ(text.rfind(row.end), text.size() - row.end.size()) << text;
    }
    EXPECT_EQ(kernel.run([&] { return mkdirsLoop(""); }), 0);
    EXPECT_EQ(kernel.text(), "");
}

TEST_F(PathsTest, MkdirsLoopTakes254BytesAndEndsTheProcessAt255) {
    const auto path = [&](size_t length) {
        return std::string(length - at("d").size(), '/') + at("d");
    };
    EXPECT_EQ(mkdirsLoop(path(254).c_str()), 0);
    EXPECT_TRUE(fs::is_directory(at("d")));
    EXPECT_DEATH(mkdirsLoop(path(255).c_str()), "");
    EXPECT_DEATH(mkdirsLoop(path(400).c_str()), "");
}

}  // namespace
