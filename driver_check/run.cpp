// SPDX-License-Identifier: Apache-2.0
#include "driver_check/run.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "driver_check/files.h"
#include "driver_check/scratch.h"

namespace driver_check {
namespace {

const char* const STAGE_DIRECTORY = "f2fs_driver_check.stage";
constexpr unsigned long long ROOM = 100ULL << 20;  // for the largest file, its clone and snapshot

System systemOf(const std::string& directory) {
    constexpr struct {
        unsigned long magic;
        const char* name;
    } KNOWN[] = {{0xF2F52010, "f2fs"},   {0xEF53, "ext4"},    {0x65735546, "fuse"},
                 {0x9123683E, "btrfs"},  {0x58465342, "xfs"}, {0x01021994, "tmpfs"},
                 {0x794C7630, "overlay"}};
    System system;
    system.directory = directory;
    struct statfs figures = {};
    statfs(directory.c_str(), &figures);
    const auto magic = static_cast<unsigned long>(figures.f_type) & 0xFFFFFFFFUL;
    system.file_system = format("file system %#lx", magic);
    for (const auto& known : KNOWN) {
        if (known.magic == magic) {
            system.file_system = known.name;
        }
    }
    utsname kernel = {};
    uname(&kernel);
    system.kernel = std::string(kernel.sysname) + " " + kernel.release + " " + kernel.machine;
    system.caller = format("%zu-bit program, user %u", 8 * sizeof(void*), geteuid());
    return system;
}

// Why no check can run in the directory; empty: they can.
std::string obstacle(const std::string& directory) {
    struct stat attributes;
    struct statvfs figures;
    if (stat(directory.c_str(), &attributes) != 0) {
        return directory + ": " + strerror(errno);
    }
    if (!S_ISDIR(attributes.st_mode)) {
        return directory + ": not a directory";
    }
    if (statvfs(directory.c_str(), &figures) != 0) {
        return directory + ": " + strerror(errno);
    }
    if ((figures.f_flag & ST_RDONLY) != 0) {
        return directory + ": the file system is mounted read-only";
    }
    const unsigned long long room = 1ULL * figures.f_bavail * figures.f_frsize;
    if (room < ROOM) {
        return format("%s: %llu MiB of space are free, and the checks need %llu MiB",
                      directory.c_str(), room >> 20, ROOM >> 20);
    }
    return "";
}

std::string obstacleIn(const Scratch& scratch, const std::string& directory) {
    if (!scratch.valid()) {
        return "cannot make a directory in " + directory + ": " + strerror(scratch.error());
    }
    const int fd = open(scratch.path().c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, 0770);
    if (fd < 0) {
        return directory +
               ": the file system has no unnamed temporary files (O_TMPFILE: " + nameOf(errno) +
               "), which the library needs";
    }
    close(fd);
    return "";
}

std::string obstacleOf(const Scratch& stage, const Options& options) {
    if (options.stage == Stage::none || stage.valid()) {
        return "";
    }
    const std::string path = stage.path() + ": ";
    if (stage.error() == EEXIST) {
        return path + "left by an earlier --stage=before; --stage=after checks and removes it";
    }
    if (stage.error() == ENOENT) {
        return path + "not there: --stage=before makes it";
    }
    return path + strerror(stage.error());
}

// The name of the check that a request is there.
std::string providerOf(unsigned request) {
    for (const Check& check : allChecks()) {
        if ((check.provides & request) != 0) {
            return check.name;
        }
    }
    return "";
}

// One run of the program: its options, and the results so far.
class Run {
  public:
    explicit Run(const Options& options) : options_(options), runner_(options.time_limit) {}

    int status();

  private:
    std::string runAll();
    void probe(const Scratch& scratch);
    void report(const Scratch& scratch, Scratch& stage);
    Result resultOf(const Scratch& scratch, const Scratch& stage, const Check& check);
    Result runIn(const Scratch& scratch, const Check& check);
    bool isSelected(const Check& check) const;
    int judge() const;

