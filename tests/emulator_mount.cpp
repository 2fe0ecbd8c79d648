#include "emulator_mount.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "process.h"
#include "test_tree.h"

namespace {

void unmount(const fs::path& mount_point) {
    if (umount2(mount_point.c_str(), MNT_DETACH) != 0) {
        runProcess({"fusermount3", "-uqz", mount_point});
    }
}

// Why volumes cannot be mounted here, or nullptr where they can. Found out without the emulator, so
// that its own failure to mount is a failure of the test.
const char* findUnavailableReason() {
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        return "there is no /dev/fuse that this user may open";
    }
    if (geteuid() == 0) {
        const Outcome trial =
            runProcess({"unshare", "--mount", "mount", "-t", "tmpfs", "none", "/tmp"});
        return trial.status == 0 ? nullptr : "mounting is not permitted here";
    }
    return runProcess({"fusermount3", "-V"}).status == 0 ? nullptr : "there is no fusermount3";
}

}  // namespace

EmulatorMount::EmulatorMount() {
    std::string name = fs::temp_directory_path() / "f2fs_emulator.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    root_ = fs::canonical(name);
    fs::create_directory(backing());
    fs::create_directory(mount());
}

EmulatorMount::~EmulatorMount() {
    unmount(mount());
    stop(SIGTERM);
    // Not through a mount that could not be undone.
    std::error_code ignored;
    fs::remove_all(backing(), ignored);
    fs::remove(mount(), ignored);
    fs::remove_all(root_, ignored);
}

bool EmulatorMount::start() {
    struct stat before = {};
    stat(mount().c_str(), &before);
    const int log =
        open((root_ / "errors").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    // A test that crashes leaves no mount behind either.
    pid_ = startProcess({F2FS_EMULATOR_PATH, backing(), mount(), "-f"}, log, log, SIGTERM);
    close(log);
    for (struct stat now = before; stat(mount().c_str(), &now) != 0 || now.st_dev == before.st_dev;
         usleep(5000)) {
        if (waitpid(pid_, nullptr, WNOHANG) != 0) {
            pid_ = -1;
            return false;
        }
    }
    return true;
}

int EmulatorMount::stop(int signal) {
    return pid_ > 0 ? endChild(std::exchange(pid_, -1), signal) : -1;
}

void EmulatorMount::kill9() {
    stop(SIGKILL);
    unmount(mount());
}

std::string EmulatorMount::errors() const {
    return read(root_ / "errors");
}

void EmulatedVolume::SetUp() {
    static const char* const reason = findUnavailableReason();
    if (reason != nullptr) {
        GTEST_SKIP() << reason;
    }
    ASSERT_TRUE(volume.start()) << volume.errors();
}

void EmulatedVolume::TearDown() {
    if (volume.pid() > 0) {
        EXPECT_EQ(volume.stop(SIGTERM), 0);
    }
    std::string errors = volume.errors();
    // Said at each start where the temporary folder's file system cannot do better.
    const std::string copies = "f2fs_emulator: the file system of " + volume.backing().string() +
                               " cannot share blocks, so snapshots are plain copies\n";
    for (size_t place; (place = errors.find(copies)) != std::string::npos;) {
        errors.erase(place, copies.size());
    }
    EXPECT_EQ(errors, "");
}
