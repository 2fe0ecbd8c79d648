// The engine on a fake kernel: which calls it makes, in which order, and what it says.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "f2fs_ioctl.h"
#include "fake_kernel.h"
#include "snapshot.h"
#include "test_tree.h"

// Runs an operation on the test's kernel.
#define RUN(...) kernel->run([&] { return __VA_ARGS__; })

namespace {

class EngineTest : public TestTree {
  protected:
    void SetUp() override {
        TestTree::SetUp();
        kernel.emplace(root);
        fs::create_directory(at("s"));
        fs::create_directory(at("d"));
    }
    void TearDown() override {
        EXPECT_EQ(kernel->openDescriptors(), 0U) << kernel->text();
        kernel.reset();
        TestTree::TearDown();
    }
    std::optional<FakeKernel> kernel;
};

// A run that fails at one call: the lines of the good run before it, the call with its result, and
// what follows.
std::string failedAt(const std::string& good, const std::string& call, int result,
                     const std::string& rest) {
    const size_t at = good.find("\n" + call + " ") + 1;
    const size_t equals = good.find(" = ", at);
    return good.substr(0, equals) + " = " + std::to_string(result) + "\n" + rest;
}

constexpr char PREPARED[] =
    R"(I PreCreateSingleFileSnapshot for file [$/s/a]\n
open $/s/a O_RDWR = 100
DEDUP_GET_FILE_INFO 100 {0, 0} = 0
I [$/s/a] is_deduped = 0 is_layered = 0\n
I ready to open srcdirpath = $/s\n
open $/s O_RDWR|O_TMPFILE 0770 = 101
MODIFY_CHECK 100 {0x82, 0x4} = 0
CLONE_FILE 101 {0x64, 0x160} = 0
SNAPSHOT_PREPARE 100 {0x65} = 0
close 101 = 0
close 100 = 0
I PreCreateSingleFileSnapshot done ret = 0\n
)";

TEST_F(EngineTest, PrepareFile) {
    write(at("s/a"), "data");
    EXPECT_EQ(RUN(PreCreateSingleFileSnapshot(at("s"), "a")), 0);
    EXPECT_EQ(kernel->text(), PREPARED);

    EXPECT_EQ(RUN(PreCreateSingleFileSnapshot(at("s"), "a")), 0);
    EXPECT_EQ(kernel->text(), R"(I PreCreateSingleFileSnapshot for file [$/s/a]\n
open $/s/a O_RDWR = 100
DEDUP_GET_FILE_INFO 100 {0, 0} = 0
I [$/s/a] is_deduped = 0 is_layered = 1\n
close 100 = 0
I PreCreateSingleFileSnapshot done ret = 0\n
)");
}

TEST_F(EngineTest, PrepareFileLogsStatesAsSignedAndGoesOnWhenOnlyDeduped) {
    write(at("s/a"), "data");
    kernel->answer("DEDUP_GET_FILE_INFO", {0, 0, 0x0000FFFF});
    EXPECT_EQ(RUN(PreCreateSingleFileSnapshot(at("s"), "a")), 0);
    std::string expected = PREPARED;
    const std::string state = "I [$/s/a] is_deduped = 0 is_layered = 0\\n\n";
    expected.replace(expected.find(state), state.size(),
                     "I [$/s/a] is_deduped = -1 is_layered = 0\\n\n"
                     "I srcdirpath = $/s deduped but not layered, error condition still to "
                     "prepare\\n\n");
    EXPECT_EQ(kernel->text(), expected);
}

struct FailedCall {
    const char* call;  // as it begins in the trace
    int answer;        // what the call returns
    int result;        // what the operation returns
    const char* rest;  // the trace behind the call
};

TEST_F(EngineTest, PrepareFileFailures) {
    write(at("s/a"), "data");
    const FailedCall table[] = {
        {"open $/s/a", -1, -2,
         "E open srcfilepath = $/s/a failed source_file_fd = -1 errno = 13\\n\n"},
        {"DEDUP_GET_FILE_INFO", 7, 7,
         "E F2FS_IOC_DEDUP_GET_FILE_INFO src failed\\n\nclose 100 = 0\n"},
        {"open $/s O_RDWR|O_TMPFILE", -1, -2,
         "E open failed srcdirpath = $/s source_dir_fd = -1\\n\nclose 100 = 0\n"},
        {"MODIFY_CHECK", -1, -1,
         "E F2FS_IOC_MODIFY_CHECK set source_file_fd failed ret = -1\\n\n"
         "close 101 = 0\nclose 100 = 0\n"},
        {"CLONE_FILE", -5, -5,
         "E F2FS_IOC_CLONE_FILE failed ret = -5\\n\nclose 101 = 0\nclose 100 = 0\n"},
        {"SNAPSHOT_PREPARE", 3, 3,
         "E F2FS_IOC_SNAPSHOT_PREPARE ioctl create fail ret = 3\\n\n"
         "close 101 = 0\nclose 100 = 0\n"},
    };
    for (const FailedCall& row : table) {
        kernel.emplace(root);
        kernel->answer(row.call, {row.answer, EACCES, {}});
        EXPECT_EQ(RUN(PreCreateSingleFileSnapshot(at("s"), "a")), row.result) << row.call;
        const std::string done =
            "I PreCreateSingleFileSnapshot done ret = " + std::to_string(row.result) + "\\n\n";
        EXPECT_EQ(kernel->text(), failedAt(PREPARED, row.call, row.answer, row.rest + done));
        EXPECT_EQ(kernel->openDescriptors(), 0U);
    }
}

