// SPDX-License-Identifier: Apache-2.0
// The engine on a fake kernel: which calls it makes, in which order, and what it says.
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "snapshot/f2fs_ioctl.h"
#include "snapshot/snapshot.h"
#include "tests/fake_kernel.h"
#include "tests/test_tree.h"

namespace {

// The source and the target; HERE is "$" in traces. m is a folder to mirror into.
const std::string S = HERE + "/s";
const std::string D = HERE + "/d";
const std::string MIRROR = D + "/snapshot" + S;

class EngineTest : public TestTree {
  protected:
    void SetUp() override {
        TestTree::SetUp();
        restart();
    }
    // For the next row of a table: empty folders, and a kernel that knows nothing of the last one.
    void restart() {
        for (const char* folder : {"s", "d", "m"}) {
            fs::remove_all(folder);
            fs::create_directory(folder);
        }
        kernel.emplace(HERE);
    }
    int32_t run(const std::function<int32_t()>& operation) {
        const int32_t ret = kernel->run(operation);
        EXPECT_EQ(kernel->openDescriptors(), 0U) << kernel->text();
        return ret;
    }
    // The lines of the last trace that begin so, each with "|" in place of a line end of its own.
    std::string lines(const std::vector<std::string>& beginnings) const {
        std::string text = kernel->text(beginnings);
        for (size_t at = 0; (at = text.find("\\n\n", at)) != std::string::npos;) {
            text.replace(at, 3, "|");
        }
        return text;
    }
    auto count(const std::vector<std::string>& beginnings) const {
        const std::string text = kernel->text(beginnings);
        return std::count(text.begin(), text.end(), '\n');
    }
    void expectTrace(const std::string& part) const {
        EXPECT_NE(kernel->text().find(part), std::string::npos) << kernel->text();
    }
    // What a check makes of a list that has an entry already.
    std::string check(const std::string& source, const std::string& snapshot) {
        std::vector<file_info> list = {{"kept", "entry"}};
        EXPECT_EQ(run([&] { return checkModifyFiles(source, list, snapshot); }), 0);
        std::string text;
        for (const file_info& file : list) {
            text += file.srcdirpath + " " + file.filename + ", ";
        }
        return kernel->shown(text);
    }
    // Writes to s/a before so many snapshots are made: the one of s/a is out of date then.
    void outdate(int snapshots) {
        kernel->before = [snapshots](const std::string& call) mutable {
            if (call.rfind("SNAPSHOT_CREATE", 0) == 0 && snapshots > 0) {
                write("s/a", std::to_string(snapshots--));
            }
        };
    }

    std::optional<FakeKernel> kernel;
};

using Operation = int32_t (*)();

int32_t prepareFile() {
    return PreCreateSingleFileSnapshot(S, "a");
}
int32_t snapshotFile() {
    return CreateSingleFileSnapshot(S, "a", HERE + "/m");
}
int32_t prepare() {
    return PreCreateDirSnapshot({S});
}
int32_t prepareTwo() {
    return PreCreateDirSnapshot({S, HERE + "/m"});
}
int32_t mirror() {
    return CreateSingleDirSnapshot(S, HERE + "/m", "");
}
int32_t create() {
    return CreateDirSnapshot({S}, D);
}
int32_t destroy() {
    return DestroyDirSnapshot(D);
}
int32_t checkAll() {
    std::vector<file_info> list;
    return checkModifyFiles(S, list, HERE + "/m");
}

constexpr char PREPARED[] = R"(I PreCreateSingleFileSnapshot for file [$/s/a]\n
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
    write("s/a", "data");
    // States are logged as signed; a file that is only deduplicated is prepared all the same.
    kernel->answer("DEDUP_GET_FILE_INFO", {0, 0, 0x0000FFFF});
    EXPECT_EQ(run(prepareFile), 0);
    std::string expected = PREPARED;
    const std::string state = "I [$/s/a] is_deduped = 0 is_layered = 0\\n\n";
    const size_t at = expected.find(state);
    expected.replace(at, state.size(),
                     "I [$/s/a] is_deduped = -1 is_layered = 0\\n\n"
                     "I srcdirpath = $/s deduped but not layered, error condition still to "
                     "prepare\\n\n");
    EXPECT_EQ(kernel->text(), expected);

    EXPECT_EQ(run(prepareFile), 0);
    EXPECT_EQ(kernel->text(), std::string(PREPARED).substr(0, at) +
                                  "I [$/s/a] is_deduped = 0 is_layered = 1\\n\nclose 100 = 0\n"
                                  "I PreCreateSingleFileSnapshot done ret = 0\\n\n");
}

