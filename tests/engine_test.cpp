// The engine on a fake kernel: which calls it makes, in which order, and what it says.
#include <fcntl.h>
#include <string.h>
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
        fs::create_directory(at("s"));
        fs::create_directory(at("d"));
        restart();
    }
    void TearDown() override {
        restart();
        TestTree::TearDown();
    }
    // For the next row of a table: a kernel that knows nothing of the one before.
    void restart() {
        if (kernel) {
            EXPECT_EQ(kernel->openDescriptors(), 0U) << kernel->text();
        }
        kernel.emplace(root);
    }
    void expectTrace(const std::string& part) const {
        EXPECT_NE(kernel->text().find(part), std::string::npos) << kernel->text();
    }
    // How many lines of the trace begin so.
    auto count(const std::string& beginning) const {
        const std::string lines = kernel->text({beginning});
        return std::count(lines.begin(), lines.end(), '\n');
    }
    // What a check makes of a list that has an entry already, a line each.
    std::string check(const std::string& source, const std::string& snapshot) {
        std::vector<file_info> list = {{"kept", "entry"}};
        EXPECT_EQ(RUN(checkModifyFiles(source, list, snapshot)), 0);
        std::string text;
        for (const file_info& file : list) {
            text += file.srcdirpath + " " + file.filename + "\n";
        }
        return kernel->shown(text);
    }

    // Writes to s/a before so many snapshots are made: the one of s/a is out of date then.
    void outdate(int snapshots) {
        kernel->before = [this, snapshots](const std::string& call) mutable {
            if (call.rfind("SNAPSHOT_CREATE", 0) == 0 && snapshots > 0) {
                write(at("s/a"), std::to_string(snapshots--));
            }
        };
    }

    std::optional<FakeKernel> kernel;
};

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
    const auto prepare = [&] { return RUN(PreCreateSingleFileSnapshot(at("s"), "a")); };
    // States are logged as signed; a file that is only deduplicated is prepared all the same.
    kernel->answer("DEDUP_GET_FILE_INFO", {0, 0, 0x0000FFFF});
    EXPECT_EQ(prepare(), 0);
    std::string expected = PREPARED;
    const std::string state = "I [$/s/a] is_deduped = 0 is_layered = 0\\n\n";
    expected.replace(expected.find(state), state.size(),
                     "I [$/s/a] is_deduped = -1 is_layered = 0\\n\n"
                     "I srcdirpath = $/s deduped but not layered, error condition still to "
                     "prepare\\n\n");
    EXPECT_EQ(kernel->text(), expected);

    kernel->answer("DEDUP_GET_FILE_INFO", {0, 0, 0x0001FFFF});
    EXPECT_EQ(prepare(), 0);
    expected = PREPARED;
    expected.resize(expected.find(state));
    expected +=
        "I [$/s/a] is_deduped = -1 is_layered = 1\\n\nclose 100 = 0\n"
        "I PreCreateSingleFileSnapshot done ret = 0\\n\n";
    EXPECT_EQ(kernel->text(), expected);
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
    const auto snapshot = [&] { return RUN(CreateSingleFileSnapshot(at("s"), "a", at("d"))); };
    EXPECT_EQ(snapshot(), 0);
    EXPECT_EQ(kernel->text(), SNAPSHOTTED);
    EXPECT_EQ(read(at("d/a")), "data");
    EXPECT_EQ(modeOf(at("d/a")), 0440);

    kernel->answer("MODIFY_CHECK", {0, 0, 0xABCD});
    EXPECT_EQ(snapshot(), 0);
    expectTrace("MODIFY_CHECK 101 {0xabcd, 0x4} = 0");  // the record, as the source's left it

    // The length is cut to 32 bits.
    const struct {
        int64_t size;
        const char* fallocate;
        int32_t result;
    } table[] = {
        {0, "", 0},
        {(3LL << 30), "fallocate 101 0 0 -1073741824 = -1\n", -1},
        {(4LL << 30), "fallocate 101 0 0 0 = -1\n", -1},
        {(5LL << 30), "fallocate 101 0 0 1073741824 = 0\n", 0},
        {(4LL << 30) + 1, "fallocate 101 0 0 1 = 0\n", 0},
    };
    for (const auto& row : table) {
        fs::resize_file(at("s/a"), static_cast<uintmax_t>(row.size));
        EXPECT_EQ(snapshot(), row.result) << row.size;
        EXPECT_EQ(kernel->text({"fallocate"}), row.fallocate);
        EXPECT_EQ(count("SNAPSHOT_CREATE"), row.result == 0 ? 1 : 0);
    }
}

