// Where the promise of one instant ends: each limit made to happen at an exact call, among the
// cases next to it that the promise covers.
#include <sstream>

#include "fake_kernel.h"
#include "snapshot.h"
#include "tree_gen.h"

namespace {

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
    void fill() {
        TearDown();
        SetUp();
        act("mkdir s/m; mkdir o/m; put s/a old; put s/b old; put s/m/c old; put s/z old; "
            "link s/link old; put o/marked else; put o/m/c else");
        kernel.emplace(root);
        ASSERT_EQ(kernel->run([&] { return PreCreateDirSnapshot({at("o")}); }), 0);
        act("put o/new new");
    }

    void act(const std::string& script) {
        std::istringstream steps(script);
        for (std::string step; std::getline(steps, step, ';');) {
            std::istringstream words(step);
            std::string verb, path, word;
            words >> verb >> path >> word;
            if (verb == "put") {
                write(at(path), word);
            } else if (verb == "move") {
                fs::rename(at(path), at(word));
            } else if (verb == "remove") {
                fs::remove(at(path));
            } else if (verb == "mkdir") {
                fs::create_directories(at(path));
            } else if (verb == "link") {
                fs::create_symlink(word, at(path));
            } else if (verb == "hardlink") {
                fs::create_hard_link(at(path), at(word));
            } else if (verb == "prepare") {
                EXPECT_EQ(kernel->run([&] { return PreCreateSingleFileSnapshot(at("s"), path); }),
                          0);
            } else if (verb == "snapshot") {
                EXPECT_EQ(
                    kernel->run([&] { return CreateSingleFileSnapshot(at("s"), path, at("o")); }),
                    0);
            } else if (verb == "unreadable") {
                kernel->answer("opendir $/" + path, {-1, EACCES, {}});
            } else {
                ADD_FAILURE() << verb;
            }
        }
    }

    // Creates the snapshot, and acts before the nth of a call.
    int32_t create(const std::vector<std::string>& sources, const std::string& call, int nth,
                   const std::string& script) {
        kernel->before = [&, nth](const std::string& line) mutable {
            if (line == call && --nth == 0) {
                act(script);
            }
        };
        return kernel->run([&] { return CreateDirSnapshot(sources, at("d")); });
    }

    std::optional<FakeKernel> kernel;
};

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
    {"covered: a write", "", "put s/a new", NEW_A},
    {"covered: a new file", "", "put s/n new", "a:old b:old link->old m/ m/c:old n:new z:old "},
    {"covered: a new file in the place of another", "", "move o/new s/a", NEW_A},
    {"covered: a marked file under a new name", "", "move o/marked s/n",
     "a:old b:old link->old m/ m/c:old n:else z:old "},
    {"covered: a prepare meanwhile, of a prepared file", "", "put s/a new; prepare a", NEW_A},

    {"a deleted file keeps its snapshot", "", "remove s/a", OLD},
    {"a new folder is missed while it holds no file", "", "mkdir s/n/n", OLD},
    {"a new folder with a file ends the create", "", "mkdir s/n; put s/n/f new", ""},
    {"new and changed links are missed", "", "remove s/link; link s/link new; link s/n new", OLD},
    {"a file that this create has marked, in the place of another", "put s/b new", "move s/b s/a",
     "a:old b:new link->old m/ m/c:old z:old "},
    {"so that a rotated log is lost", "put s/b new", "move s/b s/a; put s/b empty",
     "a:old b:empty link->old m/ m/c:old z:old "},
    {"a file that it is just marking", "", "put s/b new; move s/b s/a",
     "a:old b:new link->old m/ m/c:old z:old ",
     "open $/d/snapshot$/s/b O_RDWR|O_CREAT|O_TRUNC 0440", 1},
    {"a file that an earlier prepare has marked", "", "move o/marked s/a", OLD},
    {"a folder of marked files in the place of another", "", "move s/m o/n; move o/m s/m", OLD},
    {"a new file in the place of another, and a prepare", "", "move o/new s/a; prepare a", OLD},
    {"a write, and another create's snapshot", "", "put s/a new; snapshot a", OLD},
    {"two names of one file, written to between their snapshots", "hardlink s/a s/h", "put s/a new",
     "a:old b:old h:new link->old m/ m/c:old z:old ", "open $/s/h O_RDWR", 1},
    {"what comes after a folder that a pass cannot read", "", "unreadable s/m; put s/z new", OLD},
};

TEST_F(LimitsTest, AtExactCalls) {
    for (const Limit& row : LIMITS) {
        SCOPED_TRACE(row.what);
        fill();
        act(row.before);
        const std::string source = listing(at("s"));
        const int32_t ret = create({at("s")}, row.call, row.nth, row.meanwhile);
        EXPECT_NE(listing(at("s")), source) << "nothing was done";
        EXPECT_EQ(ret, *row.snapshot != '\0' ? 0 : -2);
        EXPECT_EQ(ret == 0 ? listing(at("d/snapshot") + at("s")) : listing(at("d")), row.snapshot);
    }
}

// One folder by two paths is the same as two names of each of its files.
TEST_F(LimitsTest, TwoSourcesThatAreOneFolder) {
    fill();
    act("link again s");
    EXPECT_EQ(create({at("s"), at("again")}, "opendir $/again", 1, "put s/a new"), 0);
    EXPECT_EQ(listing(at("d/snapshot") + at("s")), OLD);
    EXPECT_EQ(listing(at("d/snapshot") + at("again")), NEW_A);
}

}  // namespace