TEST_F(EngineTest, PrepareWalksDepthFirstAndSkipsWhatIsNoFile) {
    fs::create_directories(at("s/b/c"));
    write(at("s/a"), "");
    write(at("s/b/c/d"), "");
    write(at("s/b/e"), "");
    write(at("s/.hidden"), "");
    fs::create_symlink("a", at("s/link"));
    ASSERT_EQ(mkfifo(at("s/pipe").c_str(), 0600), 0);
    write(at("s/unknown"), "");
    kernel->types["unknown"] = DT_UNKNOWN;
    EXPECT_EQ(RUN(PreCreateDirSnapshot({at("s"), at("d")})), 0);
    std::string opened;
    for (const std::string& line : kernel->trace) {
        opened += line.find("opendir") == 0 || line.find(" O_RDWR = ") != std::string::npos ||
                          line.find("closedir") == 0
                      ? line + "\n"
                      : "";
    }
    EXPECT_EQ(opened, R"(opendir $/s = 0
open $/s/.hidden O_RDWR = 100
open $/s/a O_RDWR = 100
opendir $/s/b = 0
opendir $/s/b/c = 0
open $/s/b/c/d O_RDWR = 100
closedir = 0
open $/s/b/e O_RDWR = 100
closedir = 0
closedir = 0
opendir $/d = 0
closedir = 0
)");
}

TEST_F(EngineTest, PrepareStopRules) {
    fs::create_directories(at("s/b"));
    write(at("s/a"), "");
    write(at("s/b/x"), "");
    write(at("s/b/y"), "");
    write(at("s/c"), "");
    const auto prepared = [&](int nth, int answer, const std::vector<std::string>& sources) {
        kernel.emplace(root);
        kernel->answer("DEDUP_GET_FILE_INFO", {answer, EIO, {}}, nth - 1);
        const int32_t ret = RUN(PreCreateDirSnapshot(sources));
        size_t files = 0;
        for (const std::string& line : kernel->trace) {
            files += line.find("DEDUP_GET_FILE_INFO") == 0 ? 1U : 0U;
        }
        return std::make_pair(ret, files);
    };
    const std::string s = at("s");
    // A file of the source itself stops it on either sign; below, a positive one only there.
    EXPECT_EQ(prepared(1, -1, {s}), std::make_pair(-1, size_t{1}));
    EXPECT_EQ(kernel->trace.back(), "E fail to PreCreateSingleDirSnapshot ret = -1\\n");
    EXPECT_EQ(prepared(1, 5, {s}), std::make_pair(5, size_t{1}));
    EXPECT_EQ(prepared(2, -9, {s}), std::make_pair(-9, size_t{2}));
    EXPECT_EQ(prepared(2, 5, {s}), std::make_pair(0, size_t{3})) << "c is prepared, y is not";
    // A positive source does not stop the list, and counts only when it is the last.
    EXPECT_EQ(prepared(1, 5, {s, at("d")}), std::make_pair(0, size_t{1}));
    EXPECT_EQ(prepared(1, -1, {s, at("d")}), std::make_pair(-1, size_t{1}));
}

TEST_F(EngineTest, PrepareLists) {
    EXPECT_EQ(RUN(PreCreateDirSnapshot({})), 0);
    EXPECT_EQ(kernel->text(), "I ------PreCreateDirSnapshot entry------\\n\n");
    EXPECT_EQ(RUN(PreCreateDirSnapshot({at("s"), at("s/../d"), at("d")})), -1);
    EXPECT_EQ(kernel->text(),
              "I ------PreCreateDirSnapshot entry------\\n\nopendir $/s = 0\nclosedir = 0\n"
              "E checkPathRegulate path $/s/../d failed\\n\n");
    EXPECT_EQ(RUN(PreCreateDirSnapshot({at("none"), at("s")})), -2);
    EXPECT_EQ(kernel->log(),
              "I ------PreCreateDirSnapshot entry------\\n\nE Failed to open dir $/none\\n\n"
              "E fail to PreCreateSingleDirSnapshot ret = -2\\n\n");
}

constexpr char SNAPSHOTTED[] =
    R"(I CreateSingleFileSnapshot for [$/s/a]\n
open $/s/a O_RDONLY = 100
stat $/s/a = 0
open $/d/a O_RDWR|O_CREAT|O_TRUNC 0440 = 101
fallocate 101 0 0 4 = 0
MODIFY_CHECK 100 {0x82, 0x4} = 0
MODIFY_CHECK 101 {0x82, 0x4} = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
I F2FS_IOC_SNAPSHOT_CREATE ioctl create success\n
close 101 = 0
close 100 = 0
)";

