#include "emulator_mount.h"

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <system_error>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr auto PATIENCE = std::chrono::seconds(10);
constexpr auto PAUSE = std::chrono::milliseconds(5);

// Runs `done` until it is true or patience ends. Returns its last answer.
template <typename Condition>
bool waitFor(Condition done) {
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(PAUSE);
    }
    return true;
}

int statusOf(int wait_status) {
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

// Runs `body` in a child. Returns its exit status.
template <typename Body>
int inChild(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(body());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return statusOf(status);
}

int runQuietly(const char* program, const char* option, const char* argument) {
    return inChild([=] {
        const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execlp(program, program, option, argument, nullptr);
        return 127;
    });
}

// Mounts something harmless where nobody sees it.
bool isMountPermitted() {
    return inChild([] {
               const bool done = unshare(CLONE_NEWNS) == 0 &&
                                 mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
                                 mount("none", "/tmp", "tmpfs", 0, nullptr) == 0;
               return done ? 0 : 1;
           }) == 0;
}

void unmount(const fs::path& mount_point) {
    if (umount2(mount_point.c_str(), MNT_DETACH) != 0) {
        runQuietly("fusermount3", "-uqz", mount_point.c_str());
    }
}

const char* findUnavailableReason() {
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        return "there is no /dev/fuse that this user may open";
    }
    if (geteuid() == 0) {
        return isMountPermitted() ? nullptr : "mounting is not permitted here";
    }
    return runQuietly("fusermount3", "-V", nullptr) == 0 ? nullptr : "there is no fusermount3";
}

}  // namespace

const char* EmulatorMount::unavailableReason() {
    static const char* const reason = findUnavailableReason();
    return reason;
}

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

bool EmulatorMount::start(const std::vector<std::string>& options) {
    options_ = options;
    std::vector<std::string> words = {F2FS_EMULATOR_PATH, backing(), mount(), "-f"};
    words.insert(words.end(), options.begin(), options.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    struct stat before = {};
    stat(mount().c_str(), &before);
    const std::string log = root_ / "errors";
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // a test that crashes leaves no mount behind either
        const int file = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        dup2(file, STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    bool mounted = false;
    bool ended = false;
    waitFor([&] {
        struct stat now = {};
        mounted = stat(mount().c_str(), &now) == 0 && now.st_dev != before.st_dev;
        ended = !mounted && waitpid(pid_, nullptr, WNOHANG) != 0;
        return mounted || ended;
    });
    if (!mounted) {
        if (!ended) {
            stop(SIGKILL);
        }
        pid_ = -1;
    }
    return mounted;
}

int EmulatorMount::waitForEnd() {
    if (pid_ <= 0) {
        return -1;
    }
    int status = 0;
    const bool ended = waitFor([&] { return waitpid(pid_, &status, WNOHANG) != 0; });
    if (!ended) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
    return ended ? statusOf(status) : -1;
}

int EmulatorMount::stop(int signal) {
    if (pid_ > 0) {
        kill(pid_, signal);
    }
    return waitForEnd();
}

bool EmulatorMount::remount() {
    return stop(SIGTERM) == 0 && start(options_);
}

void EmulatorMount::kill9() {
    stop(SIGKILL);
    unmount(mount());
}

std::string EmulatorMount::errors() const {
    std::ifstream file(root_ / "errors");
    return {std::istreambuf_iterator<char>(file), {}};
}

void EmulatedVolume::SetUp() {
    if (const char* reason = EmulatorMount::unavailableReason()) {
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
