// SPDX-License-Identifier: Apache-2.0
#include "manager/library_log.h"

#include <cstring>

namespace manager {

namespace {

constexpr size_t TAIL_LINES = 500;

bool beginsWith(const std::string& line, const char* text) {
    return line.compare(0, strlen(text), text) == 0;
}

}  // namespace

void LibraryLog::add(const std::string& line, int64_t time) {
    constexpr char OPEN_FAILED[] = "Failed to open dir ";
    if (beginsWith(line, "CreateSingleFileSnapshot for [")) {
        ++files_taken;
    } else if (beginsWith(line, "PreCreateSingleFileSnapshot for file [") ||
               beginsWith(line, "prepare dstpath [")) {
        is_checking_ = false;
    } else if (beginsWith(line, "ready to check modify flag for ")) {
        beginPass(time);
        ++files_checked;
    } else if (beginsWith(line, OPEN_FAILED)) {
        // Before the first pass, this line ends the call, so that counting a pass does no harm.
        beginPass(time);
        unreadable = line.substr(sizeof OPEN_FAILED - 1);
        unreadable.resize(unreadable.size() - 1);  // the newline
    } else if (beginsWith(line, "ALL file not modified")) {
        beginPass(time);  // there was no file to check
    }
    last_time_ = time;
    addOther(line);
}

void LibraryLog::addOther(const std::string& line) {
    tail_.push_back(line);
    if (tail_.size() > TAIL_LINES) {
        tail_.pop_front();
    }
}

void LibraryLog::beginPass(int64_t time) {
    if (is_checking_) {
        return;
    }
    is_checking_ = true;
    ++passes;
    files_checked = 0;
    unreadable.clear();
    earliest = last_time_;
    latest = time;
}

}  // namespace manager
