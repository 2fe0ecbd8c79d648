// SPDX-License-Identifier: Apache-2.0
// Volumes for tests: the given one, or one of the driver emulator, mounted below a temporary
// directory. The mount ends with the object, and also if the test dies.
#pragma once

#include "tests/helpers.h"

class EmulatorMount {
  public:
    // Makes the directories. Nothing is mounted before start.
    EmulatorMount();
    ~EmulatorMount();
    EmulatorMount(const EmulatorMount&) = delete;
    EmulatorMount& operator=(const EmulatorMount&) = delete;

    // Starts the daemon, in the foreground, and waits until it serves. Returns false if it does
    // not; errors() says why.
    bool start();
    // Sends a signal (0: none) to the daemon and waits for its end. Returns its exit status or 128
    // + the signal that killed it; 0 when there is none. SIGKILL frees the mount point as well.
    int stop(int signal);

    const fs::path& root() const {
        return root_;
    }
    fs::path backing() const {
        return root_ / "backing";
    }
    fs::path mount() const {
        return root_ / "mount";
    }
    pid_t pid() const {
        return pid_;
    }
    // The complaints of this volume's daemons so far.
    std::string errors() const;

  private:
    fs::path root_;
    pid_t pid_ = -1;
};

// A test on a mounted emulator; skipped, with the reason, where nothing can be mounted.
class EmulatedVolume : public testing::Test {
  protected:
    void SetUp() override;
    // Fails the test when the daemon complained about anything.
    void TearDown() override;

    EmulatorMount volume;
};

// A test of library and tool in an empty directory of a volume with snapshot requests: the volume
// of F2FS_SNAPSHOT_TEST_VOLUME or, without it, a mounted emulator.
class VolumeTest : public EmulatedVolume {
  protected:
    // Makes the source, an empty directory. The target does not exist.
    void SetUp() override;
    void TearDown() override;

    static bool isEmulated() {
        return givenVolume() == nullptr;
    }
    std::string at(const std::string& path) const {
        return (top / path).string();
    }
    // Runs the tool's pre, create or destroy with source and target. Returns its exit status and
    // keeps its log.
    int run(const std::string& command);
    void expectDestroy();
    // The path of the source's snapshot.
    std::string mirror() const {
        return target + "/snapshot" + source;
    }

    const fs::path top = isEmulated() ? volume.mount() : makeDirectory(givenVolume());
    std::string source = at("source");
    std::string target = at("target");
    std::string log;
};
