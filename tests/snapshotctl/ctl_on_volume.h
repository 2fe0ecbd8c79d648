// SPDX-License-Identifier: Apache-2.0
// The program f2fs_snapshotctl on a volume.
#pragma once

#include "tests/emulator_mount.h"
#include "tests/helpers.h"

// "source" has a few files at first; the store does not exist.
class CtlOnVolume : public VolumeTest {
  protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (!IsSkipped()) {
            setenv("F2FS_SNAPSHOT_STORE", store.c_str(), 1);
            fs::create_directories(source + "/sub");
            write(source + "/a", "first");
            write(source + "/sub/b", "second");
        }
    }
    void TearDown() override {
        unsetenv("F2FS_SNAPSHOT_STORE");
        VolumeTest::TearDown();
    }

    static std::vector<std::string> words(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), F2FS_SNAPSHOTCTL_PATH);
        return arguments;
    }
    static Outcome ctl(const std::vector<std::string>& arguments) {
        return runProcess(words(arguments));
    }
    // A call that must succeed. Returns what it printed.
    static std::string done(const std::vector<std::string>& arguments) {
        const Outcome outcome = ctl(arguments);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        return outcome.out;
    }
    // What the store has, hidden names included.
    std::string stored() const {
        return shell("ls -A " + store);
    }

    std::string store = at("store");
};
