// SPDX-License-Identifier: Apache-2.0
#include "manager/ctl/text.h"

#include <ctime>

#include "manager/failure.h"

namespace ctl {

namespace {

constexpr int64_t SECOND = 1'000'000'000;

// Splits a time so that the nanoseconds are never negative.
std::time_t secondsOf(int64_t time, int64_t& nanoseconds) {
    nanoseconds = (time % SECOND + SECOND) % SECOND;
    return static_cast<std::time_t>((time - nanoseconds) / SECOND);
}

std::string formatTime(const char* format, const std::tm& parts) {
    char text[64];
    return {text, strftime(text, sizeof(text), format, &parts)};
}

}  // namespace

std::string sizeText(uint64_t bytes) {
    constexpr const char* UNITS[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) {
        return std::to_string(bytes) + " B";
    }
    double size = static_cast<double>(bytes) / 1024;
    size_t unit = 0;
    while (size >= 1023.95) {  // which would be shown as 1024.0
        size /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof(text), "%.1f %s", size, UNITS[unit]);
    return text;
}

std::string localTime(int64_t time) {
    int64_t nanoseconds = 0;
    const std::time_t seconds = secondsOf(time, nanoseconds);
    std::tm parts = {};
    localtime_r(&seconds, &parts);
    std::string text = formatTime("%Y-%m-%dT%H:%M:%S%z", parts);
    text.insert(text.size() - 2, ":");
    return text;
}

std::string utcTime(int64_t time) {
    int64_t nanoseconds = 0;
    const std::time_t seconds = secondsOf(time, nanoseconds);
    std::tm parts = {};
    gmtime_r(&seconds, &parts);
    char fraction[16];
    snprintf(fraction, sizeof(fraction), ".%09dZ", static_cast<int>(nanoseconds));
    return formatTime("%Y-%m-%dT%H:%M:%S", parts) + fraction;
}

std::string countText(uint64_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string shown(const char* path) {
    return manager::shown(path);
}

void printFindings(FILE* out, const Findings& findings, size_t limit) {
    size_t printed = 0;
    for (const f2fs_snapshot_finding* finding : findings) {
        if (printed++ == limit) {
            fprintf(out, "  ... and %zu more\n", findings.size() - limit);
            return;
        }
        const char* word = finding->severity == F2FS_SNAPSHOT_FAILS       ? "error: "
                           : finding->severity == F2FS_SNAPSHOT_UNCOVERED ? "not covered: "
                                                                          : "note: ";
        fprintf(out, "  %s%s\n", word, finding->message);
    }
}

void printIfNotWhole(FILE* out, const f2fs_snapshot_info& info) {
    if (info.whole == 0) {
        fprintf(out, "  note: it is not whole: \"show\" names what changed while it was made\n");
    }
}

std::string stateText(const f2fs_snapshot_info& info) {
    return std::string(info.whole != 0 ? "whole" : "not whole") +
           (info.temporary != 0 ? ", temporary" : "");
}

void printInfo(const f2fs_snapshot_info& info, uint64_t disk_bytes) {
    printf("%s: %s, %s\n", shown(info.name).c_str(), stateText(info).c_str(),
           countsText(info).c_str());
    for (size_t i = 0; i < info.source_count; ++i) {
        printf("  source       %s\n", shown(info.sources[i]).c_str());
    }
    printf("  path         %s\n", shown(info.path).c_str());
    printf("  created      %s\n", localTime(info.created).c_str());
    printf("  instant      between %s\n               and     %s\n",
           utcTime(info.instant_earliest).c_str(), utcTime(info.instant_latest).c_str());
    printf("  on the disk  %s, blocks shared with other files included\n",
           sizeText(disk_bytes).c_str());
    const std::string passes =
        info.passes == 1 ? "1 pass" : std::to_string(info.passes) + " passes";
    printf("  made in      %s, %s, %s again\n", countText(info.attempts, "attempt").c_str(),
           info.passes == 0 ? "an unknown number of passes" : passes.c_str(),
           countText(info.files_again, "file").c_str());
    printf("  links put in its way were %s\n",
           info.links_blocked != 0 ? "blocked" : "not blocked: that takes the right to mount");
    printf("  digests      %s\n", info.has_digests != 0 ? "SHA-256" : "none");
    printFindings(stdout, findingsOf(info), info.finding_count);
}

}  // namespace ctl