TEST_F(EngineTest, SnapshotFile) {
    write(at("s/a"), "data");
    EXPECT_EQ(RUN(CreateSingleFileSnapshot(at("s"), "a", at("d"))), 0);
    EXPECT_EQ(kernel->text(), SNAPSHOTTED);
    EXPECT_EQ(read(at("d/a")), "data");
    EXPECT_EQ(modeOf(at("d/a")), 0440);

    write(at("s/empty"), "");
    EXPECT_EQ(RUN(CreateSingleFileSnapshot(at("s"), "empty", at("d"))), 0);
    EXPECT_EQ(kernel->text().find("fallocate"), std::string::npos);
    EXPECT_NE(kernel->text().find("SNAPSHOT_CREATE 101"), std::string::npos);
}

TEST_F(EngineTest, SnapshotFilePassesOneRecordOnFromSourceToDestination) {
    write(at("s/a"), "data");
    kernel->answer("MODIFY_CHECK", {0, 0, 0xABCD});
    EXPECT_EQ(RUN(CreateSingleFileSnapshot(at("s"), "a", at("d"))), 0);
    EXPECT_NE(kernel->text().find("MODIFY_CHECK 101 {0xabcd, 0x4} = 0"), std::string::npos);
}

TEST_F(EngineTest, SnapshotFileFailures) {
    write(at("s/a"), "data");
    const FailedCall table[] = {
        {"open $/s/a", -1, -2, "E open failed srcfilepath = $/s/a source_file_fd = -1\\n\n"},
        {"stat", -1, -1, "E stat failed srcfilepath = $/s/a\\n\nclose 100 = 0\n"},
        {"open $/d/a", -1, -2,
         "E open failed dstfilepath = $/d/a dst_file_fd = -1\\n\nclose 100 = 0\n"},
        {"fallocate", -1, -1,
         "E fallocate failed dstfilepath = $/d/a dst_file_fd = 101\\n\n"
         "close 101 = 0\nclose 100 = 0\n"},
        {"MODIFY_CHECK 100", -4, -4,
         "E [$/s/a] F2FS_IOC_MODIFY_CHECK failed ret = -4\\n\nclose 101 = 0\nclose 100 = 0\n"},
        {"MODIFY_CHECK 101", 4, 4,
         "E [$/d/a] F2FS_IOC_MODIFY_CHECK failed ret = 4\\n\nclose 101 = 0\nclose 100 = 0\n"},
        {"SNAPSHOT_CREATE", -1, -1,
         "E F2FS_IOC_SNAPSHOT_CREATE ioctl create fail ret = -1\\n\n"
         "close 101 = 0\nclose 100 = 0\n"},
    };
    for (const FailedCall& row : table) {
        kernel.emplace(root);
        kernel->answer(row.call, {row.answer, EIO, {}});
        EXPECT_EQ(RUN(CreateSingleFileSnapshot(at("s"), "a", at("d"))), row.result) << row.call;
        EXPECT_EQ(kernel->text(), failedAt(SNAPSHOTTED, row.call, row.answer, row.rest));
        EXPECT_EQ(kernel->openDescriptors(), 0U);
    }
}

TEST_F(EngineTest, SnapshotFileCutsTheLengthTo32Bits) {
    const struct {
        int64_t size;
        const char* call;
        int32_t result;
    } table[] = {
        {(3LL << 30), "fallocate 101 0 0 -1073741824 = -1", -1},
        {(4LL << 30), "fallocate 101 0 0 0 = -1", -1},
        {(5LL << 30), "fallocate 101 0 0 1073741824 = 0", 0},
        {(4LL << 30) + 1, "fallocate 101 0 0 1 = 0", 0},
    };
    write(at("s/a"), "");
    for (const auto& [size, call, result] : table) {
        fs::resize_file(at("s/a"), static_cast<uintmax_t>(size));
        EXPECT_EQ(RUN(CreateSingleFileSnapshot(at("s"), "a", at("d"))), result) << size;
        EXPECT_NE(kernel->text().find(call), std::string::npos) << kernel->text();
    }
}