// The good run up to a call that fails, then the complaint, and what was opened closed again.
std::string failedAt(const std::string& good, const std::string& call, int result,
                     const std::string& complaint) {
    const size_t at = good.find("\n" + call);
    std::string text = good.substr(0, good.find(" = ", at)) + " = " + std::to_string(result) +
                       "\nE " + complaint + "\\n\n";
    for (const std::string fd : {"101", "100"}) {
        text += good.find(" = " + fd) < at ? "close " + fd + " = 0\n" : "";
    }
    return text;
}

TEST_F(EngineTest, FailedCallsOfOneFile) {
    constexpr bool PREPARE = true;
    constexpr bool SNAPSHOT = false;
    const struct {
        bool prepare;
        const char* call;
        int answer;  // the result too, but for open
        const char* complaint;
    } table[] = {
        {PREPARE, "open $/s/a", -1,
         "open srcfilepath = $/s/a failed source_file_fd = -1 errno = 13"},
        {PREPARE, "DEDUP_GET_FILE_INFO", 7, "F2FS_IOC_DEDUP_GET_FILE_INFO src failed"},
        {PREPARE, "open $/s ", -1, "open failed srcdirpath = $/s source_dir_fd = -1"},
        {PREPARE, "MODIFY_CHECK", -3, "F2FS_IOC_MODIFY_CHECK set source_file_fd failed ret = -3"},
        {PREPARE, "CLONE_FILE", -5, "F2FS_IOC_CLONE_FILE failed ret = -5"},
        {PREPARE, "SNAPSHOT_PREPARE", 3, "F2FS_IOC_SNAPSHOT_PREPARE ioctl create fail ret = 3"},
        {SNAPSHOT, "open $/s/a", -1, "open failed srcfilepath = $/s/a source_file_fd = -1"},
        {SNAPSHOT, "stat $/s/a", -1, "stat failed srcfilepath = $/s/a"},
        {SNAPSHOT, "open $/d/a", -1, "open failed dstfilepath = $/d/a dst_file_fd = -1"},
        {SNAPSHOT, "fallocate", -1, "fallocate failed dstfilepath = $/d/a dst_file_fd = 101"},
        {SNAPSHOT, "MODIFY_CHECK 100", -4, "[$/s/a] F2FS_IOC_MODIFY_CHECK failed ret = -4"},
        {SNAPSHOT, "MODIFY_CHECK 101", 4, "[$/d/a] F2FS_IOC_MODIFY_CHECK failed ret = 4"},
        {SNAPSHOT, "SNAPSHOT_CREATE", -1, "F2FS_IOC_SNAPSHOT_CREATE ioctl create fail ret = -1"},
    };
    write(at("s/a"), "data");
    for (const auto& row : table) {
        restart();
        kernel->answer(row.call, {row.answer, EACCES, {}});
        const bool is_open = strncmp(row.call, "open", 4) == 0;
        const int32_t result = is_open ? -2 : row.answer;
        std::string text =
            failedAt(row.prepare ? PREPARED : SNAPSHOTTED, row.call, row.answer, row.complaint);
        if (row.prepare) {
            EXPECT_EQ(RUN(PreCreateSingleFileSnapshot(at("s"), "a")), result);
            text += "I PreCreateSingleFileSnapshot done ret = " + std::to_string(result) + "\\n\n";
        } else {
            EXPECT_EQ(RUN(CreateSingleFileSnapshot(at("s"), "a", at("d"))), result);
        }
        EXPECT_EQ(kernel->text(), text);
    }
}

