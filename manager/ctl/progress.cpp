// SPDX-License-Identifier: Apache-2.0
#include "manager/ctl/progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace ctl {

namespace {

constexpr std::chrono::seconds BETWEEN_LINES(5);
constexpr size_t BAR_WIDTH = 24;

const char* phaseText(int32_t phase) {
    switch (phase) {
        case F2FS_SNAPSHOT_PHASE_LIST:
            return "listing";
        case F2FS_SNAPSHOT_PHASE_CREATE:
            return "creating";
        case F2FS_SNAPSHOT_PHASE_CHECK:
            return "checking";
        case F2FS_SNAPSHOT_PHASE_RECORD:
            return "recording";
        case F2FS_SNAPSHOT_PHASE_SYNC:
            return "syncing";
        case F2FS_SNAPSHOT_PHASE_VERIFY:
            return "verifying";
        case F2FS_SNAPSHOT_PHASE_RESTORE:
            return "restoring";
        case F2FS_SNAPSHOT_PHASE_REMOVE:
            return "removing";
        default:
            return "working";
    }
}

std::string spanText(uint64_t seconds) {
    char text[32];
    snprintf(text, sizeof(text), "%llu:%02llu", static_cast<unsigned long long>(seconds / 60),
             static_cast<unsigned long long>(seconds % 60));
    return text;
}

// What is done of all, from 0 to 1.
double fraction(const f2fs_snapshot_progress& progress) {
    return progress.files_total == 0 ? 0
                                     : std::min(1.0, static_cast<double>(progress.files_done) /
                                                         static_cast<double>(progress.files_total));
}

std::string bar(double done) {
    const auto full = static_cast<size_t>(done * BAR_WIDTH);
    return "[" + std::string(full, '#') + std::string(BAR_WIDTH - full, '.') + "] ";
}

}  // namespace

std::string Progress::describe(const f2fs_snapshot_progress& progress, Time now) const {
    std::string text = phaseText(progress.phase);
    text += ": ";
    if (style_ == Style::BAR && progress.files_total != 0) {
        text += bar(fraction(progress));
    }
    text += std::to_string(progress.files_done);
    if (progress.files_total != 0) {
        text += " of " + std::to_string(progress.files_total);
    }
    text += " files";
    const double seconds = std::chrono::duration<double>(now - phase_began_).count();
    if (seconds >= 1 && progress.files_done != 0) {
        const double rate = static_cast<double>(progress.files_done) / seconds;
        text += ", " + std::to_string(static_cast<uint64_t>(rate)) + "/s";
        if (progress.files_total > progress.files_done) {
            const uint64_t left = progress.files_total - progress.files_done;
            text +=
                ", " + spanText(static_cast<uint64_t>(static_cast<double>(left) / rate)) + " left";
        }
    }
    text += progress.pass > 0 ? ", pass " + std::to_string(progress.pass) : "";
    text += progress.files_again > 0 ? ", " + std::to_string(progress.files_again) + " again" : "";
    text += progress.attempt > 1 ? ", attempt " + std::to_string(progress.attempt) : "";
    return text;
}

void Progress::show(const f2fs_snapshot_progress& progress, Time now) {
    if (progress.phase != phase_ || progress.pass != pass_) {
        next_line_ = phase_ == 0 ? now + BETWEEN_LINES : next_line_;
        phase_ = progress.phase;
        pass_ = progress.pass;
        phase_began_ = now;
    }
    if (style_ == Style::BAR) {
        fprintf(out_, "\r%s\033[K", describe(progress, now).substr(0, columns_ - 1).c_str());
        fflush(out_);
        is_bar_drawn_ = true;
    } else if (style_ == Style::LINES && now >= next_line_) {
        fprintf(out_, "%s\n", describe(progress, now).c_str());
        next_line_ = now + BETWEEN_LINES;
    }
}

void Progress::clear() {
    if (is_bar_drawn_) {
        fputs("\r\033[K", out_);
        is_bar_drawn_ = false;
    }
}

Progress::Style styleFor(int fd, bool quiet) {
    return quiet             ? Progress::Style::SILENT
           : isatty(fd) != 0 ? Progress::Style::BAR
                             : Progress::Style::LINES;
}

size_t columnsOf(int fd) {
    winsize size = {};
    return ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : 80;
}

}  // namespace ctl
