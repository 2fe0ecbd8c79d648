// SPDX-License-Identifier: Apache-2.0
// The library killed at any instant, on a driver that keeps the state of a killed caller: marks,
// layered files, half a snapshot.
#include "snapshot/snapshot.h"
#include "tests/emulator_mount.h"
#include "tests/fake_kernel.h"

namespace {

class CrashTest : public VolumeTest {
  protected:
    // New files, for which the driver has no state.
    void makeSource() const {
        fs::remove_all(source);
        fs::create_directories(source + "/directory");
        for (const char* name : {"/1", "/directory/2", "/directory/3"}) {
            write(source + name, std::string(5000, 'f'));
        }
    }

    FakeKernel kernel{top};
};

// In the short form at some of the calls, in the long one at each.
TEST_F(CrashTest, TheLibraryIsKilled) {
    const std::function<int32_t()> create = [&] { return CreateDirSnapshot({source}, target); };
    const std::function<int32_t()> operations[] = {
        [&] { return PreCreateDirSnapshot({source}); },
        create,
        [&] { return DestroyDirSnapshot(target); },
    };
    kernel.has_driver = false;
    makeSource();
    const Dump before = dump(source);
    Random random;
    int kills = 0;
    for (const auto& operation : operations) {
        ASSERT_EQ(kernel.run(create), 0);
        makeSource();
        ASSERT_EQ(kernel.run(operation), 0);
        const size_t calls = kernel.calls;
        const auto step = static_cast<size_t>(rounds(static_cast<int>(calls / 4), 1));
        for (size_t turn = 1 + random.below(step); turn <= calls; turn += step, ++kills) {
            SCOPED_TRACE(turn);
            ASSERT_EQ(kernel.run(create), 0);
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
            ASSERT_FALSE(HasFailure());
        }
    }
    std::cout << kills << " kills" << std::endl;
}

}  // namespace