TEST_F(EngineTest, SoftLinkKeepsItsTextByteForByte) {
    for (const std::string& text : {std::string("a"), std::string("/absolute/target"),
                                    std::string("none\n\xFF; "), std::string(4095, 'x')}) {
        fs::create_symlink(text, at("s/link"));
        EXPECT_EQ(RUN(CreateSingleFileSoftLink(at("s"), "link", at("d"))), 0);
        EXPECT_EQ(fs::read_symlink(at("d/link")).string(), text);
        const std::string shown = kernel->shown(text);
        const std::string length = std::to_string(text.size());
        EXPECT_EQ(kernel->text(), "readlink $/s/link 4096 = " + length + "\n" +
                                      "I CreateSingleFileSoftLink readlink [$/s/link] [" + shown +
                                      "] ret = " + length + "\\n\nsymlink " + shown +
                                      " $/d/link = 0\n" + "I CreateSingleFileSoftLink symlink [" +
                                      shown + "] [$/d/link] ret = 0\\n\n");
        fs::remove(at("s/link"));
        fs::remove(at("d/link"));
    }
    write(at("s/file"), "");
    EXPECT_EQ(RUN(CreateSingleFileSoftLink(at("s"), "file", at("d"))), -1);
    EXPECT_EQ(kernel->log(), "I CreateSingleFileSoftLink readlink [$/s/file] [] ret = -1\\n\n");
    fs::create_symlink("t", at("s/file2"));
    write(at("d/file2"), "kept");
    EXPECT_EQ(RUN(CreateSingleFileSoftLink(at("s"), "file2", at("d"))), -1);
    EXPECT_EQ(kernel->trace.back(),
              "I CreateSingleFileSoftLink symlink [t] [$/d/file2] ret = -1\\n");
    EXPECT_EQ(read(at("d/file2")), "kept");
}

TEST_F(EngineTest, MirrorOneTree) {
    fs::create_directories(at("s/b/empty"));
    fs::create_directories(at("s/t/snapshot/old"));
    write(at("s/a"), "A");
    write(at("s/b/.c"), "C");
    fs::create_symlink("b", at("s/l"));
    EXPECT_EQ(RUN(CreateSingleDirSnapshot(at("s"), at("d"), at("s/t/snapshot"))), 0);
    EXPECT_NE(kernel->log().find(
                  "E subdirpath $/s/t/snapshot found same with rawdstpath just continue\\n\n"),
              std::string::npos);
    std::string calls;
    for (const std::string& line : kernel->trace) {
        calls += (line.find("dir") < 6 && line[1] != ' ') || line.find("symlink") == 0 ||
                         line.find("SNAPSHOT_") == 0
                     ? line + "\n"
                     : "";
    }
    EXPECT_EQ(calls, R"(opendir $/s = 0
SNAPSHOT_PREPARE 100 {0x65} = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
mkdir $/d/b 0770 = 0
opendir $/s/b = 0
SNAPSHOT_PREPARE 100 {0x65} = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
mkdir $/d/b/empty 0770 = 0
opendir $/s/b/empty = 0
closedir = 0
closedir = 0
symlink b $/d/l = 0
mkdir $/d/t 0770 = 0
opendir $/s/t = 0
closedir = 0
closedir = 0
)");
    EXPECT_EQ(read(at("d/b/.c")), "C");
    EXPECT_EQ(modeOf(at("d/b")), 0770);
    EXPECT_EQ(modeOf(at("d/t/snapshot")), -1);
}

TEST_F(EngineTest, MirrorStopsAtTheFirstFailure) {
    fs::create_directory(at("s/b"));
    write(at("s/b/x"), "");
    write(at("s/c"), "");
    const auto mirror = [&] { return RUN(CreateSingleDirSnapshot(at("s"), at("d"), at("root"))); };
    kernel->answer("SNAPSHOT_CREATE", {5, 0, {}});
    EXPECT_EQ(mirror(), 5) << "a positive result of a subdirectory stops it too";
    EXPECT_EQ(modeOf(at("d/c")), -1);
    EXPECT_EQ(mirror(), -1);
    EXPECT_EQ(kernel->log(), "E Failed to mkdir $/d/b\\n\n");
    EXPECT_EQ(RUN(CreateSingleDirSnapshot(at("s/c"), at("d"), "")), -2);
    EXPECT_EQ(kernel->log(), "E Failed to open dir $/s/c\\n\n");
    for (const auto& [type, number] : {std::make_pair(DT_FIFO, "1"), std::make_pair(DT_SOCK, "12"),
                                       std::make_pair(DT_UNKNOWN, "0")}) {
        kernel->types["b"] = static_cast<unsigned char>(type);
        EXPECT_EQ(mirror(), -22);
        EXPECT_EQ(kernel->log(),
                  std::string("E INVALID file_type = ") + number + " return EINVAL\\n\n");
    }
}

// What a check lists, a line each.
std::string listed(const std::vector<file_info>& list) {
    std::string text;
    for (const file_info& file : list) {
        text += file.srcdirpath + " " + file.filename + "\n";
    }
    return text;
}

