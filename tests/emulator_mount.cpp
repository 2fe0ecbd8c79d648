// SPDX-License-Identifier: Apache-2.0
#include "tests/emulator_mount.h"

#include <sys/mount.h>

#include <utility>

#ifndef F2FS_EMULATOR_PATH
#define F2FS_EMULATOR_PATH ""
#endif

EmulatorMount::EmulatorMount() : root_(makeDirectory(fs::temp_directory_path())) {
    fs::create_directory(backing());
    fs::create_directory(mount());
}

EmulatorMount::~EmulatorMount() {
    stop(SIGKILL);
    // Stays out of a mount that could not be unmounted.
    runProcess({"rm", "-rf", "--one-file-system", root_});
}

bool EmulatorMount::start() {
    const auto daemon = [&] {
        fs::current_path(root_);
        return execute({F2FS_EMULATOR_PATH, "backing", "mount", "-f"}, STDOUT_FILENO,
                       open("errors", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    };
    pid_ = startChild(daemon, SIGTERM);  // a test that crashes leaves no mount behind either
    const auto device_of = [](const fs::path& path) {
        struct stat path_stat = {};
        return stat(path.c_str(), &path_stat) == 0 ? path_stat.st_dev : 0;
    };
    while (device_of(mount()) == device_of(root_)) {
        usleep(1000);
        if (waitpid(pid_, nullptr, WNOHANG) != 0) {
            pid_ = -1;
            return false;
        }
    }
    return true;
}

int EmulatorMount::stop(int signal) {
    const int status = pid_ > 0 ? endChild(std::exchange(pid_, -1), signal) : 0;
    if (signal == SIGKILL && umount2(mount().c_str(), MNT_DETACH) != 0) {
        runProcess({"fusermount3", "-uqz", mount()});
    }
    return status;
}

std::string EmulatorMount::errors() const {
    // The emulator writes this line at each start where the file system cannot share blocks.
    return runProcess({"grep", "-v", "cannot share blocks, so snapshots are plain copies$",
                       root_ / "errors"})
        .out;
}

void EmulatedVolume::SetUp() {
    if (*F2FS_EMULATOR_PATH == '\0') {
        GTEST_SKIP() << "this build has no emulator, and F2FS_SNAPSHOT_TEST_VOLUME names no volume";
    }
    // Tried without the emulator, so that its own failure to mount fails the test.
    static const Outcome trial = runProcess({"sh", "-c", R"(
        [ -w /dev/fuse ] || { ls -l /dev/fuse >&2; exit 1; }
        [ $(id -u) != 0 ] || exec unshare --mount mount -t tmpfs none /tmp
        exec fusermount3 -V)"});
    if (trial.status != 0) {
        GTEST_SKIP() << "volumes cannot be mounted here: " << trial.err;
    }
    umask(022);
    ASSERT_TRUE(volume.start()) << volume.errors();
}

void EmulatedVolume::TearDown() {
    EXPECT_EQ(volume.stop(SIGTERM), 0);
    EXPECT_EQ(volume.errors(), "");
}

void VolumeTest::SetUp() {
    umask(022);  // modes are compared
    if (isEmulated()) {
        EmulatedVolume::SetUp();
    }
    if (!IsSkipped()) {
        fs::create_directory(source);
    }
}

void VolumeTest::TearDown() {
    if (isEmulated()) {
        EmulatedVolume::TearDown();
    } else {
        fs::current_path("/");
        fs::remove_all(top);
    }
}

int VolumeTest::run(const std::string& command) {
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

void VolumeTest::expectDestroy() {
    EXPECT_EQ(run("destroy"), 0) << log;
    EXPECT_TRUE(fs::is_empty(target));
}
