// SPDX-License-Identifier: Apache-2.0
// Tool and emulator killed at any instant, and destroy in a race with somebody who puts a link in
// its way.
#include <sys/inotify.h>

#include <functional>

#include "snapshot/snapshot.h"
#include "tests/fake_kernel.h"
#include "tests/tool_on_volume.h"
#include "tests/tree_gen.h"

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

    FakeKernel kernel{top};
    Random random;
};

// What the driver holds of a killed process stays: marks, layered files, half a snapshot.
TEST_F(CrashTest, TheToolIsKilled) {
    const std::function<int32_t()> operations[] = {
        [&] { return DestroyDirSnapshot(target); },
        [&] { return PreCreateDirSnapshot({source}); },
        [&] { return create(); },
    };
    makeSource();
    const std::vector<std::string> before = dump(source);
    for (int round = rounds(9, 300); round > 0 && !HasFailure(); --round) {
        const auto& operation = operations[static_cast<size_t>(round) % std::size(operations)];
        ASSERT_EQ(create(), 0);
        makeSource();
        ASSERT_EQ(kernel.run(operation), 0);
        const size_t turn = 1 + random.below(kernel.calls);
        ASSERT_EQ(create(), 0);
        makeSource();
        kernel.before = [&](const std::string& /*call*/) {
            if (kernel.calls == turn) {
                raise(SIGKILL);
            }
        };
        EXPECT_EQ(endChild(startChild([&] { return kernel.run(operation); })), 128 + SIGKILL);
        kernel.before = nullptr;
        EXPECT_EQ(run("create"), 0) << log;
        EXPECT_EQ(dump(mirror()), before);
        EXPECT_EQ(dump(source), before);
        expectDestroy();
    }
}

TEST_F(CrashTest, TheEmulatorIsKilled) {
    if (!isEmulated()) {
        GTEST_SKIP() << "kills the emulator, which does not serve this volume";
    }
    makeSource();
    const std::vector<std::string> before = dump(source);
    fs::create_directory(target);
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

using SwapRaceTest = TestTree;

// How often the window of destroy is hit by somebody who waits for its first removal and then puts
// a link in the place of a folder.
TEST_F(SwapRaceTest, AFolderSwappedInARace) {
    int emptied = 0;
    const int destroys = rounds(20, 1000);
    for (int round = 0; round < destroys; ++round) {
        runProcess({"sh", "-c",
                    "rm -rf d out aside; mkdir -p d/snapshot/m out; printf secret >out/f; "
                    "cd d/snapshot; seq 30 | xargs touch"});
        const int watch = inotify_init1(IN_CLOEXEC);
        ASSERT_GE(inotify_add_watch(watch, "d/snapshot", IN_DELETE), 0);
        const pid_t swapper = startChild([&] {
            char event[4096];
            const bool moved =
                ::read(watch, event, sizeof event) > 0 && rename("d/snapshot/m", "aside") == 0;
            return moved ? symlink("../../out", "d/snapshot/m") : 1;
        });
        const int status = runProcess({F2FS_SNAPSHOT_TOOL_PATH, "destroy", "d"}).status;
        endChild(swapper, SIGKILL);
        close(watch);
        const bool hit = !fs::exists("out/f");
        emptied += hit ? 1 : 0;
        EXPECT_TRUE(!hit || status == 255) << status;
        EXPECT_TRUE(fs::exists("out"));
    }
    std::cout << emptied << " of " << destroys << " destroys emptied the folder that a link named"
              << std::endl;
}

}  // namespace
