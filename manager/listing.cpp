// SPDX-License-Identifier: Apache-2.0
#include "manager/listing.h"

#include <fcntl.h>
#include <time.h>

#include "manager/failure.h"

namespace manager {

int64_t nanoseconds(const struct statx_timestamp& time) {
    return time.tv_sec * INT64_C(1000000000) + time.tv_nsec;
}

uint32_t Listing::keep(const std::string& text) {
    const size_t offset = texts_.size();
    if (offset > UINT32_MAX) {
        throw Failure(F2FS_SNAPSHOT_ERROR_SOURCE, top,
                      shown(top) + " has too many names: give its directories as sources");
    }
    texts_.append(text.c_str(), text.size() + 1);
    return static_cast<uint32_t>(offset);
}

void Listing::append(const TreeWalk& walk) {
    const struct statx& attributes = walk.attributes();
    Entry entry = {};
    entry.inode = attributes.stx_ino;
    entry.size = attributes.stx_size;
    entry.modified = nanoseconds(attributes.stx_mtime);
    entry.changed = nanoseconds(attributes.stx_ctime);
    entry.mode = attributes.stx_mode;
    entry.owner = attributes.stx_uid;
    entry.group = attributes.stx_gid;
    entry.names = attributes.stx_nlink;
    entry.depth = static_cast<uint32_t>(walk.depth());
    entry.name = keep(walk.name());
    switch (entry.type()) {
        case S_IFDIR:
            ++counts.directories;
            break;
        case S_IFLNK:
            ++counts.links;
            entry.link_text = keep(walk.linkText());
            break;
        default:
            ++counts.files;
            counts.bytes += entry.size;
    }
    entries.push_back(entry);
}

ListingCursor::ListingCursor(Listing& listing) : listing_(listing), path_(listing.top) {}

void ListingCursor::next() {
    ++index_;
    update();
}

void ListingCursor::skip() {
    const uint32_t depth = entry().depth;
    do {
        ++index_;
    } while (!atEnd() && entry().depth > depth);
    update();
}

void ListingCursor::update() {
    if (atEnd()) {
        return;
    }
    const size_t depth = entry().depth;  // at least 1: only the first entry has 0
    if (depth > lengths_.size()) {
        lengths_.push_back(path_.size());
    } else {
        lengths_.resize(depth);
    }
    path_.resize(lengths_[depth - 1]);
    path_ += '/';
    path_ += listing_.text(entry().name);
}

bool isWithinClockTick(const struct statx& attributes) {
    constexpr int64_t SECOND = 1000000000;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    const int64_t clock = now.tv_sec * SECOND + now.tv_nsec;
    const int64_t changed = nanoseconds(attributes.stx_ctime);
    // A time far ahead is from before the clock was set back: waiting for it could take hours.
    if (changed < clock || changed > clock + SECOND) {
        return false;
    }
    const timespec pause = {0, 1000000};
    nanosleep(&pause, nullptr);
    return true;
}

}  // namespace manager