TEST_F(EngineTest, SoftLinkKeepsItsTextByteForByte) {
    const auto copy = [&](const char* name) {
        return RUN(CreateSingleFileSoftLink(at("s"), name, at("d")));
    };
    const std::vector<std::string> texts = {"/a", "none\n\xFF; ", std::string(4095, 'x')};
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string name = "link" + std::to_string(i);
        fs::create_symlink(texts[i], at("s/" + name));
        EXPECT_EQ(copy(name.c_str()), 0);
        EXPECT_EQ(fs::read_symlink(at("d/" + name)).string(), texts[i]);
    }
    write(at("s/file"), "");
    EXPECT_EQ(copy("file"), -1);
    EXPECT_EQ(kernel->log(), "I CreateSingleFileSoftLink readlink [$/s/file] [] ret = -1\\n\n");
    write(at("d/taken"), "kept");
    fs::create_symlink("t", at("s/taken"));
    EXPECT_EQ(copy("taken"), -1);
    EXPECT_EQ(kernel->text(), R"(readlink $/s/taken 4096 = 1
I CreateSingleFileSoftLink readlink [$/s/taken] [t] ret = 1\n
symlink t $/d/taken = -1
I CreateSingleFileSoftLink symlink [t] [$/d/taken] ret = -1\n
)");
    EXPECT_EQ(read(at("d/taken")), "kept");
}

