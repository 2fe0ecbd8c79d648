// Tool and emulator killed at any instant, and what somebody can do who puts links in the way.
#include <fcntl.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <functional>

#include "fake_kernel.h"
#include "snapshot.h"
#include "tool_on_volume.h"
#include "tree_gen.h"

namespace {

class CrashTest : public ToolOnVolume {
  protected:
    void SetUp() override {
        ToolOnVolume::SetUp();
        kernel.has_driver = false;
    }
    void makeSource() const {
        fs::remove_all(source);
        fs::create_directories(source + "/folder");
        for (int i = 0; i < 8; ++i) {
            write(source + "/folder/" + std::to_string(i), std::string(5000, 'f'));
        }
    }
    int32_t create() {
        return kernel.run([&] { return CreateDirSnapshot({source}, target); });
    }
    // The emulator is killed at a call, or up to so many microseconds later.
    int32_t createAndKill(size_t turn, size_t latest) {
        pid_t killer = -1;
        kernel.before = [&](const std::string& /*call*/) {
            if (kernel.calls == turn) {
                const auto delay = static_cast<useconds_t>(random.below(latest));
                killer = startChild([&] {
                    usleep(delay);
                    return kill(volume.pid(), SIGKILL);
                });
            }
        };
        const int32_t ret = create();
        kernel.before = nullptr;
        EXPECT_EQ(endChild(killer), 0);
        volume.kill9();
        return ret;
    }