TEST_F(EngineTest, CheckListsMissingChangedAndUnaskableFiles) {
    for (const char* name : {"changed", "missing", "refused", "same", "unreadable", "unset"}) {
        write(at(std::string("s/") + name), "old");
    }
    const std::string snapshot = at("d/snapshot");
    fs::create_directories(snapshot + at("s"));
    ASSERT_EQ(RUN(CreateSingleDirSnapshot(at("s"), snapshot + at("s"), snapshot)), 0);
    fs::remove(snapshot + at("s/missing"));
    write(at("s/changed"), "new");
    fs::create_directory(at("s/sub"));
    write(at("s/sub/late"), "late");
    fs::create_symlink("same", at("s/link"));
    kernel->answer("MODIFY_CHECK", {-1, EIO, MODIFY_CHECK_UNCHANGED}, 2);
    kernel->answer("MODIFY_CHECK", {0, 0, 0xFFFFFFFD}, 5);  // "unset", behind "late"
    kernel->answer("open $/s/unreadable", {-1, EACCES, {}});
    std::vector<file_info> list = {{"kept", "entry"}};
    EXPECT_EQ(RUN(checkModifyFiles(at("s"), list, snapshot)), 0);
    EXPECT_EQ(kernel->shown(listed(list)),
              "kept entry\\n$/s changed\\n$/s missing\\n$/s refused\\n$/s/sub late\\n"
              "$/s unreadable\\n$/s unset\\n");
    const auto ready = [](const std::string& file) {
        return "I ready to check modify flag for sourcefilefullpath = $/s/" + file +
               " dstsnapshotfilepath = $/d/snapshot$/s/" + file + "\\n\n";
    };
    const std::string missing = "I dstsnapshotfile already not exist, add to modifyfilelist\\n\n";
    EXPECT_EQ(kernel->log(), ready("changed") + ready("missing") + missing + ready("refused") +
                                 "E F2FS_IOC_MODIFY_CHECK:get $/s/refused failed\\n\n" +
                                 ready("same") + ready("sub/late") + missing + ready("unreadable") +
                                 "E path_fd [$/s/unreadable] open failed errno = 13\\n\n" +
                                 ready("unset"));
    EXPECT_EQ(kernel->text().substr(kernel->text().find("open $/s/same"),
                                    std::string("open $/s/same O_RDONLY = 100\n").size() +
                                        std::string("MODIFY_CHECK 100 {0, 0x8} = 0\nclose 100 = "
                                                    "0\nstat $/d/snapshot$/s/same = 0\n")
                                            .size()),
              "open $/s/same O_RDONLY = 100\nMODIFY_CHECK 100 {0, 0x8} = 0\nclose 100 = 0\n"
              "stat $/d/snapshot$/s/same = 0\n");
}

TEST_F(EngineTest, CheckStopsOnlyAtADirectoryThatCannotBeOpened) {
    fs::create_directories(at("s/b/c"));
    fs::create_directories(at("s/t/snapshot"));
    write(at("s/a"), "");
    write(at("s/t/snapshot/old"), "");
    write(at("s/z"), "");
    std::vector<file_info> list;
    EXPECT_EQ(RUN(checkModifyFiles(at("s"), list, at("s/t/snapshot"))), 0);
    EXPECT_EQ(kernel->shown(listed(list)), "$/s a\\n$/s z\\n");
    EXPECT_NE(kernel->log().find(
                  "E subdirpath $/s/t/snapshot found same with rawdstpath just continue\\n\n"),
              std::string::npos);
    list.clear();
    kernel->answer("opendir $/s/b/c", {-1, EACCES, {}});
    EXPECT_EQ(RUN(checkModifyFiles(at("s"), list, at("s/t/snapshot"))), -2);
    EXPECT_EQ(kernel->shown(listed(list)), "$/s a\\n");
    EXPECT_EQ(kernel->log().substr(kernel->log().rfind("E ")), "E Failed to open dir $/s/b/c\\n\n");
    list.clear();
    EXPECT_EQ(RUN(checkModifyFiles(at("s") + "/", list, at("s/t/snapshot"))), 0);
    EXPECT_EQ(list.size(), 3U) << "a doubled slash is another path";
}

constexpr char ENTRY[] = "I ------CreateDirSnapshot for dstpath [$/d] entry------\\n\n";
constexpr char UNMODIFIED[] = "I ALL file not modified, success return\\n\n";

std::string without(std::string text, const std::vector<std::string>& beginnings) {
    std::string kept;
    for (size_t begin = 0, end = 0; begin < text.size(); begin = end) {
        end = text.find('\n', begin) + 1;
        const std::string line = text.substr(begin, end - begin);
        const bool drop = std::any_of(beginnings.begin(), beginnings.end(), [&](const auto& b) {
            return line.compare(0, b.size(), b) == 0;
        });
        kept += drop ? "" : line;
    }
    return kept;
}

// The lines of the driver itself, without those of the files and the walks.
std::string driverLog(const FakeKernel& kernel) {
    return without(kernel.log(), {"I PreCreate", "I CreateSingle", "I ready", "I [$/s", "I F2FS",
                                  "I dst", "I DestroyDirSnapshotInter"});
}

TEST_F(EngineTest, CreateChecksItsPathsFirst) {
    EXPECT_EQ(RUN(CreateDirSnapshot({}, at("d/../d"))), 0);
    EXPECT_EQ(kernel->text(),
              "I ------CreateDirSnapshot for dstpath [$/d/../d] entry------\\n\n"
              "E empty dirpath size just return 0\\n\n");
    const std::pair<std::vector<std::string>, std::string> table[] = {
        {{at("s"), at("s/../s"), "/../"}, at("d")}, {{at("s")}, at("s/../d")}};
    for (const auto& row : table) {
        EXPECT_EQ(RUN(CreateDirSnapshot(row.first, row.second)), -1);
        EXPECT_EQ(kernel->trace.size(), 2U);
        EXPECT_EQ(kernel->calls, 0U);
        EXPECT_EQ(kernel->trace.back().find("E checkPathRegulate path $/s/../"), 0U);
    }
}

