// SPDX-License-Identifier: Apache-2.0
// Calls are killed before each of their system calls: every name must belong to an intact snapshot.
// And links are put in the way of a removal.
#include <dlfcn.h>
#include <sys/ptrace.h>

#include <cstring>

#include "tests/manager/manager_on_volume.h"
#include "tests/stand_in.h"

namespace {

// Called before each removal in this process.
std::function<void()> before_removal;

}  // namespace

// The manager's calls come here.
STAND_IN("unlinkat", int, standInUnlinkat, int directory, const char* path, int flags) {
    if (before_removal) {
        before_removal();
    }
    static const auto next =
        reinterpret_cast<int (*)(int, const char*, int)>(dlsym(RTLD_NEXT, "unlinkat"));
    return next(directory, path, flags);
}

namespace {

class KilledTest : public ManagerOnVolume {
  protected:
    // Runs a call in a process of its own and kills that before its nth system call. Returns nth,
    // or 0 if the call ended before.
    static size_t runAndKill(const std::function<int32_t()>& call, size_t nth) {
        const pid_t child = startChild([&] {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
            return call();
        });
        int status = 0;
        waitpid(child, &status, 0);
        ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
        int signal = 0;
        // Each system call stops twice, at its start and at its end.
        for (size_t stops = 0; stops + 1 < 2 * nth;) {
            ptrace(PTRACE_SYSCALL, child, nullptr, signal);
            waitpid(child, &status, 0);
            if (!WIFSTOPPED(status)) {
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
                return 0;
            }
            signal = WSTOPSIG(status) & ~0x80;
            stops += signal == SIGTRAP ? 1 : 0;
            signal = signal == SIGTRAP ? 0 : signal;
        }
        EXPECT_EQ(endChild(child, SIGKILL), 128 + SIGKILL);
        return nth;
    }
    // The store's lock is not free before the helper of the killed call has ended, too.
    int32_t createUnlessBusy(const std::string& name) const {
        for (;;) {
            const int32_t code = create(name).code;
            if (code != F2FS_SNAPSHOT_ERROR_BUSY) {
                return code;
            }
        }
    }
    // Kills the call before each of its system calls in turn (short form: some of them). After
    // each, every snapshot is intact, the next create removes what the call has left, and the
    // source is unchanged.
    void sweep(const std::function<int32_t()>& call, const std::function<void()>& prepare) {
        const std::vector<std::string> before = dump(source);
        const auto step = static_cast<size_t>(rounds(7, 1));
        size_t killed = 0;
        for (size_t nth = 1;; nth += step) {
            prepare();
            if (runAndKill(call, nth) == 0 || HasFailure()) {
                break;
            }
            ++killed;
            ASSERT_EQ(createUnlessBusy("next"), F2FS_SNAPSHOT_OK) << nth;
            for (const std::string& name : list()) {
                expectIntact(name);
                EXPECT_EQ(dump(mirror(name)), before) << name << " " << nth;
            }
            EXPECT_EQ(leftovers(), "") << nth;
            EXPECT_EQ(dump(source), before) << nth;
            EXPECT_EQ(destroy("next"), F2FS_SNAPSHOT_OK);
        }
        EXPECT_GT(killed, 10U);
        std::cout << killed << " calls killed" << std::endl;
    }
    void makeSource() const {
        fs::create_directory(source + "/m");
        write(source + "/m/f", "content");
        write(source + "/g", std::string(5000, 'g'));
        fs::create_symlink("g", source + "/l");
        ASSERT_EQ(create("older").code, F2FS_SNAPSHOT_OK);
    }
};

TEST_F(KilledTest, Create) {
    makeSource();
    f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    options.digests = 1;
    sweep([&] { return create("killed", options, {source}).code; }, [&] { destroy("killed"); });
    EXPECT_EQ(list(), (std::vector<std::string>{"older", "killed"}));
}

TEST_F(KilledTest, Destroy) {
    makeSource();
    sweep([&] { return destroy("killed"); },
          [&] {
              const int32_t code = create("killed").code;
              ASSERT_TRUE(code == F2FS_SNAPSHOT_OK || code == F2FS_SNAPSHOT_ERROR_EXISTS) << code;
          });
    EXPECT_EQ(list(), std::vector<std::string>{"older"});
}

// The helper ends with its caller and releases the locks.
TEST_F(KilledTest, TheHelperEndsWithItsCaller) {
    makeSource();
    std::atomic<pid_t> child = 0;
    int status = -1;
    {
        HeldLibrary held(volume.root(), "opendir " + source + "/m", 2, [&] {
            while (child == 0) {
            }
            status = endChild(child, SIGKILL);
            unsetenv("LD_PRELOAD");
            // The library is held all the while.
            EXPECT_EQ(createUnlessBusy("a"), F2FS_SNAPSHOT_OK);
        });
        child = startChild([&] { return create("killed").code; });
        siginfo_t ended = {};
        while (!held.has_acted && ended.si_pid == 0) {
            usleep(1000);
            waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOHANG | WNOWAIT);
        }
    }  // waits until the above is done
    EXPECT_EQ(status, 128 + SIGKILL);
    EXPECT_EQ(list(), (std::vector<std::string>{"older", "a"}));
}

// Another process of the store's owner replaces a directory that is being removed by a link to
// another directory.
TEST_F(KilledTest, RemovalFollowsNoLink) {
    makeSource();
    fs::create_directory(at("out"));
    size_t nth = 1;
    for (size_t seen = nth; seen >= nth; ++nth) {
        write(at("out/f"), "secret");
        ASSERT_EQ(createUnlessBusy("a"), F2FS_SNAPSHOT_OK);
        seen = 0;
        before_removal = [&] {
            if (++seen == nth) {
                const std::string directory = at("store/.a.removed/snapshot") + source + "/m";
                std::error_code missing;
                fs::rename(directory, at("aside"), missing);
                fs::create_symlink(at("out"), directory, missing);
            }
        };
        destroy("a");
        before_removal = nullptr;
        EXPECT_EQ(dump(at("out")), std::vector<std::string>{"f:secret"}) << nth;
        runProcess({"rm", "-rf", at("aside")});
    }
    EXPECT_GT(nth, 10U);
    EXPECT_EQ(list(), std::vector<std::string>{"older"});
    expectIntact("older");
}

}  // namespace