    FakeKernel kernel{volume.root()};
    Random random;
};

// What the driver holds of a killed process stays: marks, layered files, half a snapshot.
TEST_F(CrashTest, TheToolIsKilled) {
    const std::function<int32_t()> operations[] = {
        [&] { return DestroyDirSnapshot(target); },
        [&] { return PreCreateDirSnapshot({source}); },
        [&] { return CreateDirSnapshot({source}, target); },
    };
    constexpr size_t KINDS = std::size(operations);
    const auto makeReady = [&](size_t kind) {
        makeSource();
        return kind != 0 ? 0 : create();
    };
    size_t calls[KINDS] = {};
    for (size_t kind = 0; kind < KINDS; ++kind) {
        ASSERT_EQ(makeReady(kind), 0);
        ASSERT_EQ(kernel.run(operations[kind]), 0);
        calls[kind] = kernel.calls;
    }
    for (int round = rounds(9, 300); round > 0 && !HasFailure(); --round) {
        const size_t kind = static_cast<size_t>(round) % KINDS;
        expectDestroy();
        ASSERT_EQ(makeReady(kind), 0);
        const std::vector<std::string> before = dump(source);
        const size_t turn = 1 + random.below(calls[kind]);
        kernel.before = [this, turn](const std::string& /*call*/) {
            if (kernel.calls == turn) {
                raise(SIGKILL);
            }
        };
        const auto killed = [&] { return kernel.run(operations[kind]); };
        EXPECT_EQ(endChild(startChild(killed)), 128 + SIGKILL);
        kernel.before = nullptr;
        EXPECT_EQ(run("create"), 0) << log;
        EXPECT_EQ(dump(mirror()), before);
        EXPECT_EQ(dump(source), before);
    }
}

TEST_F(CrashTest, TheEmulatorIsKilled) {
    makeSource();
    const std::vector<std::string> before = dump(source);
    EXPECT_EQ(create(), 0);
    const size_t calls = kernel.calls;
    int cut_short = 0;
    for (int round = 0; round < rounds(3, 60) || cut_short == 0; ++round) {
        ASSERT_LT(round, 100) << "no create was cut short";
        expectDestroy();
        makeSource();
        cut_short += createAndKill(1 + random.below(calls), 300) != 0 ? 1 : 0;
        EXPECT_EQ(dump(volume.backing() / "source"), before);
        ASSERT_TRUE(volume.start()) << volume.errors();
        EXPECT_EQ(run("create"), 0) << log;
        EXPECT_EQ(dump(mirror()), before);
        EXPECT_EQ(dump(source), before);
        ASSERT_FALSE(HasFailure());
    }
    std::cout << cut_short << " creates cut short" << std::endl;
}

// What somebody can do who may rename in the source or the target while the tool walks there, at
// the call where it does most harm.
class SwapTest : public TestTree {
  public:
    void fill() {
        for (const char* folder : {"s", "d", "out", "aside"}) {
            fs::remove_all(at(folder));
            fs::create_directories(at(folder) + "/m");
        }
        write(at("s/f"), "data");
        write(at("s/m/f"), "data");
        write(at("out/f"), "secret");
    }
    std::string mirror() const {
        return at("d/snapshot") + at("s");
    }
    // What became of out/f.
    std::string harm() const {
        if (!fs::exists(at("out/f"))) {
            return "removed";
        }
        const bool copied =
            read(mirror() + "/f") == "secret" || read(mirror() + "/m/f") == "secret";
        return read(at("out/f")) != "secret" ? "overwritten" : copied ? "copied" : "none";
    }
    void expectHarm(bool links_are_followed);
};

struct Swap {
    bool creates;
    const char* call;
    const char* link;  // the path that a link takes at that call; $ is the mirror of the source
    const char* text;
    const char* harm;
};

const Swap SWAPS[] = {
    {false, "opendir $/d/snapshot", "d/snapshot", "out", "removed"},
    {true, "stat $/d/snapshot", "d/snapshot", "out", "removed"},
    {false, "opendir $/d/snapshot$/s/m", "$/m", "out", "removed"},
    {false, "unlink $/d/snapshot$/s/m/f", "$/m", "out", "removed"},
    {false, "unlink $/d/snapshot$/s/f", "$/f", "out/f", "none"},
    {true, "open $/d/snapshot$/s/f O_RDWR|O_CREAT|O_TRUNC 0440", "$/f", "out/f", "overwritten"},
    {true, "open $/d/snapshot$/s/m/f O_RDWR|O_CREAT|O_TRUNC 0440", "$/m", "out", "overwritten"},
    {true, "open $/s/f O_RDWR", "s/f", "out/f", "copied"},
    {true, "opendir $/s/m", "s/m", "out", "copied"},
};

void SwapTest::expectHarm(bool links_are_followed) {
    for (const Swap& row : SWAPS) {
        fill();
        FakeKernel kernel(root);
        if (!row.creates) {
            ASSERT_EQ(kernel.run([&] { return CreateDirSnapshot({at("s")}, at("d")); }), 0);
        }
        bool acted = false;
        kernel.before = [&](const std::string& call) {
            if (call == row.call && !acted) {
                acted = true;
                const std::string path =
                    *row.link == '$' ? mirror() + (row.link + 1) : at(row.link);
                std::error_code missing;
                fs::rename(path, at("aside/it"), missing);
                fs::create_symlink(at(row.text), path);
            }
        };
        kernel.run([&] {
            return row.creates ? CreateDirSnapshot({at("s")}, at("d"))
                               : DestroyDirSnapshot(at("d"));
        });
        EXPECT_TRUE(acted) << row.call;
        EXPECT_EQ(harm(), links_are_followed ? row.harm : "none") << row.call;
        EXPECT_TRUE(fs::exists(at("out"))) << "a folder that a link names stays itself";
    }
}

TEST_F(SwapTest, LinksAreFollowed) {
    expectHarm(true);
}

TEST_F(SwapTest, AMountWithNosymfollowClosesIt) {
    constexpr unsigned long NOSYMFOLLOW = 256;
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(root.c_str(), root.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "mounting is not permitted here";
    }
    const bool is_known =
        mount(nullptr, root.c_str(), nullptr, MS_REMOUNT | MS_BIND | NOSYMFOLLOW, nullptr) == 0;
    if (is_known) {
        expectHarm(false);
    }
    umount2(root.c_str(), MNT_DETACH);
    if (!is_known) {
        GTEST_SKIP() << "this kernel does not know the mount option nosymfollow";
    }
}

// How often the window of destroy is hit by somebody who waits for its first removal and then puts
// a link in the place of a folder.
TEST_F(SwapTest, AFolderSwappedInARace) {
    int emptied = 0;
    const int destroys = rounds(20, 1000);
    for (int round = 0; round < destroys; ++round) {
        fill();
        const std::string swapped = at("d/snapshot/m");
        fs::create_directories(swapped);
        for (int i = 0; i < 30; ++i) {
            write(at("d/snapshot/" + std::to_string(i)), "");
        }
        const int watch = inotify_init1(IN_CLOEXEC);
        ASSERT_GE(inotify_add_watch(watch, at("d/snapshot").c_str(), IN_DELETE), 0);
        const pid_t swapper = startChild([&] {
            char event[4096];
            const bool moved = ::read(watch, event, sizeof event) > 0 &&
                               rename(swapped.c_str(), at("aside/it").c_str()) == 0;
            return moved ? symlink(at("out").c_str(), swapped.c_str()) : 1;
        });
        const int status = runProcess({F2FS_SNAPSHOT_TOOL_PATH, "destroy", at("d")}).status;
        endChild(swapper);
        close(watch);
        const bool hit = !fs::exists(at("out/f"));
        emptied += hit ? 1 : 0;
        EXPECT_TRUE(!hit || status == 255) << status;
        EXPECT_EQ(read(at("s/f")), "data") << "what no link named";
    }
    std::cout << emptied << " of " << destroys << " destroys emptied the folder that a link named"
              << std::endl;
}

// A pipe that takes a file's place just before the file is opened for reading makes the call wait
// until somebody opens the pipe for writing.
TEST_F(SwapTest, APipeIsWaitedFor) {
    for (const int nth : {1, 2}) {  // in the first creation, in a check pass
        fill();
        pid_t writer = -1;
        FakeKernel kernel(root);
        kernel.before = [&, seen = 0](const std::string& call) mutable {
            if (call == "open $/s/f O_RDONLY" && ++seen == nth) {
                fs::remove(at("s/f"));
                ASSERT_EQ(mkfifo(at("s/f").c_str(), 0600), 0);
                writer = startChild([&] { return close(open(at("s/f").c_str(), O_WRONLY)); });
                kernel.answer("MODIFY_CHECK", {-1, ENOTTY, {}});  // as on everything but files
                kernel.answer("DEDUP_GET_FILE_INFO", {-1, ENOTTY, {}});
            }
        };
        EXPECT_EQ(kernel.run([&] { return CreateDirSnapshot({at("s")}, at("d")); }), -1);
        ASSERT_GT(writer, 0);
        EXPECT_EQ(endChild(writer), 0);
        EXPECT_FALSE(fs::exists(at("d/snapshot")));
    }
}

}  // namespace
