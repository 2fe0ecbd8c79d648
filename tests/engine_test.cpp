// SPDX-License-Identifier: Apache-2.0
// The engine on a fake kernel: its calls, their order, its results and its log.
#include <sstream>

#include "snapshot/f2fs_ioctl.h"
#include "snapshot/snapshot.h"
#include "tests/fake_kernel.h"
#include "tests/helpers.h"

namespace {

using Operation = std::function<int32_t()>;

// The source, the target, and a directory to mirror into; HERE is "$" in traces.
const std::string S = HERE + "/s";
const std::string D = HERE + "/d";
const std::string M = HERE + "/m";
const std::string CLIMBING = S + "/../d";

const Operation prepareFile = [] { return PreCreateSingleFileSnapshot(S, "a"); };
const Operation prepare = [] { return PreCreateDirSnapshot({S}); };
const Operation prepareTwo = [] { return PreCreateDirSnapshot({S, M}); };
const Operation snapshotFile = [] { return CreateSingleFileSnapshot(S, "a", M); };
const Operation copyLink = [] { return CreateSingleFileSoftLink(S, "l", M); };
const Operation mirror = [] { return CreateSingleDirSnapshot(S, M, ""); };
const Operation create = [] { return CreateDirSnapshot({S}, D); };
const Operation createTwo = [] { return CreateDirSnapshot({S, M}, D); };
const Operation destroy = [] { return DestroyDirSnapshot(D); };
// Writes the list, which holds an entry already, into the trace.
int32_t checkInto(const std::string& source, const std::string& snapshot) {
    std::vector<file_info> list = {{"kept", "entry"}};
    const int32_t ret = checkModifyFiles(source, list, snapshot);
    std::string text = "listed";
    for (const file_info& file : list) {
        text += " " + file.srcdirpath + " " + file.filename;
    }
    FakeKernel::active->trace.push_back(FakeKernel::active->shown(text));
    return ret;
}
const Operation check = [] { return checkInto(S, M); };

// Makes files "path=content", directories "path/", links "path>text" and pipes "path|".
void make(const std::string& tree) {
    std::istringstream words(tree);
    for (std::string word; words >> word;) {
        const size_t end = word.find_first_of("=>|");
        const fs::path path = word.substr(0, end);
        const std::string rest = word.substr(std::min(end, word.size() - 1) + 1);
        fs::create_directories(path.parent_path());
        switch (end == std::string::npos ? '/' : word[end]) {
            case '=':
                write(path, rest);
                break;
            case '>':
                fs::create_symlink(rest, path);
                break;
            case '|':
                ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
                break;
            default:
                fs::create_directory(path);
        }
    }
}

class EngineTest : public TestTree {
  protected:
    // For the next row of a table: these files only, and a new kernel.
    void restart(const std::string& tree) {
        for (const char* directory : {"s", "d", "m"}) {
            fs::remove_all(directory);
            fs::create_directory(directory);
        }
        make(tree);
        kernel.emplace(HERE);
    }
    int32_t run(const Operation& operation) {
        const int32_t ret = kernel->run(operation);
        EXPECT_EQ(kernel->openDescriptors(), 0U) << kernel->text();
        return ret;
    }
    // The lines of the last trace that begin with one of these. "|" stands for the newline that
    // ends a log text.
    std::string lines(const std::vector<std::string>& beginnings = {""}) const {
        return replaced(kernel->text(beginnings), "\\n\n", "|\n");
    }
    // The steps of the last trace: /opened, *made and ~removed directories, +prepared, ?checked and
    // -removed files, >links.
    std::string steps() const {
        const std::pair<std::string, char> marks[] = {
            {"opendir ", '/'},
            {"mkdir ", '*'},
            {"rmdir ", '~'},
            {"unlink ", '-'},
            {"symlink ", '>'},
            {"I PreCreateSingleFileSnapshot for file [", '+'},
            {"I ready to check modify flag for sourcefilefullpath = ", '?'}};
        std::string text;
        for (const std::string& line : kernel->trace) {
            for (const auto& [begin, mark] : marks) {
                if (line.rfind(begin, 0) == 0) {
                    const std::string rest = line.substr(begin.size());
                    const std::string path = rest.substr(0, rest.find_first_of(" ]"));
                    text += mark + path.substr(path.rfind('/') + 1) + " ";
                }
            }
        }
        return text;
    }
    // Writes to s/a, s/n and m/z before each of the first `snapshots` snapshots.
    void outdate(int snapshots) {
        kernel->before = [=](const std::string& call) mutable {
            if (call.rfind("SNAPSHOT_CREATE", 0) == 0 && snapshots > 0) {
                --snapshots;
                for (const char* file : {"s/a", "s/n", "m/z"}) {
                    write(fs::exists(file) ? file : "other", "new " + std::to_string(snapshots));
                }
            }
        };
    }
    std::optional<FakeKernel> kernel;
};

constexpr char UNCHECKED[] = "any";

// One operation on a tree. Where a call is named, it fails with each of the answers after `skip`
// others like it: GIVEN is that answer as the result, "@" the same in the lines.
constexpr int32_t GIVEN = 999;
const std::vector<int> ANY = {-9, 5};
const std::vector<int> ONE = {-1};

struct Case {
    Operation operation;
    std::string tree;
    const char* call;
    int skip;
    std::vector<int> answers;
    int32_t result;
    const char* steps;
    const char* lines;  // separated by "; ": those of failures and of a success; without steps, all
    int writes = 0;     // for outdate()
    std::map<std::string, unsigned char> types = {};
    std::optional<uint32_t> word = {};  // the call succeeds, with this in its record
};

const std::string TREE = "s/a=data s/b/x=data s/b/y=data s/c=data s/l>a ";
const std::string OLD =
    "d/snapshot/a= d/snapshot/b/x= d/snapshot/b/y= d/snapshot/c= d/snapshot/l>a";
const std::string CHECKED = "s/a= m/proc/self/cwd/s/a=";
#define ROOT_MADE "*snapshot *proc *self *snapshot$ *s "
#define ROOT_OPENED "/snapshot /proc /self /snapshot$ /s "
#define ROOT_REMOVED "~s ~snapshot$ ~self ~proc ~snapshot "
#define GET_FAILED "E F2FS_IOC_DEDUP_GET_FILE_INFO src failed|; "
#define PREPARE_FAILED "E fail to PreCreateSingleDirSnapshot ret = -1|; "
#define LEFT_OUT "E subdirpath $/s/d/snapshot found same with rawdstpath just continue|; "
#define CREATE_ENTRY "I ------CreateDirSnapshot for dstpath "
#define CLIMBS "E checkPathRegulate path $/s/../d failed|; "
#define CREATE_FAILED "E F2FS_IOC_SNAPSHOT_CREATE ioctl create fail ret = @|; "
#define CLEANED "E [$/d/snapshot] snapshot create fail ret = @ destroy ret1 = 0|; "
#define NOT_MODIFIED "I ALL file not modified, success return|; "

// clang-format off
const Case CASES[] = {
    // A file that is only deduplicated is prepared. States are logged as signed numbers.
    {prepareFile, "s/a=data", "DEDUP", 0, {0}, 0, nullptr,
     "I PreCreateSingleFileSnapshot for file [$/s/a]|; "
     "open $/s/a O_RDWR; DEDUP_GET_FILE_INFO $/s/a {0, 0}; "
     "I [$/s/a] is_deduped = 1 is_layered = 0|; "
     "I srcdirpath = $/s deduped but not layered, error condition still to prepare|; "
     "I ready to open srcdirpath = $/s|; open $/s O_RDWR|O_TMPFILE 0770; "
     "MODIFY_CHECK $/s/a {0x82, 0x4}; CLONE_FILE $/s(unnamed) {$/s/a, 0x160}; "
     "SNAPSHOT_PREPARE $/s/a {$/s(unnamed)}; close $/s(unnamed); close $/s/a; "
     "I PreCreateSingleFileSnapshot done ret = 0|; ", 0, {}, 0x00000001},
    {prepareFile, "s/a=data", "DEDUP", 0, {0}, 0, nullptr,
     "I PreCreateSingleFileSnapshot for file [$/s/a]|; "
     "open $/s/a O_RDWR; DEDUP_GET_FILE_INFO $/s/a {0, 0}; "
     "I [$/s/a] is_deduped = -1 is_layered = 2|; close $/s/a; "
     "I PreCreateSingleFileSnapshot done ret = 0|; ", 0, {}, 0x0002FFFF},
    // The record of the second set is the one that the first has left.
    {snapshotFile, "s/a=data", "MODIFY", 0, {0}, 0, nullptr,
     "I CreateSingleFileSnapshot for [$/s/a]|; open $/s/a O_RDONLY; stat $/s/a; "
     "open $/m/a O_RDWR|O_CREAT|O_TRUNC 0440; fallocate $/m/a 0 0 4; "
     "MODIFY_CHECK $/s/a {0x82, 0x4}; MODIFY_CHECK $/m/a {0xabcd, 0x4}; "
     "SNAPSHOT_CREATE $/m/a {$/s/a, 0}; I F2FS_IOC_SNAPSHOT_CREATE ioctl create success|; "
     "close $/m/a; close $/s/a; ", 0, {}, 0xABCD},
    {copyLink, "s/l>none\xFF m/l=", "", 0, {0}, -1, nullptr,
     "readlink $/s/l 4096; I CreateSingleFileSoftLink readlink [$/s/l] [none\xFF] ret = 5|; "
     "symlink $/m/l -> none\xFF = -1; "
     "I CreateSingleFileSoftLink symlink [none\xFF] [$/m/l] ret = -1|; "},
    {copyLink, "s/l=", "", 0, {0}, -1, nullptr, "readlink $/s/l 4096 = -1; "
     "I CreateSingleFileSoftLink readlink [$/s/l] [] ret = -1|; "},
    {copyLink, "s/l>x", "readlink", 0, {0}, -1, nullptr, "readlink $/s/l 4096; "
     "I CreateSingleFileSoftLink readlink [$/s/l] [] ret = 0|; symlink $/m/l ->  = -1; "
     "I CreateSingleFileSoftLink symlink [] [$/m/l] ret = -1|; "},
    {[] { return revokeDedupFile(-1); }, "", "", 0, {0}, -1, nullptr,
     "E invalid file_handle = -1 return|; "},
    {[] { return revokeDedupFile(0); }, "", "DEDUP_REVOKE", 0, {0, 5}, GIVEN, nullptr,
     "DEDUP_REVOKE 0 {0}; I revoke file_handle = 0 ret = @|; "},

    {[] { return PreCreateDirSnapshot({}); }, "", "", 0, {0}, 0, nullptr,
     "I ------PreCreateDirSnapshot entry------|; "},
    {[] { return PreCreateDirSnapshot({S, CLIMBING, S}); }, "", "", 0, {0}, -1, nullptr,
     "I ------PreCreateDirSnapshot entry------|; opendir $/s; closedir $/s; " CLIMBS},
    {[] { return PreCreateDirSnapshot({S + "/none", S}); }, "", "", 0, {0}, -2, "/none ",
     "E Failed to open dir $/s/none|; E fail to PreCreateSingleDirSnapshot ret = -2|; "},
    {[] { return CreateDirSnapshot({}, CLIMBING); }, "", "", 0, {0}, 0, nullptr,
     CREATE_ENTRY "[$/s/../d] entry------|; E empty dirpath size just return 0|; "},
    {[] { return CreateDirSnapshot({S, CLIMBING, S}, D); }, "", "", 0, {0}, -1, nullptr,
     CREATE_ENTRY "[$/d] entry------|; " CLIMBS},
    {[] { return CreateDirSnapshot({S}, CLIMBING); }, "", "", 0, {0}, -1, nullptr,
     CREATE_ENTRY "[$/s/../d] entry------|; " CLIMBS},
    {[] { return DestroyDirSnapshot(CLIMBING); }, "", "", 0, {0}, -1, nullptr,
     "I ------DestroyDirSnapshot for dstpath [$/s/../d] entry------|; " CLIMBS},

    // The walks, undisturbed.
    {prepare, TREE + "s/b/none/ s/p| s/u=", "", 0, {0}, 0, "/s +a /b /none +x +y +c ", "", 0,
     {{"u", DT_UNKNOWN}}},
    {createTwo, TREE + "s/b/none/ s/n=1 m/z=2 d/snapshot/", "", 0, {0}, 0,
     "/snapshot ~snapshot " ROOT_MADE "/s +a *b /b *none /none +x +y +c >l +n "
     "*m /m +z /s ?a /b /none ?x ?y ?c ?n /m ?z -a +a -n +n -z +z "
     "/s ?a /b /none ?x ?y ?c ?n /m ?z ", NOT_MODIFIED, 6},
    {create, "d/snapshot/", "", 0, {0}, 0, nullptr,
     CREATE_ENTRY "[$/d] entry------|; stat $/d/snapshot; "
     "I dstpath [$/d/snapshot] already exist need destroy first|; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot] enter|; opendir $/d/snapshot; "
     "closedir $/d/snapshot; rmdir $/d/snapshot; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot] leave ret = 0|; "
     "stat /proc; stat /proc/self; stat $; stat $/d; stat $/d/snapshot = -1; "
     "mkdir $/d/snapshot 0770; I prepare dstpath [$/d/snapshot$/s] dir first|; "
     "stat /proc; stat /proc/self; stat $; stat $/d; stat $/d/snapshot; "
     "stat $/d/snapshot/proc = -1; mkdir $/d/snapshot/proc 0770; "
     "stat $/d/snapshot/proc/self = -1; mkdir $/d/snapshot/proc/self 0770; "
     "stat $/d/snapshot$ = -1; mkdir $/d/snapshot$ 0770; stat $/d/snapshot$/s = -1; "
     "mkdir $/d/snapshot$/s 0770; opendir $/s; closedir $/s; opendir $/s; closedir $/s; "
     NOT_MODIFIED},
    {destroy, "d/snapshot/m/none/ d/snapshot/l>..", "", 0, {0}, 0, nullptr,
     "I ------DestroyDirSnapshot for dstpath [$/d] entry------|; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot] enter|; "
     "opendir $/d/snapshot; unlink $/d/snapshot/l; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot/m] enter|; opendir $/d/snapshot/m; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot/m/none] enter|; "
     "opendir $/d/snapshot/m/none; closedir $/d/snapshot/m/none; rmdir $/d/snapshot/m/none; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot/m/none] leave ret = 0|; "
     "closedir $/d/snapshot/m; rmdir $/d/snapshot/m; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot/m] leave ret = 0|; "
     "closedir $/d/snapshot; rmdir $/d/snapshot; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot] leave ret = 0|; "},
    {destroy, "", "", 0, {0}, -2, nullptr,
     "I ------DestroyDirSnapshot for dstpath [$/d] entry------|; "
     "I DestroyDirSnapshotInter for dstpath [$/d/snapshot] enter|; "
     "opendir $/d/snapshot = -1; E Failed to open dir $/d/snapshot|; "},

    // A failure of each call for one file.
    {prepareFile, TREE, "open $/s/a", 0, ONE, -2, "+a ",
     "E open srcfilepath = $/s/a failed source_file_fd = -1 errno = 13|; "},
    {prepareFile, TREE, "DEDUP", 0, ANY, GIVEN, "+a ", GET_FAILED},
    {prepareFile, TREE, "open $/s ", 0, ONE, -2, "+a ",
     "E open failed srcdirpath = $/s source_dir_fd = -1|; "},
    {prepareFile, TREE, "MODIFY_CHECK", 0, ANY, GIVEN, "+a ",
     "E F2FS_IOC_MODIFY_CHECK set source_file_fd failed ret = @|; "},
    {prepareFile, TREE, "CLONE_FILE", 0, ANY, GIVEN, "+a ", "E F2FS_IOC_CLONE_FILE failed ret = @|; "},
    {prepareFile, TREE, "SNAPSHOT_PREPARE", 0, ANY, GIVEN, "+a ",
     "E F2FS_IOC_SNAPSHOT_PREPARE ioctl create fail ret = @|; "},
    {snapshotFile, TREE, "open $/s/a", 0, ONE, -2, "",
     "E open failed srcfilepath = $/s/a source_file_fd = -1|; "},
    {snapshotFile, TREE, "stat $/s/a", 0, ANY, GIVEN, "", "E stat failed srcfilepath = $/s/a|; "},
    {snapshotFile, TREE, "open $/m/a", 0, ONE, -2, "",
     "E open failed dstfilepath = $/m/a dst_file_fd = -1|; "},
    {snapshotFile, TREE, "fallocate", 0, ANY, GIVEN, "",
     "E fallocate failed dstfilepath = $/m/a dst_file_fd = #|; "},
    {snapshotFile, TREE, "MODIFY_CHECK $/s", 0, ANY, GIVEN, "",
     "E [$/s/a] F2FS_IOC_MODIFY_CHECK failed ret = @|; "},
    {snapshotFile, TREE, "MODIFY_CHECK $/m", 0, ANY, GIVEN, "",
     "E [$/m/a] F2FS_IOC_MODIFY_CHECK failed ret = @|; "},
    {snapshotFile, TREE, "SNAPSHOT_CREATE", 0, ANY, GIVEN, "", CREATE_FAILED},

    // The walks differ in the results that stop them: of an entry, or of a directory below.
    {prepare, TREE, "DEDUP", 0, ONE, -1, "/s +a ", GET_FAILED PREPARE_FAILED},
    {prepare, TREE, "DEDUP", 0, {5}, 5, "/s +a ", GET_FAILED},
    {prepare, TREE, "DEDUP", 1, ONE, -1, "/s +a /b +x ", GET_FAILED PREPARE_FAILED},
    {prepare, TREE, "DEDUP", 1, {5}, 0, "/s +a /b +x +c ", GET_FAILED},
    // A positive result of a source does not stop the list, and is returned only for the last one.
    {prepareTwo, TREE, "DEDUP", 0, {5}, 0, "/s +a /m ", GET_FAILED},
    {mirror, TREE, "SNAPSHOT_CREATE", 1, ANY, GIVEN, "/s +a *b /b +x ", CREATE_FAILED},
    {mirror, TREE, "DEDUP", 1, ANY, GIVEN, "/s +a *b /b +x ", GET_FAILED},
    {mirror, TREE + "s/z=", "symlink", 0, ANY, GIVEN, "/s +a *b /b +x +y +c >l ", ""},
    {mirror, TREE, "mkdir $/m/b 0770", 0, ANY, GIVEN, "/s +a *b ", "E Failed to mkdir $/m/b|; "},
    {mirror, TREE, "opendir $/s/b", 0, ONE, -2, "/s +a *b /b ", "E Failed to open dir $/s/b|; "},
    {mirror, TREE, "", 0, {0}, -22, "/s +a ", "E INVALID file_type = 1 return EINVAL|; ", 0,
     {{"b", DT_FIFO}}},
    {mirror, TREE, "", 0, {0}, -22, "/s +a ", "E INVALID file_type = 0 return EINVAL|; ", 0,
     {{"b", DT_UNKNOWN}}},
    {check, TREE, "opendir $/s/b", 0, ONE, -2, "/s ?a /b ",
     "I dstsnapshotfile already not exist, add to modifyfilelist|; E Failed to open dir $/s/b|; "
     "listed kept entry $/s a; "},
    {destroy, OLD, "unlink $/d/snapshot/b/x", 0, ANY, -1, "/snapshot -a /b -x ~b ~snapshot ",
     "E unlink [$/d/snapshot/b/x] fail ret = @|; "},
    {destroy, OLD, "opendir $/d/snapshot/b", 0, ONE, -1, "/snapshot -a /b ~snapshot ",
     "E Failed to open dir $/d/snapshot/b|; "},
    {destroy, OLD, "rmdir $/d/snapshot/b", 0, {5}, -1, "/snapshot -a /b -x -y ~b -c -l ~snapshot ",
     ""},
    {destroy, OLD, "", 0, {0}, -1, "/snapshot -a /b -y ~b ~snapshot ",
     "E INVALID file_type = 1 found and continue|; ", 0, {{"x", DT_FIFO}}},

    // A check lists the files without a snapshot, without a mark, and those that it cannot query.
    {check, CHECKED, "MODIFY_CHECK", 0, {0}, 0, nullptr,
     "opendir $/s; I ready to check modify flag for sourcefilefullpath = $/s/a "
     "dstsnapshotfilepath = $/m$/s/a|; open $/s/a O_RDONLY; MODIFY_CHECK $/s/a {0, 0x8}; "
     "close $/s/a; stat $/m$/s/a; closedir $/s; listed kept entry; ", 0, {}, 0x2},
    {check, CHECKED, "MODIFY_CHECK", 0, {0}, 0, "/s ?a ", "listed kept entry $/s a; ", 0, {},
     0xFFFFFFFD},
    {check, CHECKED, "MODIFY_CHECK", 0, ANY, 0, "/s ?a ",
     "E F2FS_IOC_MODIFY_CHECK:get $/s/a failed|; listed kept entry $/s a; ", 0, {}, 0x2},
    {check, CHECKED, "open $/s/a", 0, ONE, 0, "/s ?a ",
     "E path_fd [$/s/a] open failed errno = 13|; listed kept entry $/s a; "},
    {check, "s/a=", "MODIFY_CHECK", 0, {0}, 0, "/s ?a ",
     "I dstsnapshotfile already not exist, add to modifyfilelist|; listed kept entry $/s a; ", 0,
     {}, 0x2},
    // A snapshot leaves itself out of its source. Paths are compared byte by byte.
    {[] { return checkInto(S, S + "/d/snapshot"); }, "s/a= s/d/snapshot/old=", "", 0, {0}, 0,
     "/s ?a /d ", "I dstsnapshotfile already not exist, add to modifyfilelist|; " LEFT_OUT
     "listed kept entry $/s a; "},
    {[] { return checkInto(S + "/", S + "/d/snapshot"); }, "s/d/snapshot/old=", "", 0, {0}, 0,
     "/ /d /snapshot ?old ", "I dstsnapshotfile already not exist, add to modifyfilelist|; "
     "listed kept entry $/s//d/snapshot old; "},
    {[] { return CreateSingleDirSnapshot(S, M, S + "/d/snapshot"); }, "s/a= s/d/snapshot/old=",
     "", 0, {0}, 0, "/s +a *d /d ", LEFT_OUT},
    {[] { return CreateDirSnapshot({"s"}, "d/"); }, "s/a=", "", 0, {0}, 0,
     "*snapshot *snapshots /s +a /s ?a ", NOT_MODIFIED},

    // A failed create removes the root, unless it could not make a mirror directory.
    {create, "", "mkdir $/d/snapshot ", 0, ANY, GIVEN, "*snapshot ",
     "E final Failed to mkdir $/d/snapshot ret = @|; "
     "E dstpath [$/d/snapshot] not exist and mkdirsLoop fail ret = @ and return|; "},
    {create, "d/snapshot/old=", "stat $/d/snapshot", 0, {-1, 5}, 0,
     "*proc *self *snapshot$ *s /s /s ", NOT_MODIFIED},
    {create, "d/snapshot/", "rmdir $/d/snapshot", 0, ANY, GIVEN, "/snapshot ~snapshot ",
     "E dstpath [$/d/snapshot] destroy fail and return|; "},
    {create, "d/snapshot/", "opendir $/d/snapshot", 0, ONE, -2, "/snapshot ",
     "E Failed to open dir $/d/snapshot|; E dstpath [$/d/snapshot] destroy fail and return|; "},
    {create, "d/snapshot/", "mkdir $/d/snapshot ", 0, ANY, GIVEN, "/snapshot ~snapshot *snapshot ",
     "E final Failed to mkdir $/d/snapshot ret = @|; "
     "E mkdirsLoop fail ret = @ even after DestroyDirSnapshot|; "},
    {createTwo, "", "mkdir $/d/snapshot$/m", 0, ANY, GIVEN, ROOT_MADE "/s *m ",
     "E final Failed to mkdir $/d/snapshot$/m ret = @|; "
     "E Failed to mkdirsLoop $/d/snapshot$/m|; "},
    {createTwo, "s/a=1", "SNAPSHOT_CREATE", 0, ANY, GIVEN,
     ROOT_MADE "/s +a " ROOT_OPENED "-a " ROOT_REMOVED,
     CREATE_FAILED "E [$/d/snapshot] snapshot first create fail ret = @ destroy ret1 = 0|; "},
    // A pass that cannot read a source does not check the next one, and goes on with what it has.
    {createTwo, "s/a=1 m/z=2", "opendir $/s", 1, ONE, 0,
     ROOT_MADE "/s +a *m /m +z /s ",
     "E Failed to open dir $/s|; E fail to checkModifyFiles ret = -2|; " NOT_MODIFIED, 2},
    {createTwo, "s/a=1 m/z=2", "opendir $/m", 1, ONE, 0,
     ROOT_MADE "/s +a *m /m +z /s ?a /m -a +a /s ?a /m ?z -z +z /s ?a /m ?z ",
     "E Failed to open dir $/m|; E fail to checkModifyFiles ret = -2|; " NOT_MODIFIED, 2},
    {create, "s/a=1", "", 0, {0}, 0, UNCHECKED, NOT_MODIFIED, 10},
    {create, "s/a=1", "", 0, {0}, -11, UNCHECKED, "E reach MAX_LOOP_COUNT=10 and exit|; "
     "E [$/d/snapshot] snapshot create fail ret = -11 destroy ret1 = 0|; ", 11},
    {create, "s/a=1", "unlink $/d/snapshot/$/s/a", 0, {-1}, -1, UNCHECKED,
     "I [$/d/snapshot/$/s/a] unlink ret = -1 errno = 13 and ready to recreate snapshot|; " CLEANED, 1},
    {create, "s/a=1", "unlink $/d/snapshot/$/s/a", 0, ANY, GIVEN,
     ROOT_MADE "/s +a /s ?a -a " ROOT_OPENED "-a " ROOT_REMOVED, CLEANED, 1},
    {create, "s/a=1", "DEDUP", 1, ANY, GIVEN,
     ROOT_MADE "/s +a /s ?a -a +a " ROOT_OPENED ROOT_REMOVED, GET_FAILED CLEANED, 1},
    {create, "s/a=1", "SNAPSHOT_CREATE", 1, ANY, GIVEN,
     ROOT_MADE "/s +a /s ?a -a +a " ROOT_OPENED "-a " ROOT_REMOVED, CREATE_FAILED CLEANED, 1},
};
// clang-format on

TEST_F(EngineTest, Cases) {
    for (const Case& row : CASES) {
        for (const int given : row.answers) {
            SCOPED_TRACE(row.call + std::string(" = ") + std::to_string(given));
            restart(row.tree);
            kernel->types = row.types;
            outdate(row.writes);
            if (*row.call != '\0') {
                kernel->answer(row.call, {given, EACCES, row.word}, row.skip);
            }
            EXPECT_EQ(run(row.operation), row.result == GIVEN ? given : row.result);
            const int fd = open(".", O_RDONLY);  // the library's first one; its second follows
            close(fd);
            const std::string expected = replaced(row.lines, "@", std::to_string(given));
            const bool is_whole = row.steps == nullptr;
            EXPECT_EQ(is_whole ? lines()
                               : lines({"E ", "I ALL", "I dsts",
                                        "I [$/d/snapshot/$/s/a] unlink ret = -1", "listed"}),
                      replaced(replaced(expected, "#", std::to_string(fd + 1)), "; ", "\n"));
            if (!is_whole && row.steps != UNCHECKED) {
                EXPECT_EQ(steps(), row.steps);
            }
        }
    }
}

TEST_F(EngineTest, SnapshotsHoldTheDataOfTheirSources) {
    const struct {
        uintmax_t size;
        const char* fallocate;
        int32_t result;
    } table[] = {
        {5, "fallocate $/m/a 0 0 5\n", 0},
        {0, "", 0},
        // The length is cut to 32 bits.
        {uintmax_t{3} << 30, "fallocate $/m/a 0 0 -1073741824 = -1\n", -1},
        {uintmax_t{4} << 30, "fallocate $/m/a 0 0 0 = -1\n", -1},
        {(uintmax_t{4} << 30) + 1, "fallocate $/m/a 0 0 1\n", 0},
    };
    restart("s/a=data");
    for (const auto& row : table) {
        fs::resize_file("s/a", row.size);
        EXPECT_EQ(run(snapshotFile), row.result) << row.size;
        EXPECT_EQ(lines({"fallocate"}), row.fallocate);
        EXPECT_EQ(fs::file_size("m/a"), row.result == 0 ? row.size : 0);
    }
    EXPECT_EQ(modeOf("m/a"), 0440);
    for (const std::string& text : {std::string(4095, 'x'), std::string("a\n\xFF; ")}) {
        restart("s/a=data");
        fs::create_symlink(text, "s/l");
        EXPECT_EQ(run(create), 0);
        EXPECT_EQ(dump(D + "/snapshot" + S), (Dump{"a:data", "l->" + text}));
    }
}

// Each open returns 0 in turn.
TEST_F(EngineTest, DescriptorZeroIsValid) {
    restart("s/a=data s/b/x=");
    ASSERT_EQ(run(create), 0);
    const std::string expected = lines();
    const std::string opens = lines({"open "});
    const int saved = fcntl(0, F_DUPFD_CLOEXEC, 100);
    for (auto nth = std::count(opens.begin(), opens.end(), '\n'); nth > 0; --nth) {
        restart("s/a=data s/b/x=");
        kernel->before = [left = nth](const std::string& call) mutable {
            if (call.rfind("open ", 0) == 0 && --left == 0) {
                close(0);
            }
        };
        EXPECT_EQ(run(create), 0);
        EXPECT_EQ(lines(), expected);
        dup2(saved, 0);
    }
    close(saved);
}

}  // namespace
