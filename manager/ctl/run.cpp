// SPDX-License-Identifier: Apache-2.0
// The verb run: a command that works on a snapshot of its own.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "manager/ctl/json.h"
#include "manager/ctl/session.h"
#include "manager/ctl/status.h"
#include "manager/ctl/text.h"
#include "manager/ctl/verbs.h"

namespace ctl {

namespace {

constexpr int FORWARDED[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

std::string replaced(std::string text, const std::string& path) {
    for (size_t at = 0; (at = text.find("{}", at)) != std::string::npos; at += path.size()) {
        text.replace(at, 2, path);
    }
    return text;
}

void setEnvironment(const Session& session, const f2fs_snapshot_info& info) {
    setenv("F2FS_SNAPSHOT_PATH", info.path, 1);
    setenv("F2FS_SNAPSHOT_NAME", info.name, 1);
    setenv("F2FS_SNAPSHOT_STORE", f2fs_snapshot_store_path(session.store()), 1);
    setenv("F2FS_SNAPSHOT_WHOLE", info.whole != 0 ? "1" : "0", 1);
}

// The signals that are waited for while the command runs, instead of being caught.
class WaitedSignals {
  public:
    WaitedSignals() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGCHLD);
        for (const int signal : FORWARDED) {
            sigaddset(&set_, signal);
        }
        sigprocmask(SIG_BLOCK, &set_, &before_);
    }
    WaitedSignals(const WaitedSignals&) = delete;
    WaitedSignals& operator=(const WaitedSignals&) = delete;
    ~WaitedSignals() {
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }

    const sigset_t& before() const {
        return before_;
    }
    int next(siginfo_t& signal) const {
        return sigwaitinfo(&set_, &signal);
    }

  private:
    sigset_t set_ = {};
    sigset_t before_ = {};
};

// Starts the command as if this program were not between. Returns 0 or an errno value.
int start(const std::vector<std::string>& words, const WaitedSignals& signals, pid_t& child) {
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &signals.before());
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    const int error = posix_spawnp(&child, argv[0], nullptr, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    return error;
}

// Waits for the command. A signal that somebody sent to this program alone goes on to the command;
// what comes from the terminal has reached both.
int await(pid_t child, const WaitedSignals& signals) {
    for (;;) {
        siginfo_t signal = {};
        const int number = signals.next(signal);
        if (number > 0 && number != SIGCHLD) {
            if (signal.si_code <= 0) {
                kill(child, number);
            }
            continue;
        }
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            return WIFEXITED(status) ? WEXITSTATUS(status) : SIGNALLED + WTERMSIG(status);
        }
    }
}

int runCommand(const std::vector<std::string>& words) {
    const WaitedSignals signals;
    if (caughtSignal() != 0) {
        return SIGNALLED + caughtSignal();
    }
    pid_t child = 0;
    const int error = start(words, signals, child);
    if (error == 0) {
        return await(child, signals);
    }
    fprintf(stderr, "f2fs_snapshotctl: cannot execute %s: %s\n", shown(words[0].c_str()).c_str(),
            strerror(error));
    return error == ENOENT ? COMMAND_NOT_FOUND : COMMAND_NOT_EXECUTED;
}

// Waits for other calls that change the store. Returns whether the snapshot is gone.
bool destroyPatiently(Session& session, const std::string& name) {
    constexpr std::chrono::hours CENTURY(100 * 365 * 24);
    try {
        session.whenFree(CENTURY, [&] { session.destroy(name, nullptr); });
        return true;
    } catch (const CallFailed& failure) {
        if (failure.error.code == F2FS_SNAPSHOT_ERROR_NOT_FOUND) {
            return true;
        }
        fprintf(stderr, "f2fs_snapshotctl: the snapshot %s is left: %s\n",
                shown(name.c_str()).c_str(), failure.error.message);
        return false;
    }
}

int runOn(Session& session, const Options& options) {
    const Owned<f2fs_snapshot_info> info = session.create(true);
    // Closed on exec: the lock ends with this program, whatever the command starts.
    Owned<f2fs_snapshot_hold> hold = session.hold(info->name);
    if (!options.json && (!options.quiet || info->whole == 0)) {
        printFindings(stderr, findingsOf(*info), info->finding_count);
    }
    setEnvironment(session, *info);
    std::vector<std::string> words = options.command;
    for (std::string& word : words) {
        word = replaced(word, info->path);
    }
    int status = runCommand(words);
    hold.reset();
    const bool destroyed = destroyPatiently(session, info->name);
    if (options.json) {
        // Standard output is the command's.
        print({{"verb", "run"},
               {"dry_run", false},
               {"snapshot", infoJson(*info)},
               {"status", status},
               {"destroyed", destroyed}},
              stderr);
    }
    return status == SUCCESS && !destroyed ? RUN_FAILED : status;
}

}  // namespace

int run(const Options& options) {
    if (options.dry_run) {
        return create(options);
    }
    signal(SIGPIPE, SIG_IGN);
    try {
        Session session(options, F2FS_SNAPSHOT_STORE_CREATE);
        return runOn(session, options);
    } catch (const CallFailed& failure) {
        const int status = report(failure, options, "run");
        return status == FAILURE ? RUN_FAILED : status;
    }
}

}  // namespace ctl