TEST_F(EngineTest, CreateMakesTheRootAndRemakesAnOldOne) {
    write(at("s/a"), "A");
    fs::create_directory(at("s2"));
    EXPECT_EQ(RUN(CreateDirSnapshot({at("s"), at("s2")}, at("d/new"))), 0);
    EXPECT_EQ(driverLog(*kernel),
              "I ------CreateDirSnapshot for dstpath [$/d/new] entry------\\n\n"
              "I prepare dstpath [$/d/new/snapshot$/s] dir first\\n\n"
              "I prepare dstpath [$/d/new/snapshot$/s2] dir first\\n\n" +
                  std::string(UNMODIFIED));
    EXPECT_EQ(read(at("d/new/snapshot") + at("s/a")), "A");
    EXPECT_TRUE(fs::is_directory(at("d/new/snapshot") + at("s2")));
    EXPECT_EQ(modeOf(at("d/new/snapshot") + at("s")), 0770);

    fs::remove(at("s/a"));
    EXPECT_EQ(RUN(CreateDirSnapshot({at("s")}, at("d/new"))), 0);
    EXPECT_NE(kernel->log().find("I dstpath [$/d/new/snapshot] already exist need destroy first"),
              std::string::npos);
    EXPECT_FALSE(fs::exists(at("d/new/snapshot") + at("s/a")));
    EXPECT_FALSE(fs::exists(at("d/new/snapshot") + at("s2")));
}

TEST_F(EngineTest, CreateFailures) {
    const std::string prepare = "I prepare dstpath [$/d/snapshot$/s] dir first\\n\n";
    const struct {
        const char* call;
        int skip;
        int error;
        int32_t result;
        std::string log;
        bool root_kept;
        bool old_root;
    } table[] = {
        {"mkdir $/d/snapshot ", 0, EACCES, -1,
         "E final Failed to mkdir $/d/snapshot ret = -1\\n\n"
         "E dstpath [$/d/snapshot] not exist and mkdirsLoop fail ret = -1 and return\\n\n",
         false, false},
        {"rmdir $/d/snapshot", 0, EBUSY, -1,
         "I dstpath [$/d/snapshot] already exist need destroy first\\n\n"
         "E dstpath [$/d/snapshot] destroy fail and return\\n\n",
         true, true},
        {"mkdir $/d/snapshot ", 0, ENOSPC, -1,
         "I dstpath [$/d/snapshot] already exist need destroy first\\n\n"
         "E final Failed to mkdir $/d/snapshot ret = -1\\n\n"
         "E mkdirsLoop fail ret = -1 even after DestroyDirSnapshot\\n\n",
         false, true},
        {"mkdir $/d/snapshot$/s 0770", 0, ENOSPC, -1,
         prepare + "E final Failed to mkdir $/d/snapshot$/s ret = -1\\n\n"
                   "E Failed to mkdirsLoop $/d/snapshot$/s\\n\n",
         true, false},
        {"open $/s/a O_RDWR", 0, EACCES, -2,
         prepare + "E open srcfilepath = $/s/a failed source_file_fd = -1 errno = 13\\n\n"
                   "E [$/d/snapshot] snapshot first create fail ret = -2 destroy ret1 = 0\\n\n",
         false, false},
        {"opendir $/s", 1, EMFILE, 0,
         prepare + "E Failed to open dir $/s\\n\nE fail to checkModifyFiles ret = -2\\n\n" +
             UNMODIFIED,
         true, false},
    };
    write(at("s/a"), "A");
    for (const auto& row : table) {
        fs::remove_all(at("d/snapshot"));
        kernel.emplace(root);
        if (row.old_root) {
            fs::create_directory(at("d/snapshot"));
        }
        kernel->answer(row.call, {-1, row.error, {}}, row.skip);
        EXPECT_EQ(RUN(CreateDirSnapshot({at("s")}, at("d"))), row.result) << row.call;
        const std::string log =
            without(kernel->log(), {"I PreCreate", "I CreateSingle", "I ready", "I [$/s", "I F2FS",
                                    "I DestroyDirSnapshotInter"});
        EXPECT_EQ(log, ENTRY + row.log);
        EXPECT_EQ(fs::exists(at("d/snapshot")), row.root_kept) << row.call;
        EXPECT_EQ(kernel->openDescriptors(), 0U);
    }
}