TEST_F(EngineTest, SnapshotFile) {
    write("s/a", "data");
    kernel->answer("MODIFY_CHECK", {0, 0, 0xABCD});  // the record goes on as the source's left it
    EXPECT_EQ(run(snapshotFile), 0);
    EXPECT_EQ(kernel->text(), R"(I CreateSingleFileSnapshot for [$/s/a]\n
open $/s/a O_RDONLY = 100
stat $/s/a = 0
open $/m/a O_RDWR|O_CREAT|O_TRUNC 0440 = 101
fallocate 101 0 0 4 = 0
MODIFY_CHECK 100 {0x82, 0x4} = 0
MODIFY_CHECK 101 {0xabcd, 0x4} = 0
SNAPSHOT_CREATE 101 {0x64, 0} = 0
I F2FS_IOC_SNAPSHOT_CREATE ioctl create success\n
close 101 = 0
close 100 = 0
)");
    EXPECT_EQ(read("m/a"), "data");
    EXPECT_EQ(modeOf("m/a"), 0440);

    // The length is cut to 32 bits.
    const struct {
        uintmax_t size;
        const char* fallocate;
        int32_t result;
    } table[] = {
        {0, "", 0},
        {uintmax_t{3} << 30, "fallocate 101 0 0 -1073741824 = -1\n", -1},
        {uintmax_t{4} << 30, "fallocate 101 0 0 0 = -1\n", -1},
        {(uintmax_t{4} << 30) + 1, "fallocate 101 0 0 1 = 0\n", 0},
    };
    for (const auto& row : table) {
        fs::resize_file("s/a", row.size);
        EXPECT_EQ(run(snapshotFile), row.result) << row.size;
        EXPECT_EQ(kernel->text({"fallocate"}), row.fallocate);
        EXPECT_EQ(count({"SNAPSHOT_CREATE"}), row.result == 0 ? 1 : 0);
    }
}

TEST_F(EngineTest, SoftLinkKeepsItsTextByteForByte) {
    const auto copy = [] { return CreateSingleFileSoftLink(S, "link", D); };
    for (const std::string& text : {std::string(4095, 'x'), std::string("none\n\xFF; ")}) {
        restart();
        fs::create_symlink(text, "s/link");
        EXPECT_EQ(run(copy), 0);
        EXPECT_EQ(fs::read_symlink("d/link").string(), text);
    }
    EXPECT_EQ(run(copy), -1);
    EXPECT_EQ(kernel->text(),
              "readlink $/s/link 4096 = 8\n"
              "I CreateSingleFileSoftLink readlink [$/s/link] [none\\n\xFF; ] ret = 8\\n\n"
              "symlink none\\n\xFF;  $/d/link = -1\n"
              "I CreateSingleFileSoftLink symlink [none\\n\xFF; ] [$/d/link] ret = -1\\n\n");
    fs::remove("s/link");
    EXPECT_EQ(run(copy), -1);
    EXPECT_EQ(kernel->log(), "I CreateSingleFileSoftLink readlink [$/s/link] [] ret = -1\\n\n");
}

// What a walk does beside the calls for one file, and that it comes to a file.
constexpr char TO_FILE[] = "I PreCreateSingleFileSnapshot for";
const std::vector<std::string> WALK = {TO_FILE, "E ",      "I ---", "I ALL",   "I dst", "I prepare",
                                       "mkdir", "opendir", "rmdir", "symlink", "unlink"};

constexpr char PREPARE_WALK[] = R"(I ------PreCreateDirSnapshot entry------\n
opendir $/s = 0
I PreCreateSingleFileSnapshot for file [$/s/a]\n
opendir $/s/m = 0
I PreCreateSingleFileSnapshot for file [$/s/m/.f]\n
opendir $/s/m/empty = 0
)";

