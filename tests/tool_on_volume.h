// SPDX-License-Identifier: Apache-2.0
// A test of the real tool on a mounted volume.
#pragma once

#include "tests/emulator_mount.h"
#include "tests/process.h"
#include "tests/test_tree.h"

// The source is an empty folder at first, the target does not exist.
class ToolOnVolume : public VolumeTest {
  protected:
    void SetUp() override {
        VolumeTest::SetUp();
        if (!IsSkipped()) {
            fs::create_directory(source);
        }
    }
    // Runs pre, create or destroy with source and target. Returns its exit status and keeps its
    // log.
    int run(const std::string& command) {
        std::vector<std::string> words = {F2FS_SNAPSHOT_TOOL_PATH, command};
        if (command != "destroy") {
            words.push_back(source);
        }
        if (command != "pre") {
            words.push_back(target);
        }
        const Outcome outcome = runProcess(words);
        log = outcome.err;
        EXPECT_EQ(outcome.out == "execute sucess\n", outcome.status == 0) << outcome.out << log;
        return outcome.status;
    }
    void expectDestroy() {
        EXPECT_EQ(run("destroy"), 0) << log;
        EXPECT_TRUE(fs::is_empty(target));
    }
    // Where the source's snapshot is.
    std::string mirror() const {
        return target + "/snapshot" + source;
    }

    std::string source = at("source");
    std::string target = at("target");
    std::string log;
};