// A writer that changes the source at chosen calls.
TEST_F(EngineTest, CreateTakesChangedFilesAgain) {
    write(at("s/a"), "0");
    write(at("s/b"), "kept");
    int changes = 0;
    kernel->before = [&](const std::string& call) {
        if (call.find("SNAPSHOT_CREATE") == 0 && changes < 2) {
            write(at("s/a"), std::to_string(++changes));
        }
    };
    EXPECT_EQ(RUN(CreateDirSnapshot({at("s")}, at("d"))), 0);
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(read(at("d/snapshot") + at("s/a")), "2");
    const std::string text = kernel->text();
    const std::string again =
        "unlink $/d/snapshot/$/s/a = 0\nI [$/d/snapshot/$/s/a] unlink ret = 0 errno = ";
    const size_t first = text.find(again);
    ASSERT_NE(first, std::string::npos);
    EXPECT_NE(text.find(" and ready to recreate snapshot\\n\n"
                        "I PreCreateSingleFileSnapshot for file [$/s/a]\\n\n",
                        first),
              std::string::npos);
    EXPECT_NE(text.find("open $/d/snapshot/$/s/a O_RDWR|O_CREAT|O_TRUNC 0440 = 101", first),
              std::string::npos);
    EXPECT_EQ(text.find("unlink $/d/snapshot/$/s/b"), std::string::npos);
}

TEST_F(EngineTest, CreateGivesUpAfterElevenPasses) {
    write(at("s/a"), "");
    int creations = 0;
    kernel->before = [&](const std::string& call) {
        if (call.find("SNAPSHOT_CREATE") == 0) {
            write(at("s/a"), std::to_string(++creations));
        }
    };
    EXPECT_EQ(RUN(CreateDirSnapshot({at("s")}, at("d"))), -11);
    EXPECT_EQ(creations, 12) << "the first creation and one in each of eleven passes";
    const std::string log = driverLog(*kernel);
    EXPECT_EQ(log.substr(log.find("E ")),
              "E reach MAX_LOOP_COUNT=10 and exit\\n\n"
              "E [$/d/snapshot] snapshot create fail ret = -11 destroy ret1 = 0\\n\n");
    EXPECT_FALSE(fs::exists(at("d/snapshot")));
}

TEST_F(EngineTest, RecreationFailures) {
    const auto ended = [](const char* ret, const char* ret1) {
        return std::string("E [$/d/snapshot] snapshot create fail ret = ") + ret +
               " destroy ret1 = " + ret1 + "\\n\n";
    };
    const struct {
        const char* call;
        int skip;
        int error;
        int32_t result;
        std::string end;
    } table[] = {
        {"unlink $/d/snapshot/$/s/a", 0, EACCES, -1, ended("-1", "0")},
        {"unlink $/d/snapshot/$/s/a", 0, ENOENT, 0, UNMODIFIED},
        {"DEDUP_GET_FILE_INFO", 1, EIO, -1, ended("-1", "0")},
        {"open $/d/snapshot/$/s/a", 0, EACCES, -2, ended("-2", "0")},
    };
    for (const auto& row : table) {
        write(at("s/a"), "old");
        kernel.emplace(root);
        bool changed = false;
        kernel->before = [&](const std::string& call) {
            if (call.find("SNAPSHOT_CREATE") == 0 && !changed) {
                changed = true;
                write(at("s/a"), "new");
            }
        };
        kernel->answer(row.call, {-1, row.error, {}}, row.skip);
        EXPECT_EQ(RUN(CreateDirSnapshot({at("s")}, at("d"))), row.result) << row.call;
        const std::string log = driverLog(*kernel);
        EXPECT_EQ(log.substr(log.size() - row.end.size()), row.end);
        EXPECT_EQ(fs::exists(at("d/snapshot")), row.result == 0);
        EXPECT_EQ(kernel->openDescriptors(), 0U);
    }
}

TEST_F(EngineTest, CreateWithChangesToTheTreeMeanwhile) {
    fs::create_directory(at("s/b"));
    write(at("s/a"), "");
    write(at("s/gone"), "kept");
    const auto onCheck = [&](const std::function<void()>& change) {
        kernel.emplace(root);
        kernel->before = [&, change, passes = 0](const std::string& call) mutable {
            if (call.find("opendir $/s") == 0 && call.size() == 11 && ++passes == 2) {
                change();
            }
        };
        return RUN(CreateDirSnapshot({at("s")}, at("d")));
    };
    EXPECT_EQ(onCheck([&] {
                  fs::remove(at("s/gone"));
                  write(at("s/b/new"), "new");
              }),
              0);
    EXPECT_EQ(read(at("d/snapshot") + at("s/gone")), "kept");
    EXPECT_EQ(read(at("d/snapshot") + at("s/b/new")), "new");
    EXPECT_EQ(onCheck([&] { fs::create_directory(at("s/late")); }), 0);
    EXPECT_FALSE(fs::exists(at("d/snapshot") + at("s/late")));
    EXPECT_EQ(onCheck([&] {
                  fs::create_directory(at("s/later"));
                  write(at("s/later/file"), "");
              }),
              -2);
    EXPECT_FALSE(fs::exists(at("d/snapshot")));
}

TEST_F(EngineTest, CreateJoinsPathsAsTheyAre) {
    const fs::path before = fs::current_path();
    fs::current_path(root);
    write(at("s/a"), "A");
    fs::create_directory(at("t"));
    EXPECT_EQ(RUN(CreateDirSnapshot({"s"}, at("t/"))), 0);
    EXPECT_NE(kernel->log().find("I prepare dstpath [$/t//snapshots] dir first\\n\n"),
              std::string::npos);
    EXPECT_EQ(read(at("t/snapshots/a")), "A");
    fs::current_path(before);
}