constexpr char CREATE_WALK[] = R"(I ------CreateDirSnapshot for dstpath [$/d] entry------\n
I dstpath [$/d/snapshot] already exist need destroy first\n
opendir $/d/snapshot = 0
rmdir $/d/snapshot = 0
mkdir $/d/snapshot 0770 = 0
I prepare dstpath [$/d/snapshot$/s] dir first\n
mkdir $/d/snapshot/proc 0770 = 0
mkdir $/d/snapshot/proc/self 0770 = 0
mkdir $/d/snapshot$ 0770 = 0
mkdir $/d/snapshot$/s 0770 = 0
opendir $/s = 0
I PreCreateSingleFileSnapshot for file [$/s/a]\n
symlink m $/d/snapshot$/s/link = 0
mkdir $/d/snapshot$/s/m 0770 = 0
opendir $/s/m = 0
I PreCreateSingleFileSnapshot for file [$/s/m/.f]\n
mkdir $/d/snapshot$/s/m/empty 0770 = 0
opendir $/s/m/empty = 0
opendir $/s = 0
opendir $/s/m = 0
opendir $/s/m/empty = 0
unlink $/d/snapshot/$/s/a = 0
I PreCreateSingleFileSnapshot for file [$/s/a]\n
opendir $/s = 0
opendir $/s/m = 0
opendir $/s/m/empty = 0
I ALL file not modified, success return\n
)";

constexpr char DESTROYED[] = R"(I DestroyDirSnapshotInter for dstpath [$/d/snapshot$/s] enter\n
opendir $/d/snapshot$/s = 0
unlink $/d/snapshot$/s/a = 0
unlink $/d/snapshot$/s/link = 0
I DestroyDirSnapshotInter for dstpath [$/d/snapshot$/s/m] enter\n
opendir $/d/snapshot$/s/m = 0
unlink $/d/snapshot$/s/m/.f = 0
I DestroyDirSnapshotInter for dstpath [$/d/snapshot$/s/m/empty] enter\n
opendir $/d/snapshot$/s/m/empty = 0
closedir = 0
rmdir $/d/snapshot$/s/m/empty = 0
I DestroyDirSnapshotInter for dstpath [$/d/snapshot$/s/m/empty] leave ret = 0\n
closedir = 0
rmdir $/d/snapshot$/s/m = 0
I DestroyDirSnapshotInter for dstpath [$/d/snapshot$/s/m] leave ret = 0\n
closedir = 0
rmdir $/d/snapshot$/s = 0
I DestroyDirSnapshotInter for dstpath [$/d/snapshot$/s] leave ret = 0\n
)";

TEST_F(EngineTest, WalksGoDepthFirst) {
    fs::create_directories("s/m/empty");
    fs::create_directory("d/snapshot");
    write("s/a", "old");
    write("s/m/.f", "");
    write("s/unknown", "");
    fs::create_symlink("m", "s/link");
    ASSERT_EQ(mkfifo("s/pipe", 0600), 0);
    kernel->types["unknown"] = DT_UNKNOWN;
    EXPECT_EQ(run(prepare), 0);
    EXPECT_EQ(kernel->text(WALK), PREPARE_WALK);

    fs::remove("s/pipe");
    fs::remove("s/unknown");
    outdate(1);
    EXPECT_EQ(run(create), 0);
    EXPECT_EQ(kernel->text(WALK), CREATE_WALK);
    EXPECT_EQ(read(MIRROR + "/a"), "1");

    EXPECT_EQ(run(destroy), 0);
    expectTrace(DESTROYED);
    EXPECT_EQ(kernel->trace.front(), "I ------DestroyDirSnapshot for dstpath [$/d] entry------\\n");
    EXPECT_TRUE(fs::is_empty("d"));
}

TEST_F(EngineTest, CheckListsMissingChangedAndUnaskableFiles) {
    for (const char* name : {"changed", "missing", "refused", "same", "unreadable", "unset"}) {
        write("s/" + std::string(name), "old");
    }
    ASSERT_EQ(run(create), 0);
    fs::remove(MIRROR + "/missing");
    write("s/changed", "new");
    kernel->answer("MODIFY_CHECK", {-1, EIO, MODIFY_CHECK_UNCHANGED}, 2);
    kernel->answer("MODIFY_CHECK", {0, 0, 0xFFFFFFFD}, 4);  // "unset"
    kernel->answer("open $/s/unreadable", {-1, EACCES, {}});
    EXPECT_EQ(check(S, D + "/snapshot"),
              "kept entry, $/s changed, $/s missing, $/s refused, $/s unreadable, $/s unset, ");
    const auto ready = [](const std::string& file) {
        return "I ready to check modify flag for sourcefilefullpath = $/s/" + file +
               " dstsnapshotfilepath = $/d/snapshot$/s/" + file + "|";
    };
    EXPECT_EQ(lines({"I ", "E "}),
              ready("changed") + ready("missing") +
                  "I dstsnapshotfile already not exist, add to modifyfilelist|" + ready("refused") +
                  "E F2FS_IOC_MODIFY_CHECK:get $/s/refused failed|" + ready("same") +
                  ready("unreadable") + "E path_fd [$/s/unreadable] open failed errno = 13|" +
                  ready("unset"));
    expectTrace(
        "open $/s/same O_RDONLY = 100\nMODIFY_CHECK 100 {0, 0x8} = 0\nclose 100 = 0\n"
        "stat $/d/snapshot$/s/same = 0\n");
}