    const Options& options_;
    Runner runner_;
    std::vector<Result> probed_;   // of the checks that a request is there
    std::vector<Result> results_;  // of the checks asked for
    unsigned missing_ = NOTHING;
};

int Run::status() {
    const std::string reason = runAll();
    if (runner_.endedBy() != 0) {
        runner_.dieBySignal();
    }
    if (!reason.empty()) {
        fprintf(stderr, "f2fs_driver_check: %s\n", reason.c_str());
        return CANNOT_RUN;
    }
    return judge();
}

// Returns why no check could run; empty: checks ran.
std::string Run::runAll() {
    std::string reason = obstacle(options_.directory);
    if (!reason.empty()) {
        return reason;
    }
    const Scratch scratch(options_.directory);
    reason = obstacleIn(scratch, options_.directory);
    if (!reason.empty()) {
        return reason;
    }
    Scratch stage(options_.directory, STAGE_DIRECTORY, options_.stage);
    reason = obstacleOf(stage, options_);
    if (reason.empty()) {
        probe(scratch);
        report(scratch, stage);
    }
    return reason;
}

// First runs the checks that the requests are there, selected or not: others are skipped by these.
void Run::probe(const Scratch& scratch) {
    for (const Check& check : allChecks()) {
        if (check.provides == NOTHING || runner_.endedBy() != 0) {
            continue;
        }
        showProgress(check.name);
        probed_.push_back(runIn(scratch, check));
        if (probed_.back().verdict != Verdict::passed) {
            missing_ |= check.provides;
        }
    }
    hideProgress();
}

void Run::report(const Scratch& scratch, Scratch& stage) {
    std::vector<const Check*> selected;
    for (const Check& check : allChecks()) {
        if (isSelected(check)) {
            selected.push_back(&check);
        }
    }
    const auto report = makeReport(options_.format);
    report->begin(systemOf(options_.directory), selected.size(), missing_ == ALL);
    for (const Check* const check : selected) {
        if (runner_.endedBy() != 0) {
            return;
        }
        showProgress(
            format("[%zu/%zu] %s", results_.size() + 1, selected.size(), check->name.c_str()));
        results_.push_back(resultOf(scratch, stage, *check));
        hideProgress();
        report->add(results_.back());
        const bool is_done = results_.back().verdict == Verdict::passed;
        if (check->stage == Stage::before && is_done) {
            stage.keep();
        }
    }
    if (runner_.endedBy() == 0) {
        report->end(results_);
    }
}

Result Run::resultOf(const Scratch& scratch, const Scratch& stage, const Check& check) {
    for (const Result& known : probed_) {
        if (known.check == &check) {
            return known;
        }
    }
    if (const unsigned lacking = check.needs & missing_) {
        Result result;
        result.check = &check;
        result.verdict = Verdict::skipped;
        result.reason = providerOf(lacking & ~(lacking - 1)) + " does not hold";
        result.lacks_request = true;
        return result;
    }
    return check.stage == Stage::none ? runIn(scratch, check) : runner_.run(check, stage.fd());
}

// Runs a check in a directory of its own, so that the rest of a killed check disturbs no other.
Result Run::runIn(const Scratch& scratch, const Check& check) {
    if (mkdirat(scratch.fd(), check.name.c_str(), 0700) != 0) {
        Result result;
        result.check = &check;
        result.verdict = Verdict::unable;
        result.reason = "mkdir: " + nameOf(errno);
        return result;
    }
    const int directory =
        openat(scratch.fd(), check.name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    Result result = runner_.run(check, directory);
    close(directory);
    if (!scratch.clear()) {
        result.notes.push_back("cannot remove " + scratch.path() + "/" + check.name);
    }
    return result;
}

bool Run::isSelected(const Check& check) const {
    const bool is_staged = options_.stage != Stage::none;
    const auto names = [&](const std::string& name) { return isNamed(check, name); };
    return (check.stage == options_.stage || (is_staged && check.provides != NOTHING)) &&
           (options_.only.empty() ||
            std::any_of(options_.only.begin(), options_.only.end(), names));
}

int Run::judge() const {
    const auto any = [&](auto is) { return std::any_of(results_.begin(), results_.end(), is); };
    if (any([](const Result& result) {
            return result.verdict == Verdict::failed || result.lacks_request;
        })) {
        return FAILS;
    }
    const bool is_written = fflush(stdout) == 0 && ferror(stdout) == 0;
    const bool is_unable =
        any([](const Result& result) { return result.verdict == Verdict::unable; });
    return is_written && !is_unable ? HOLDS : CANNOT_RUN;
}

}  // namespace

bool isNamed(const Check& check, const std::string& name) {
    return check.name == name || check.name.compare(0, name.size() + 1, name + ".") == 0;
}

int run(const Options& options) {
    return Run(options).status();
}

}  // namespace driver_check