TEST_F(EngineTest, Destroy) {
    const std::string entry = "I ------DestroyDirSnapshot for dstpath [$/d] entry------\\n\n";
    const std::string enter = "I DestroyDirSnapshotInter for dstpath [$/d/snapshot";
    EXPECT_EQ(RUN(DestroyDirSnapshot(at("d"))), -2);
    EXPECT_EQ(kernel->text(), entry + enter +
                                  "] enter\\n\nopendir $/d/snapshot = -1\n"
                                  "E Failed to open dir $/d/snapshot\\n\n");
    EXPECT_EQ(RUN(DestroyDirSnapshot(at("s/../d"))), -1);
    EXPECT_EQ(kernel->trace.size(), 2U);

    fs::create_directories(at("d/snapshot/x"));
    write(at("s/target"), "kept");
    write(at("d/snapshot/f"), "");
    write(at("d/snapshot/x/.h"), "");
    fs::create_symlink(at("s/target"), at("d/snapshot/l"));
    fs::create_symlink(at("s"), at("d/snapshot/x/dir"));
    EXPECT_EQ(RUN(DestroyDirSnapshot(at("d"))), 0);
    EXPECT_EQ(kernel->text(), entry + enter + R"(] enter\n
opendir $/d/snapshot = 0
unlink $/d/snapshot/f = 0
unlink $/d/snapshot/l = 0
)" + enter + R"(/x] enter\n
opendir $/d/snapshot/x = 0
unlink $/d/snapshot/x/.h = 0
unlink $/d/snapshot/x/dir = 0
closedir = 0
rmdir $/d/snapshot/x = 0
)" + enter + R"(/x] leave ret = 0\n
closedir = 0
rmdir $/d/snapshot = 0
)" + enter + "] leave ret = 0\\n\n");
    EXPECT_EQ(read(at("s/target")), "kept");
    EXPECT_TRUE(fs::is_directory(at("d")));
}

TEST_F(EngineTest, DestroyStopsAtWhatItCannotRemove) {
    const auto fill = [&] {
        fs::create_directories(at("d/snapshot/b"));
        for (const char* name : {"a", "b/x", "b/y", "c"}) {
            write(at(std::string("d/snapshot/") + name), "");
        }
        kernel.emplace(root);
    };
    const auto left = [&](const char* name) { return fs::exists(at("d/snapshot/") + name); };
    fill();
    kernel->answer("unlink $/d/snapshot/b/x", {-1, EACCES, {}});
    EXPECT_EQ(RUN(DestroyDirSnapshot(at("d"))), -1);
    EXPECT_TRUE(!left("a") && left("b/x") && left("b/y") && left("c"));
    EXPECT_NE(kernel->text().find("E unlink [$/d/snapshot/b/x] fail ret = -1\\n\nclosedir = 0\n"
                                  "rmdir $/d/snapshot/b = -1\n"),
              std::string::npos);
    EXPECT_EQ(RUN(DestroyDirSnapshot(at("d"))), 0) << "a second call picks up what is left";

    fill();
    ASSERT_EQ(mkfifo(at("d/snapshot/b/pipe").c_str(), 0600), 0);
    EXPECT_EQ(RUN(DestroyDirSnapshot(at("d"))), -1);
    EXPECT_TRUE(!left("b/x") && !left("b/y") && left("b/pipe") && left("c"));
    EXPECT_NE(kernel->log().find("E INVALID file_type = 1 found and continue\\n\n"),
              std::string::npos);

    fs::remove(at("d/snapshot/b/pipe"));
    fill();
    kernel->answer("opendir $/d/snapshot/b", {-1, EMFILE, {}});
    EXPECT_EQ(RUN(DestroyDirSnapshot(at("d"))), -1);
    EXPECT_TRUE(left("b/x") && left("c"));
}

TEST_F(EngineTest, RevokeDedupFile) {
    const int fd = open(at("s").c_str(), O_RDONLY | O_DIRECTORY);
    kernel->answer("DEDUP_REVOKE 0 {0}", {-1, ENOTTY, {}});
    const struct {
        int32_t file_handle;
        int32_t result;
        std::string text;
    } table[] = {
        {-1, -1, "E invalid file_handle = -1 return\\n\n"},
        {-100, -1, "E invalid file_handle = -100 return\\n\n"},
        {0, -1, "DEDUP_REVOKE 0 {0} = -1\nI revoke file_handle = 0 ret = -1\\n\n"},
        {fd, 0,
         "DEDUP_REVOKE " + std::to_string(fd) +
             " {0} = 0\nI revoke file_handle = " + std::to_string(fd) + " ret = 0\\n\n"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(RUN(revokeDedupFile(row.file_handle)), row.result);
        EXPECT_EQ(kernel->text(), row.text);
    }
    EXPECT_EQ(close(fd), 0) << "the caller's descriptor stays open";
}

}  // namespace