TEST_F(EngineTest, ASnapshotInsideItsSourceStaysOutOfItself) {
    fs::create_directories("s/d/snapshot");
    write("s/a", "");
    write("s/d/snapshot/old", "");
    const std::string inside = S + "/d/snapshot";
    const std::string left_out =
        "E subdirpath $/s/d/snapshot found same with rawdstpath just continue|";
    EXPECT_EQ(run([&] { return CreateSingleDirSnapshot(S, D, inside); }), 0);
    EXPECT_EQ(lines({"E "}), left_out);
    EXPECT_TRUE(fs::exists("d/a") && fs::is_empty("d/d"));
    EXPECT_EQ(check(S, inside), "kept entry, $/s a, ");
    EXPECT_EQ(lines({"E "}), left_out);
    // A doubled slash is another path.
    EXPECT_EQ(check(S + "/", inside), "kept entry, $/s/ a, $/s//d/snapshot old, ");
}

struct Failure {
    Operation operation;
    const char* call;  // that fails after skip others like it
    int skip;
    int answer;
    int32_t result;
    int files;  // dealt with, of a, b/x, b/y and c
    const char* errors;
    std::map<std::string, unsigned char> types = {};
};

constexpr char REQUEST[] = "E F2FS_IOC_DEDUP_GET_FILE_INFO src failed|";
constexpr char STOPPED[] =
    "E F2FS_IOC_DEDUP_GET_FILE_INFO src failed|E fail to PreCreateSingleDirSnapshot ret = -9|";

const Failure FAILURES[] = {
    {prepareFile, "open $/s/a", 0, -1, -2, 1,
     "E open srcfilepath = $/s/a failed source_file_fd = -1 errno = 13|"},
    {prepareFile, "DEDUP", 0, 7, 7, 1, REQUEST},
    {prepareFile, "open $/s ", 0, -1, -2, 1, "E open failed srcdirpath = $/s source_dir_fd = -1|"},
    {prepareFile, "MODIFY_CHECK", 0, -3, -3, 1,
     "E F2FS_IOC_MODIFY_CHECK set source_file_fd failed ret = -3|"},
    {prepareFile, "CLONE_FILE", 0, -5, -5, 1, "E F2FS_IOC_CLONE_FILE failed ret = -5|"},
    {prepareFile, "SNAPSHOT_PREPARE", 0, 3, 3, 1,
     "E F2FS_IOC_SNAPSHOT_PREPARE ioctl create fail ret = 3|"},

    {snapshotFile, "open $/s/a", 0, -1, -2, 0,
     "E open failed srcfilepath = $/s/a source_file_fd = -1|"},
    {snapshotFile, "stat $/s/a", 0, -1, -1, 0, "E stat failed srcfilepath = $/s/a|"},
    {snapshotFile, "open $/m/a", 0, -1, -2, 0,
     "E open failed dstfilepath = $/m/a dst_file_fd = -1|"},
    {snapshotFile, "fallocate", 0, -1, -1, 0,
     "E fallocate failed dstfilepath = $/m/a dst_file_fd = 101|"},
    {snapshotFile, "MODIFY_CHECK 100", 0, -4, -4, 0,
     "E [$/s/a] F2FS_IOC_MODIFY_CHECK failed ret = -4|"},
    {snapshotFile, "MODIFY_CHECK 101", 0, 4, 4, 0,
     "E [$/m/a] F2FS_IOC_MODIFY_CHECK failed ret = 4|"},
    {snapshotFile, "SNAPSHOT_CREATE", 0, -1, -1, 0,
     "E F2FS_IOC_SNAPSHOT_CREATE ioctl create fail ret = -1|"},

    // Each walk stops at other results: of an entry's own, or of a folder below.
    {prepare, "DEDUP", 0, -9, -9, 1, STOPPED},
    {prepare, "DEDUP", 0, 5, 5, 1, REQUEST},
    {prepare, "DEDUP", 1, -9, -9, 2, STOPPED},
    {prepare, "DEDUP", 1, 5, 0, 3, REQUEST},
    // A positive source does not stop the list, and counts only when it is the last.
    {prepareTwo, "DEDUP", 0, 5, 0, 1, REQUEST},
    {prepareTwo, "DEDUP", 0, -9, -9, 1, STOPPED},
    {mirror, "SNAPSHOT_CREATE", 1, 5, 5, 2,
     "E F2FS_IOC_SNAPSHOT_CREATE ioctl create fail ret = 5|"},
    {mirror, "DEDUP", 1, 5, 5, 2, REQUEST},
    {mirror, "mkdir $/m/b", 0, -1, -1, 1, "E Failed to mkdir $/m/b|"},
    {mirror, "opendir $/s/b", 0, -1, -2, 1, "E Failed to open dir $/s/b|"},
    {mirror, "none", 0, 0, -22, 1, "E INVALID file_type = 1 return EINVAL|", {{"b", DT_FIFO}}},
    {mirror, "none", 0, 0, -22, 1, "E INVALID file_type = 0 return EINVAL|", {{"b", DT_UNKNOWN}}},
    {checkAll, "opendir $/s/b", 0, -1, -2, 1, "E Failed to open dir $/s/b|"},
    {destroy, "unlink", 1, -1, -1, 2, "E unlink [$/d/snapshot/b/x] fail ret = -1|"},
    {destroy, "none", 0, 0, -1, 2, "E INVALID file_type = 1 found and continue|", {{"x", DT_FIFO}}},
};

