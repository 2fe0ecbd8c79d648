// SPDX-License-Identifier: Apache-2.0
// A volume of the driver emulator for tests: a private folder, mounted below a temporary folder by
// a daemon of its own, gone with the object whatever became of the test.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <filesystem>
#include <string>

class EmulatorMount {
  public:
    // Makes the folders. Nothing is mounted before start.
    EmulatorMount();
    ~EmulatorMount();
    EmulatorMount(const EmulatorMount&) = delete;
    EmulatorMount& operator=(const EmulatorMount&) = delete;

    // Starts the daemon, in the foreground, and waits until it serves. False: it did not; errors()
    // tells.
    bool start();
    // Sends a signal (0: none) to the daemon and waits for its end. Returns its exit status or 128
    // + the signal that killed it; 0 when there is none. SIGKILL frees the mount point as well.
    int stop(int signal);
    void kill9() {
        stop(SIGKILL);
    }

    const std::filesystem::path& root() const {
        return root_;
    }
    std::filesystem::path backing() const {
        return root_ / "backing";
    }
    std::filesystem::path mount() const {
        return root_ / "mount";
    }
    pid_t pid() const {
        return pid_;
    }
    // What the daemons of this volume complained of so far.
    std::string errors() const;

  private:
    std::filesystem::path root_;
    pid_t pid_ = -1;
};

// A test on a mounted volume; skipped, with the reason, where there can be none.
class EmulatedVolume : public testing::Test {
  protected:
    void SetUp() override;
    // Fails the test when the daemon complained about anything.
    void TearDown() override;

    std::string at(const std::string& path) const {
        return (volume.mount() / path).string();
    }

    EmulatorMount volume;
};

// A test in an empty directory of a volume with snapshot requests. F2FS_SNAPSHOT_TEST_VOLUME=DIR
// names a directory on the volume of a real driver; without it, a volume of the emulator is
// mounted.
class VolumeTest : public EmulatedVolume {
  protected:
    void SetUp() override;
    void TearDown() override;

    bool isEmulated() const {
        return top == volume.mount();
    }
    std::string at(const std::string& path) const {
        return (top / path).string();
    }

    const std::filesystem::path top = makeTop();

  private:
    std::filesystem::path makeTop() const;
};
