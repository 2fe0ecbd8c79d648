#include "paths.h"

#include "fake_kernel.h"
#include "test_tree.h"

namespace {

using PathsTest = TestTree;

TEST(SplitDirsString, DropsEmptyPiecesAndKeepsEverythingElse) {
    const std::pair<std::string, std::vector<std::string>> table[] = {
        {"/a;/b", {"/a", "/b"}},
        {"/a", {"/a"}},
        {"", {}},
        {";", {}},
        {";;", {}},
        {";/a;;/b;", {"/a", "/b"}},
        {" /a", {" /a"}},
        {"/a;/a", {"/a", "/a"}},
        {"/a\n;\xFF", {"/a\n", "\xFF"}},
    };
    for (const auto& [text, expected] : table) {
        std::vector<std::string> pieces;
        splitDirsString(text, ';', pieces);
        EXPECT_EQ(pieces, expected) << text;
    }
    std::vector<std::string> pieces = {"first"};
    splitDirsString("a:b;c", ':', pieces);
    EXPECT_EQ(pieces, (std::vector<std::string>{"first", "a", "b;c"}));
    pieces = {"a text too long to be kept in place;/b;/c"};
    splitDirsString(pieces[0], ';', pieces);
    EXPECT_EQ(pieces.size(), 4U) << "a list may be split into itself";
}

TEST_F(PathsTest, OnlyAStepUpInsideThePathIsRejected) {
    FakeKernel kernel(root);
    for (const char* path : {"", "..", "../a", "a/..", "/data/x/..", "/data/./x", "//x", "/..",
                             "/...", "/data/media/0/DCIM", "/data/..x/y"}) {
        EXPECT_TRUE(kernel.run([&] { return checkPathRegulate(path); })) << path;
    }
    EXPECT_EQ(kernel.text(), "");
    for (const char* path : {"/../", "/data/../x", "x/../", "/data/media/0/../0/DCIM", "//../"}) {
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
        {"a/b", 0, "stat $/a = 0\nstat $/a/b = 0\n"},
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
    EXPECT_EQ(modeOf(at("a/b")), 0770);
    EXPECT_EQ(kernel.run([&] { return mkdirsLoop(""); }), 0);
    EXPECT_EQ(kernel.text(), "");
}

TEST_F(PathsTest, MkdirsLoopTakes254BytesAndEndsTheProcessAt255) {
    const auto relative = [](size_t length) {
        return std::string(100, 'a') + "/" + std::string(100, 'b') + "/" +
               std::string(length - 202, 'c');
    };
    const fs::path before = fs::current_path();
    fs::current_path(root);
    EXPECT_EQ(mkdirsLoop(relative(254).c_str()), 0);
    EXPECT_TRUE(fs::is_directory(relative(254)));
    for (const size_t length : {255U, 256U, 400U}) {
        EXPECT_DEATH(mkdirsLoop(relative(length).c_str()), "") << length;
    }
    fs::current_path(before);
}

}  // namespace