TEST_F(EngineTest, WhatAFailureStops) {
    for (const Failure& row : FAILURES) {
        SCOPED_TRACE(row.call + std::string(" ") + row.errors);
        restart();
        for (const std::string tree : {"s", "d/snapshot"}) {
            fs::create_directories(tree + "/b");
            for (const char* file : {"/a", "/b/x", "/b/y", "/c"}) {
                write(tree + file, "data");
            }
        }
        kernel->types = row.types;
        kernel->answer(row.call, {row.answer, EACCES, {}}, row.skip);
        EXPECT_EQ(run(row.operation), row.result);
        EXPECT_EQ(lines({"E "}), row.errors);
        EXPECT_EQ(count({"I PreCreateSingleFileSnapshot done"}), count({TO_FILE}));
        EXPECT_EQ(count({TO_FILE, "I ready to check", "unlink"}), row.files);
    }
    // A second call picks up what is left.
    kernel->types.clear();
    EXPECT_EQ(run(destroy), 0);
}

struct Refusal {
    Operation operation;
    int32_t result;
    const char* text;
};

const std::string CLIMBING = S + "/../d";
const std::vector<std::string> CLIMBS = {S, CLIMBING, S};
const std::vector<std::string> MISSING = {S + "/none", S};

const Refusal REFUSALS[] = {
    {[] { return PreCreateDirSnapshot({}); }, 0, "I ------PreCreateDirSnapshot entry------|"},
    {[] { return PreCreateDirSnapshot(CLIMBS); }, -1,
     "I ------PreCreateDirSnapshot entry------|opendir $/s = 0\nclosedir = 0\n"
     "E checkPathRegulate path $/s/../d failed|"},
    {[] { return PreCreateDirSnapshot(MISSING); }, -2,
     "I ------PreCreateDirSnapshot entry------|opendir $/s/none = -1\n"
     "E Failed to open dir $/s/none|E fail to PreCreateSingleDirSnapshot ret = -2|"},
    {[] { return CreateDirSnapshot({}, CLIMBING); }, 0,
     "I ------CreateDirSnapshot for dstpath [$/s/../d] entry------|"
     "E empty dirpath size just return 0|"},
    {[] { return CreateDirSnapshot(CLIMBS, D); }, -1,
     "I ------CreateDirSnapshot for dstpath [$/d] entry------|"
     "E checkPathRegulate path $/s/../d failed|"},
    {[] { return CreateDirSnapshot({S}, CLIMBING); }, -1,
     "I ------CreateDirSnapshot for dstpath [$/s/../d] entry------|"
     "E checkPathRegulate path $/s/../d failed|"},
    {[] { return DestroyDirSnapshot(CLIMBING); }, -1,
     "I ------DestroyDirSnapshot for dstpath [$/s/../d] entry------|"
     "E checkPathRegulate path $/s/../d failed|"},
    {destroy, -2,
     "I ------DestroyDirSnapshot for dstpath [$/d] entry------|"
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot] enter|"
     "opendir $/d/snapshot = -1\nE Failed to open dir $/d/snapshot|"},
    {[] { return revokeDedupFile(-1); }, -1, "E invalid file_handle = -1 return|"},
    {[] { return revokeDedupFile(0); }, -1,
     "DEDUP_REVOKE 0 {0} = -1\nI revoke file_handle = 0 ret = -1|"},
    {[] { return revokeDedupFile(1); }, 0,
     "DEDUP_REVOKE 1 {0} = 0\nI revoke file_handle = 1 ret = 0|"},
};

