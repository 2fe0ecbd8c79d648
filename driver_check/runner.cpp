// SPDX-License-Identifier: Apache-2.0
#include "driver_check/runner.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

#include "driver_check/files.h"

namespace driver_check {
namespace {

constexpr unsigned PATIENCE = 10;  // seconds for a killed process to end

timespec timeUntil(double end) {
    const double left = std::max(0.0, end - now());
    timespec time = {};
    time.tv_sec = static_cast<time_t>(left);
    time.tv_nsec = static_cast<long>(1e9 * (left - static_cast<double>(time.tv_sec)));
    return time;
}

void takeEvidence(const Evidence& from, Result& result) {
    result.verdict = from.verdict;
    result.expected = from.expected;
    result.saw = from.saw;
    result.reason = from.reason;
    for (unsigned i = 0; i < from.notes; ++i) {
        result.notes.emplace_back(from.note[i]);
    }
    const unsigned kept = std::min(from.steps, Evidence::STEPS);
    if (from.steps > kept) {
        result.steps.push_back(format("(%u steps before these)", from.steps - kept));
    }
    for (unsigned i = from.steps - kept; i < from.steps; ++i) {
        result.steps.emplace_back(from.step[i % Evidence::STEPS]);
    }
}

// The verdict on a check whose process gave none.
void judgeEnd(int status, unsigned limit, Result& result) {
    if (result.is_over_time) {
        result.verdict = Verdict::failed;
        result.expected = format("the check to end within %u s", limit);
        result.saw = status < 0 ? "its process blocked in the kernel, where no signal ends it"
                                : "its process blocked; it was killed";
    } else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGSYS) {
        result.verdict = Verdict::skipped;
        result.reason = "a system call filter forbids what the check does (SIGSYS)";
    } else if (result.verdict == Verdict::unfinished || WIFSIGNALED(status)) {
        result.verdict = Verdict::failed;
        result.expected = "the check to run to its end";
        result.saw = WIFSIGNALED(status)
                         ? format("its process killed by signal %d", WTERMSIG(status))
                         : format("its process ended with %d", status);
    }
}

}  // namespace

Runner::Runner(unsigned time_limit) : time_limit_(time_limit) {
    void* const memory =
        mmap(nullptr, sizeof(Evidence), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        perror("f2fs_driver_check: mmap");
        exit(2);
    }
    shared_ = static_cast<Evidence*>(memory);
    sigemptyset(&waited_for_);
    for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&waited_for_, signal);
    }
    sigprocmask(SIG_BLOCK, &waited_for_, &before_);
    signal(SIGPIPE, SIG_IGN);  // files are removed even if the reader of the report goes away
}

Runner::~Runner() {
    munmap(shared_, sizeof(Evidence));
}

Result Runner::run(const Check& check, int directory) {
    Result result;
    result.check = &check;
    *shared_ = Evidence();
    fflush(nullptr);
    const double start = now();
    const pid_t child = fork();
    if (child == 0) {
        runInChild(check, directory);
    }
    if (child < 0) {
        result.verdict = Verdict::unable;
        result.reason = "fork: " + nameOf(errno);
        return result;
    }
    setpgid(child, child);
    const int status = await(child, result);
    takeEvidence(*shared_, result);
    judgeEnd(status, time_limit_, result);
    result.seconds = now() - start;
    return result;
}

void Runner::runInChild(const Check& check, int directory) const {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigprocmask(SIG_SETMASK, &before_, nullptr);
    signal(SIGPIPE, SIG_DFL);
    umask(022);
    evidence = shared_;
    try {
        if (fchdir(directory) != 0) {
            callFailed("fchdir", errno);
        }
        check.run();
        evidence->verdict = Verdict::passed;
    } catch (const Stop&) {
        // the verdict is recorded
    } catch (const std::exception& error) {
        did("the check itself failed: %s", error.what());
    }
    _exit(0);
}

// Returns the status of the child, -1 if not even SIGKILL ends it. Kills its process group, too.
int Runner::await(pid_t child, Result& result) {
    double end = now() + time_limit_;
    int status = -1;
    while (waitpid(child, &status, WNOHANG) == 0) {
        const timespec time = timeUntil(end);
        const int signal = sigtimedwait(&waited_for_, nullptr, &time);
        const bool is_over = signal < 0 && errno == EAGAIN;
        if (signal == SIGCHLD || (signal < 0 && !is_over)) {
            continue;
        }
        if (is_over && result.is_over_time) {
            return -1;
        }
        ended_by_ = is_over ? ended_by_ : signal;
        result.is_over_time = is_over;
        kill(-child, SIGKILL);
        end = now() + PATIENCE;
    }
    kill(-child, SIGKILL);  // helper processes that outlive a killed check
    return status;
}

void Runner::dieBySignal() const {
    fflush(nullptr);
    signal(ended_by_, SIG_DFL);
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, ended_by_);
    sigprocmask(SIG_UNBLOCK, &own, nullptr);
    raise(ended_by_);
    _exit(2);
}

}  // namespace driver_check