TEST_F(EngineTest, WalksGoDepthFirst) {
    fs::create_directories(at("s/b/empty"));
    fs::create_directories(at("s/t/snapshot"));
    for (const char* file : {".hidden", "a", "b/c", "t/snapshot/old", "unknown"}) {
        write(at("s/") + file, file);
    }
    fs::create_symlink("b", at("s/alink"));
    ASSERT_EQ(mkfifo(at("s/apipe").c_str(), 0600), 0);
    kernel->types["unknown"] = DT_UNKNOWN;
    EXPECT_EQ(RUN(PreCreateDirSnapshot({at("s")})), 0);
    EXPECT_EQ(kernel->text({"opendir", "closedir", "I PreCreateSingleFileSnapshot for"}),
              R"(opendir $/s = 0
I PreCreateSingleFileSnapshot for file [$/s/.hidden]\n
I PreCreateSingleFileSnapshot for file [$/s/a]\n
opendir $/s/b = 0
I PreCreateSingleFileSnapshot for file [$/s/b/c]\n
opendir $/s/b/empty = 0
closedir = 0
closedir = 0
opendir $/s/t = 0
opendir $/s/t/snapshot = 0
I PreCreateSingleFileSnapshot for file [$/s/t/snapshot/old]\n
closedir = 0
closedir = 0
closedir = 0
)");
    // The snapshot stays out of itself.
    const std::string left_out =
        "E subdirpath $/s/t/snapshot found same with rawdstpath just continue\\n\n";
    fs::remove(at("s/apipe"));
    fs::remove(at("s/unknown"));
    EXPECT_EQ(RUN(CreateSingleDirSnapshot(at("s"), at("d"), at("s/t/snapshot"))), 0);
    EXPECT_EQ(kernel->text({"opendir", "closedir", "mkdir", "symlink", "SNAPSHOT_", "E "}),
              R"(opendir $/s = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
symlink b $/d/alink = 0
mkdir $/d/b 0770 = 0
opendir $/s/b = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
mkdir $/d/b/empty 0770 = 0
opendir $/s/b/empty = 0
closedir = 0
closedir = 0
mkdir $/d/t 0770 = 0
opendir $/s/t = 0
)" + left_out + "closedir = 0\nclosedir = 0\n");
    EXPECT_EQ(read(at("d/b/c")), "b/c");
    EXPECT_EQ(check(at("s"), at("s/t/snapshot")), "kept entry\\n$/s .hidden\\n$/s a\\n$/s/b c\\n");
    EXPECT_EQ(kernel->text({"E "}), left_out);
    // A doubled slash is another path.
    EXPECT_EQ(check(at("s/"), at("s/t/snapshot")),
              "kept entry\\n$/s/ .hidden\\n$/s/ a\\n$/s//b c\\n$/s//t/snapshot old\\n");
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
    EXPECT_EQ(check(at("s"), snapshot),
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
    expectTrace(
        "open $/s/same O_RDONLY = 100\nMODIFY_CHECK 100 {0, 0x8} = 0\nclose 100 = 0\n"
        "stat $/d/snapshot$/s/same = 0\n");
}

// Each walk stops at other results: of an entry's own, or of a folder below.
TEST_F(EngineTest, StopRules) {
    using Walk = std::function<int32_t()>;
    const Walk prepare = [&] { return PreCreateDirSnapshot({at("s")}); };
    const std::vector<std::string> both = {at("s"), at("empty")};
    const Walk prepare_both = [&] { return PreCreateDirSnapshot(both); };
    const Walk mirror = [&] { return CreateSingleDirSnapshot(at("s"), at("m"), ""); };
    std::vector<file_info> list;
    const Walk check = [&] { return checkModifyFiles(at("s"), list, at("m")); };
    const Walk destroy = [&] { return DestroyDirSnapshot(at("d")); };
    const std::string request = "E F2FS_IOC_DEDUP_GET_FILE_INFO src failed\\n\n";
    const std::string stopped = "E fail to PreCreateSingleDirSnapshot ret = ";
    const std::string create = "E F2FS_IOC_SNAPSHOT_CREATE ioctl create fail ret = 5\\n\n";
    const std::string type = "E INVALID file_type = ";
    const struct {
        Walk walk;
        const char* call;  // that fails after skip others like it
        int skip;
        int answer;
        int32_t result;
        int files;  // dealt with, of a, b/x, b/y and c
        std::string errors;
        std::map<std::string, unsigned char> types;
    } table[] = {
        {prepare, "DEDUP", 0, -1, -1, 1, request + stopped + "-1\\n\n", {}},
        {prepare, "DEDUP", 0, 5, 5, 1, request, {}},
        {prepare, "DEDUP", 1, -9, -9, 2, request + stopped + "-9\\n\n", {}},
        {prepare, "DEDUP", 1, 5, 0, 3, request, {}},
        // A positive source does not stop the list, and counts only when it is the last.
        {prepare_both, "DEDUP", 0, 5, 0, 1, request, {}},
        {prepare_both, "DEDUP", 0, -1, -1, 1, request + stopped + "-1\\n\n", {}},
        {mirror, "SNAPSHOT_CREATE", 1, 5, 5, 2, create, {}},
        {mirror, "DEDUP", 1, 5, 5, 2, request, {}},
        {mirror, "mkdir $/m/b", 0, -1, -1, 1, "E Failed to mkdir $/m/b\\n\n", {}},
        {mirror, "opendir $/s/b", 0, -1, -2, 1, "E Failed to open dir $/s/b\\n\n", {}},
        {mirror, "none", 0, 0, -22, 1, type + "1 return EINVAL\\n\n", {{"b", DT_FIFO}}},
        {mirror, "none", 0, 0, -22, 1, type + "0 return EINVAL\\n\n", {{"b", DT_UNKNOWN}}},
        {check, "opendir $/s/b", 0, -1, -2, 1, "E Failed to open dir $/s/b\\n\n", {}},
        {destroy, "unlink", 1, -1, -1, 2, "E unlink [$/d/snapshot/b/x] fail ret = -1\\n\n", {}},
        {destroy, "none", 0, 0, -1, 2, type + "1 found and continue\\n\n", {{"x", DT_FIFO}}},
    };
    fs::create_directory(at("empty"));
    for (const auto& row : table) {
        SCOPED_TRACE(row.call + row.errors);
        restart();
        fs::remove_all(at("m"));
        for (const char* tree : {"s/", "d/snapshot/"}) {
            fs::create_directories(at(tree + std::string("b")));
            for (const char* file : {"a", "b/x", "b/y", "c"}) {
                write(at(std::string(tree) + file), "");
            }
        }
        fs::create_directory(at("m"));
        kernel->types = row.types;
        kernel->answer(row.call, {row.answer, EACCES, {}}, row.skip);
        EXPECT_EQ(RUN(row.walk()), row.result);
        EXPECT_EQ(kernel->text({"E "}), row.errors);
        EXPECT_EQ(count("I PreCreateSingleFileSnapshot for") + count("I ready to check") +
                      count("unlink"),
                  row.files);
    }
    EXPECT_EQ(list.size(), 1U) << "what was listed before a failure stays";
    // A second call picks up what is left.
    kernel->types.clear();
    EXPECT_EQ(RUN(destroy()), 0);
}

std::string createEntry(const std::string& target) {
    return "I ------CreateDirSnapshot for dstpath [" + target + "] entry------\\n\n";
}

TEST_F(EngineTest, WhatEndsACallAtOnce) {
    const std::string s = at("s");
    const std::string climbing = at("s/../d");
    const std::vector<std::string> climbs = {s, climbing, s};
    const std::vector<std::string> missing = {at("none"), s};
    const std::string prepare = "I ------PreCreateDirSnapshot entry------\\n\n";
    const std::string destroy = "I ------DestroyDirSnapshot for dstpath ";
    const std::string refused = "E checkPathRegulate path $/s/../d failed\\n\n";
    const struct {
        std::function<int32_t()> operation;
        int32_t result;
        std::string text;
    } table[] = {
        {[] { return PreCreateDirSnapshot({}); }, 0, prepare},
        {[&] { return PreCreateDirSnapshot(climbs); }, -1,
         prepare + "opendir $/s = 0\nclosedir = 0\n" + refused},
        {[&] { return PreCreateDirSnapshot(missing); }, -2,
         prepare + "opendir $/none = -1\nE Failed to open dir $/none\\n\n"
                   "E fail to PreCreateSingleDirSnapshot ret = -2\\n\n"},
        {[&] { return CreateDirSnapshot({}, climbing); }, 0,
         createEntry("$/s/../d") + "E empty dirpath size just return 0\\n\n"},
        {[&] { return CreateDirSnapshot(climbs, at("d")); }, -1, createEntry("$/d") + refused},
        {[&] { return CreateDirSnapshot({s}, climbing); }, -1, createEntry("$/s/../d") + refused},
        {[&] { return DestroyDirSnapshot(climbing); }, -1,
         destroy + "[$/s/../d] entry------\\n\n" + refused},
        {[&] { return DestroyDirSnapshot(at("d")); }, -2,
         destroy + "[$/d] entry------\\n\n"
                   "I DestroyDirSnapshotInter for dstpath [$/d/snapshot] enter\\n\n"
                   "opendir $/d/snapshot = -1\nE Failed to open dir $/d/snapshot\\n\n"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(RUN(row.operation()), row.result);
        EXPECT_EQ(kernel->text(), row.text);
    }
}

// What the operation itself says, and all errors.
const std::vector<std::string> DRIVER_LINES = {
    "E ", "I ---", "I ALL", "I dstpath", "I prepare", "I [$/d/snapshot/$/s/a] unlink ret = -1"};

TEST_F(EngineTest, CreateWithFailedCallsAndAWriter) {
    const std::string exists = "I dstpath [$/d/snapshot] already exist need destroy first\\n\n";
    const std::string prepare = "I prepare dstpath [$/d/snapshot$/s] dir first\\n\n";
    const std::string unlink = "I [$/d/snapshot/$/s/a] unlink ret = -1 errno = 13 and ready to ";
    const std::string ended = "E [$/d/snapshot] snapshot create fail ret = ";
    const std::string cleaned = " destroy ret1 = 0\\n\n";
    constexpr bool OLD_ROOT = true;
    constexpr bool LEFT = true;
    const struct {
        const char* call;  // that fails after skip others like it, with error
        int skip;
        int error;
        bool old_root;
        int writes;  // so many snapshots of the file are out of date at once
        int32_t result;
        int snapshots;  // made of the file
        bool left;
        std::string log;
    } table[] = {
        {"mkdir $/d/snapshot ", 0, EACCES, !OLD_ROOT, 0, -1, 0, !LEFT,
         "E final Failed to mkdir $/d/snapshot ret = -1\\n\n"
         "E dstpath [$/d/snapshot] not exist and mkdirsLoop fail ret = -1 and return\\n\n"},
        {"rmdir $/d/snapshot", 0, EBUSY, OLD_ROOT, 0, -1, 0, LEFT,
         exists + "E dstpath [$/d/snapshot] destroy fail and return\\n\n"},
        {"mkdir $/d/snapshot ", 0, ENOSPC, OLD_ROOT, 0, -1, 0, !LEFT,
         exists + "E final Failed to mkdir $/d/snapshot ret = -1\\n\n" +
             "E mkdirsLoop fail ret = -1 even after DestroyDirSnapshot\\n\n"},
        {"mkdir $/d/snapshot$/s 0770", 0, ENOSPC, !OLD_ROOT, 0, -1, 0, LEFT,
         prepare + "E final Failed to mkdir $/d/snapshot$/s ret = -1\\n\n" +
             "E Failed to mkdirsLoop $/d/snapshot$/s\\n\n"},
        {"open $/s/a O_RDWR", 0, EACCES, !OLD_ROOT, 0, -2, 0, !LEFT,
         prepare + "E open srcfilepath = $/s/a failed source_file_fd = -1 errno = 13\\n\n" +
             "E [$/d/snapshot] snapshot first create fail ret = -2" + cleaned},
        {"opendir $/s", 1, EMFILE, !OLD_ROOT, 0, 0, 1, LEFT,
         prepare + "E Failed to open dir $/s\\n\nE fail to checkModifyFiles ret = -2\\n\n" +
             "I ALL file not modified, success return\\n\n"},
        // The first one and one in each of eleven passes.
        {"none", 0, 0, !OLD_ROOT, 99, -11, 12, !LEFT,
         prepare + "E reach MAX_LOOP_COUNT=10 and exit\\n\n" + ended + "-11" + cleaned},
        {"unlink $/d/snapshot/$/s/a", 0, EACCES, !OLD_ROOT, 1, -1, 1, !LEFT,
         prepare + unlink + "recreate snapshot\\n\n" + ended + "-1" + cleaned},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.call + row.log);
        restart();
        fs::remove_all(at("d/snapshot"));
        if (row.old_root) {
            fs::create_directory(at("d/snapshot"));
        }
        write(at("s/a"), "0");
        outdate(row.writes);
        kernel->answer(row.call, {-1, row.error, {}}, row.skip);
        EXPECT_EQ(RUN(CreateDirSnapshot({at("s")}, at("d"))), row.result);
        EXPECT_EQ(kernel->text(DRIVER_LINES), createEntry("$/d") + row.log);
        EXPECT_EQ(count("SNAPSHOT_CREATE"), row.snapshots);
        EXPECT_EQ(fs::exists(at("d/snapshot")), row.left);
    }
}

TEST_F(EngineTest, CreateTakesChangedFilesAlone) {
    write(at("s/a"), "old");
    write(at("s/b"), "kept");
    outdate(1);
    EXPECT_EQ(RUN(CreateDirSnapshot({at("s")}, at("d"))), 0);
    EXPECT_EQ(read(at("d/snapshot") + at("s/a")), "1");
    EXPECT_EQ(kernel->text({"unlink", "SNAPSHOT_CREATE"}),
              R"(SNAPSHOT_CREATE 101 {0x64, 0} = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
unlink $/d/snapshot/$/s/a = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
)");
    expectTrace("\nI [$/d/snapshot/$/s/a] unlink ret = 0 errno = ");
    expectTrace(
        " and ready to recreate snapshot\\n\nI PreCreateSingleFileSnapshot for file [$/s/a]");
    expectTrace("\nopen $/d/snapshot/$/s/a O_RDWR|O_CREAT|O_TRUNC 0440 = 101\n");
}

TEST_F(EngineTest, CreateJoinsPathsAsTheyAre) {
    const fs::path before = fs::current_path();
    fs::current_path(root);
    write(at("s/a"), "A");
    EXPECT_EQ(RUN(CreateDirSnapshot({"s"}, at("d/"))), 0);
    expectTrace("\nI prepare dstpath [$/d//snapshots] dir first\\n\n");
    EXPECT_EQ(read(at("d/snapshots/a")), "A");
    fs::current_path(before);
}

TEST_F(EngineTest, Destroy) {
    fs::create_directories(at("d/snapshot/x"));
    write(at("s/target"), "kept");
    write(at("d/snapshot/x/.h"), "");
    fs::create_symlink(at("s/target"), at("d/snapshot/l"));
    fs::create_symlink(at("s"), at("d/snapshot/x/dir"));
    EXPECT_EQ(RUN(DestroyDirSnapshot(at("d"))), 0);
    EXPECT_EQ(kernel->text(), R"(I ------DestroyDirSnapshot for dstpath [$/d] entry------\n
I DestroyDirSnapshotInter for dstpath [$/d/snapshot] enter\n
opendir $/d/snapshot = 0
unlink $/d/snapshot/l = 0
I DestroyDirSnapshotInter for dstpath [$/d/snapshot/x] enter\n
opendir $/d/snapshot/x = 0
unlink $/d/snapshot/x/.h = 0
unlink $/d/snapshot/x/dir = 0
closedir = 0
rmdir $/d/snapshot/x = 0
I DestroyDirSnapshotInter for dstpath [$/d/snapshot/x] leave ret = 0\n
closedir = 0
rmdir $/d/snapshot = 0
I DestroyDirSnapshotInter for dstpath [$/d/snapshot] leave ret = 0\n
)");
    EXPECT_EQ(read(at("s/target")), "kept");
    EXPECT_TRUE(fs::is_directory(at("d")));
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