TEST_F(EngineTest, WhatEndsACallAtOnce) {
    for (const Refusal& row : REFUSALS) {
        kernel->answer("DEDUP_REVOKE 0", {-1, ENOTTY, {}});
        EXPECT_EQ(run(row.operation), row.result);
        EXPECT_EQ(lines({""}), row.text);
    }
    EXPECT_GE(fcntl(STDOUT_FILENO, F_GETFD), 0) << "the caller's descriptor stays open";
}

struct FailedCreate {
    const char* call;  // that fails after skip others like it, with error
    int skip;
    int error;
    bool old_root;
    int writes;  // so many snapshots of the file are out of date at once
    int32_t result;
    int snapshots;  // made of the file
    bool left;      // the snapshot root
    const char* log;
};

const FailedCreate FAILED_CREATES[] = {
    {"mkdir $/d/snapshot ", 0, EACCES, false, 0, -1, 0, false,
     "E final Failed to mkdir $/d/snapshot ret = -1|"
     "E dstpath [$/d/snapshot] not exist and mkdirsLoop fail ret = -1 and return|"},
    {"rmdir $/d/snapshot", 0, EBUSY, true, 0, -1, 0, true,
     "E dstpath [$/d/snapshot] destroy fail and return|"},
    {"mkdir $/d/snapshot ", 0, ENOSPC, true, 0, -1, 0, false,
     "E final Failed to mkdir $/d/snapshot ret = -1|"
     "E mkdirsLoop fail ret = -1 even after DestroyDirSnapshot|"},
    {"mkdir $/d/snapshot$/s 0770", 0, ENOSPC, false, 0, -1, 0, true,
     "E final Failed to mkdir $/d/snapshot$/s ret = -1|"
     "E Failed to mkdirsLoop $/d/snapshot$/s|"},
    {"open $/s/a O_RDWR", 0, EACCES, false, 0, -2, 0, false,
     "E open srcfilepath = $/s/a failed source_file_fd = -1 errno = 13|"
     "E [$/d/snapshot] snapshot first create fail ret = -2 destroy ret1 = 0|"},
    {"opendir $/s", 1, EMFILE, false, 0, 0, 1, true,
     "E Failed to open dir $/s|E fail to checkModifyFiles ret = -2|"
     "I ALL file not modified, success return|"},
    // The first one and one in each of eleven passes.
    {"none", 0, 0, false, 99, -11, 12, false,
     "E reach MAX_LOOP_COUNT=10 and exit|"
     "E [$/d/snapshot] snapshot create fail ret = -11 destroy ret1 = 0|"},
    {"unlink $/d/snapshot/$/s/a", 0, EACCES, false, 1, -1, 1, false,
     "I [$/d/snapshot/$/s/a] unlink ret = -1 errno = 13 and ready to recreate snapshot|"
     "E [$/d/snapshot] snapshot create fail ret = -1 destroy ret1 = 0|"},
};

TEST_F(EngineTest, CreateWithFailedCallsAndAWriter) {
    for (const FailedCreate& row : FAILED_CREATES) {
        SCOPED_TRACE(row.call + std::string(" ") + row.log);
        restart();
        write("s/a", "0");
        if (row.old_root) {
            fs::create_directory("d/snapshot");
        }
        outdate(row.writes);
        kernel->answer(row.call, {-1, row.error, {}}, row.skip);
        EXPECT_EQ(run(create), row.result);
        EXPECT_EQ(lines({"E ", "I ALL", "I [$/d/snapshot/$/s/a] unlink ret = -1"}), row.log);
        EXPECT_EQ(count({"SNAPSHOT_CREATE"}), row.snapshots);
        EXPECT_EQ(fs::exists("d/snapshot"), row.left);
    }
}

TEST_F(EngineTest, CreateJoinsPathsAsTheyAre) {
    write("s/a", "A");
    EXPECT_EQ(run([] { return CreateDirSnapshot({"s"}, "d/"); }), 0);
    EXPECT_EQ(read("d/snapshots/a"), "A");
    expectTrace("\nI prepare dstpath [d//snapshots] dir first\\n\n");
}

}  // namespace
