// SPDX-License-Identifier: Apache-2.0
// The limits of the promises: each is made to happen at an exact call. Beside them are the closest
// cases that the promise of one instant covers. On a given volume, its driver serves the requests.
#include <sched.h>
#include <sys/mount.h>

#include <sstream>

#include "snapshot/snapshot.h"
#include "tests/fake_kernel.h"
#include "tests/helpers.h"

namespace {

// The source and the target; HERE is "$" in traces.
const std::string S = HERE + "/s";
const std::string D = HERE + "/d";
const std::string MIRROR = D + "/snapshot" + S;

// A tree in one line, with a space behind each entry.
std::string listing(const fs::path& top) {
    std::string text;
    for (const std::string& entry : dump(top)) {
        text += entry + " ";
    }
    return text;
}

class LimitsTest : public TestTree {
  protected:
    // An empty directory and a new kernel.
    void restart(const std::string& script) {
        TearDown();
        fs::create_directory(root);
        SetUp();
        kernel.emplace(HERE);
        kernel->has_driver = givenVolume() == nullptr;
        act(script);
    }
    // Executes a script in the shell, except prepare, create and unreadable, which are done here.
    void act(const std::string& script) {
        std::istringstream steps(script);
        for (std::string step; std::getline(steps >> std::ws, step, ';');) {
            const std::string directory = step.substr(step.rfind(' ') + 1);
            const std::string path = HERE + "/" + directory;
            if (step == "prepare " + directory) {
                EXPECT_EQ(kernel->run([&] { return PreCreateDirSnapshot({path}); }), 0);
            } else if (step == "create " + directory) {
                EXPECT_EQ(kernel->run([&] { return CreateDirSnapshot({S}, path); }), 0);
            } else if (step == "unreadable " + directory) {
                kernel->answer("opendir $/" + directory, {-1, EACCES, {}});
            } else {
                ASSERT_EQ(shell(step), "") << step;
            }
        }
    }
    // Executes a script before the nth occurrence of a call.
    void actAt(const std::string& call, int nth, const std::string& script) {
        acted = 0;
        kernel->before = [=](const std::string& line) mutable {
            if (line == call && --nth == 0) {
                ++acted;
                act(script);
            }
        };
    }
    int32_t create() {
        return kernel->run([] { return CreateDirSnapshot({S}, D); });
    }

