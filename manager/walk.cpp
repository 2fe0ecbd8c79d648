// SPDX-License-Identifier: Apache-2.0
#include "manager/walk.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace manager {

int comparePaths(const std::string& one, const std::string& other) {
    const auto rank = [](char byte) { return byte == '/' ? 0 : static_cast<unsigned char>(byte); };
    const auto [here, there] = std::mismatch(one.begin(), one.end(), other.begin(), other.end());
    if (here == one.end() || there == other.end()) {
        return static_cast<int>(there == other.end()) - static_cast<int>(here == one.end());
    }
    return rank(*here) - rank(*there);
}

bool isAtOrBelow(const std::string& path, const std::string& top) {
    return path.compare(0, top.size(), top) == 0 &&
           (path.size() == top.size() || path[top.size()] == '/' || top == "/");
}

TreeWalk::TreeWalk(UniqueFd top, const std::string& path, IsUnsettled is_unsettled)
    : is_unsettled_(std::move(is_unsettled)), descent_(std::move(top), path) {}

bool TreeWalk::next() {
    if (!is_top_done_) {
        is_top_done_ = started_top_ = true;
        path_ = descent_.path();
        opened_.reset(openat(descent_.fd(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        readDirectory();
        return true;
    }
    descend();
    while (!levels_.empty()) {
        Level& level = levels_.back();
        if (level.next == level.names.size()) {
            levels_.pop_back();
            if (!levels_.empty()) {
                descent_.leave();
            }
            continue;
        }
        name_ = level.names[level.next++];
        path_ = descent_.path() + "/" + name_;
        error_ = attributesOf(descent_.fd(), name_.c_str(), attributes_);
        if (error_ != 0) {
            attributes_ = {};
        } else if (type() == S_IFDIR) {
            opened_.reset(openat(descent_.fd(), name_.c_str(),
                                 O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            readDirectory();
        } else if (type() == S_IFLNK) {
            readLinkText();
        }
        if (error_ == ENOENT || error_ == ENOTDIR || error_ == ELOOP || error_ == EINVAL) {
            continue;  // it was removed or replaced meanwhile
        }
        return true;
    }
    return false;
}

// Enters the directory that was opened last.
void TreeWalk::descend() {
    if (!opened_.valid()) {
        return;
    }
    if (started_top_) {
        started_top_ = false;
        opened_.reset();
    } else {
        descent_.enter(std::move(opened_), name_, attributes_);
    }
    levels_.push_back({std::move(names_.names)});
}

void TreeWalk::readLinkText() {
    char text[4096];  // one byte more than the longest text
    const ssize_t length = readlinkat(descent_.fd(), name_.c_str(), text, sizeof text);
    error_ = length < 0 ? errno : 0;
    link_text_.assign(text, static_cast<size_t>(length < 0 ? 0 : length));
}

void TreeWalk::readDirectory() {
    names_ = {};
    error_ = opened_.valid() ? 0 : errno;
    if (error_ != 0) {
        return;
    }
    // The descriptor's attributes: the name may have got another directory meanwhile.
    if (is_unsettled_) {
        do {
            error_ = attributesOf(opened_.get(), ".", attributes_);
        } while (error_ == 0 && is_unsettled_(attributes_));
    }
    // Waits for a change of names that is under way. The time may be set at its end, so it is read
    // afterwards.
    if (error_ == 0) {
        error_ = readNames(opened_.get(), names_);
    }
    if (error_ == 0 && !is_unsettled_) {
        error_ = attributesOf(opened_.get(), ".", attributes_);
    }
    if (error_ != 0) {
        opened_.reset();
    }
}

}  // namespace manager