    std::optional<FakeKernel> kernel;
    int acted = 0;
};

constexpr char FILES[] =
    "mkdir -p s/m o/m d; printf old | tee s/a s/b s/m/c >s/z; ln -s old s/link; "
    "printf else | tee o/marked >o/m/c; prepare o; printf new >o/new";

struct Limit {
    const char* what;
    const char* before;  // done before the create
    const char* meanwhile;
    const char* snapshot;  // empty: the create fails and leaves nothing
    const char* call = "opendir $/s";
    int nth = 2;  // of the call above: the start of the first check pass
};

constexpr char OLD[] = "a:old b:old link->old m/ m/c:old z:old ";
constexpr char NEW_A[] = "a:new b:old link->old m/ m/c:old z:old ";

const Limit LIMITS[] = {
    {"covered: a write", "", "printf new >s/a", NEW_A},
    {"covered: a new file", "", "printf new >s/n", "a:old b:old link->old m/ m/c:old n:new z:old "},
    {"covered: a new file replaces another", "", "mv -T o/new s/a", NEW_A},
    {"covered: a marked file under a new name", "", "mv -T o/marked s/n",
     "a:old b:old link->old m/ m/c:old n:else z:old "},
    {"covered: a prepare meanwhile, of a prepared file", "", "printf new >s/a; prepare s", NEW_A},
    {"covered: files before a directory that a pass cannot read", "",
     "unreadable s/m; printf new >s/a", NEW_A},

    {"a deleted file keeps its snapshot", "", "rm s/a", OLD},
    {"a new directory is missed while it holds no file", "", "mkdir -p s/n/n", OLD},
    {"a new directory with a file ends the create", "", "mkdir s/n; printf new >s/n/f", ""},
    {"new and changed links are missed", "", "rm s/link; ln -s new s/link; ln -s new s/n", OLD},
    {"a file that this create has marked replaces another", "printf new >s/b", "mv -T s/b s/a",
     "a:old b:new link->old m/ m/c:old z:old "},
    {"the same by a rotation: the old log is lost", "printf new >s/b",
     "mv -T s/b s/a; printf empty >s/b", "a:old b:empty link->old m/ m/c:old z:old "},
    {"a file that this create is about to mark replaces another", "",
     "printf new >s/b; mv -T s/b s/a", "a:old b:new link->old m/ m/c:old z:old ",
     "open $/d/snapshot$/s/b O_RDWR|O_CREAT|O_TRUNC 0440", 1},
    {"a file that an earlier prepare has marked replaces another", "", "mv -T o/marked s/a", OLD},
    {"a directory of marked files replaces another", "", "mv -T s/m o/n; mv -T o/m s/m", OLD},
    {"a new file replaces another, and a prepare", "", "mv -T o/new s/a; prepare s", OLD},
    {"a write, and another create's snapshot", "", "printf new >s/a; create o", OLD},
    {"two names of one file, written to between their snapshots", "ln s/a s/h", "printf new >s/a",
     "a:old b:old h:new link->old m/ m/c:old z:old ", "open $/s/h O_RDWR", 1},
    {"files after a directory that a pass cannot read", "", "unreadable s/m; printf new >s/z", OLD},
};

TEST_F(LimitsTest, OfOneInstant) {
    for (const Limit& row : LIMITS) {
        SCOPED_TRACE(row.what);
        restart(FILES);
        act(row.before);
        const std::string source = listing("s");
        actAt(row.call, row.nth, row.meanwhile);
        const int32_t ret = create();
        EXPECT_NE(listing("s"), source) << "nothing was done";
        EXPECT_EQ(ret, *row.snapshot != '\0' ? 0 : -2);
        EXPECT_EQ(listing(ret == 0 ? MIRROR : D), row.snapshot);
    }
}

// Harm by a user who may rename in the source or the target while the tool walks there: before the
// worst call, a link replaces a file or a directory.
struct Swap {
    bool creates;
    const char* call;
    const char* path;
    const char* link;
    const char* harm;
};

const Swap SWAPS[] = {
    {false, "opendir $/d/snapshot", "d/snapshot", "out", "removed"},
    {true, "stat $/d/snapshot", "d/snapshot", "out", "removed"},
    {false, "opendir $/d/snapshot$/s/m", "s/m", "out", "removed"},
    {false, "unlink $/d/snapshot$/s/m/f", "s/m", "out", "removed"},
    {false, "unlink $/d/snapshot$/s/f", "s/f", "out/f", "none"},
    {true, "open $/d/snapshot$/s/f O_RDWR|O_CREAT|O_TRUNC 0440", "s/f", "out/f", "overwritten"},
    {true, "open $/d/snapshot$/s/m/f O_RDWR|O_CREAT|O_TRUNC 0440", "s/m", "out", "overwritten"},
    {true, "open $/s/f O_RDWR", "s/f", "out/f", "copied"},
    {true, "opendir $/s/m", "s/m", "out", "copied"},
};

class SwapTest : public LimitsTest {
  protected:
    // What became of out/f.
    static std::string harm() {
        if (!fs::exists("out/f")) {
            return "removed";
        }
        const bool copied = read(MIRROR + "/f") == "secret" || read(MIRROR + "/m/f") == "secret";
        return read("out/f") != "secret" ? "overwritten" : copied ? "copied" : "none";
    }
    void expectHarm(bool links_are_followed) {
        for (const Swap& row : SWAPS) {
            const std::string call = row.call;
            kernel.emplace(HERE);
            kernel->has_driver = givenVolume() == nullptr;
            act("rm -rf s d out aside; mkdir -p s/m d/snapshot out; "
                "printf data | tee s/f >s/m/f; printf secret >out/f");
            ASSERT_TRUE(row.creates || create() == 0);
            const bool in_snapshot = call.find("$/d/snapshot$") != std::string::npos;
            const std::string path =
                (in_snapshot ? MIRROR.substr(0, MIRROR.size() - 1) : "") + row.path;
            actAt(call, 1,
                  "[ ! -e " + path + " ] || mv -T " + path + " aside; ln -s " + at(row.link) + " " +
                      path);
            kernel->run([&] { return row.creates ? create() : DestroyDirSnapshot(D); });
            EXPECT_EQ(acted, 1) << row.call;
            EXPECT_EQ(harm(), links_are_followed ? row.harm : "none") << row.call;
            EXPECT_TRUE(fs::exists("out")) << "a directory that a link names stays itself";
        }
    }
};

TEST_F(SwapTest, LinksAreFollowed) {
    expectHarm(true);
}

TEST_F(SwapTest, AMountWithNosymfollowPreventsHarm) {
    constexpr unsigned long NOSYMFOLLOW = 256;
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(root.c_str(), root.c_str(), "", MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "mounting is not permitted here";
    }
    fs::current_path(root);
    const bool is_known =
        mount("", root.c_str(), "", MS_REMOUNT | MS_BIND | NOSYMFOLLOW, nullptr) == 0;
    if (is_known) {
        expectHarm(false);
    }
    umount2(root.c_str(), MNT_DETACH);
    if (!is_known) {
        GTEST_SKIP() << "this kernel does not know the mount option nosymfollow";
    }
}

}  // namespace
