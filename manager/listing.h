// SPDX-License-Identifier: Apache-2.0
// The entries of a tree at one time, to be compared with a later walk.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "manager/monitor.h"
#include "manager/results.h"
#include "manager/walk.h"

namespace manager {

// One name of a tree.
struct Entry {
    uint64_t inode;
    uint64_t size;
    int64_t modified;  // nanoseconds since the epoch, like the next one
    int64_t changed;   // ctime, which every change of a directory's names sets
    uint32_t mode;     // with the type
    uint32_t owner;
    uint32_t group;
    uint32_t names;      // the link count
    uint32_t depth;      // 0: the source itself
    uint32_t name;       // an offset into Listing's texts
    uint32_t link_text;  // the same, if it is a symbolic link

    uint32_t type() const {
        return mode & S_IFMT;
    }
};

// A source tree: its entries in the order of a TreeWalk.
class Listing {
  public:
    explicit Listing(std::string top_path) : top(std::move(top_path)) {}

    // Appends the current entry of the walk over the tree.
    void append(const TreeWalk& walk);

    const char* text(uint32_t offset) const {
        return &texts_[offset];
    }

    const std::string top;  // the source's path
    std::vector<Entry> entries;
    Counts counts;

  private:
    uint32_t keep(const std::string& text);

    std::string texts_;  // each ends with a NUL
};

// Iterates over a listing and builds the paths.
class ListingCursor {
  public:
    explicit ListingCursor(Listing& listing);

    bool atEnd() const {
        return index_ == listing_.entries.size();
    }
    Entry& entry() const {
        return listing_.entries[index_];
    }
    const std::string& path() const {
        return path_;
    }
    const char* linkText() const {
        return listing_.text(entry().link_text);
    }
    void next();
    // Goes to the next entry that is not below the current one.
    void skip();

  private:
    void update();

    Listing& listing_;
    size_t index_ = 0;
    std::string path_;
    std::vector<size_t> lengths_;  // of the paths of the directories above
};

// Iterates over a listing and a walk of the same tree, or of a copy of it, side by side. Calls
// each(cursor or nullptr, is_there) for each path: the cursor if the listing has it, and whether
// the walk has it. If each returns false, everything below the path is skipped. The first
// walk_prefix bytes of the walk's paths are ignored.
template <typename Each>
void merge(ListingCursor& cursor, TreeWalk& walk, size_t walk_prefix, Each each) {
    bool has_walk = walk.next();
    while (!cursor.atEnd() || has_walk) {
        const int order = cursor.atEnd() ? 1
                          : !has_walk
                              ? -1
                              : comparePaths(cursor.path(), walk.path().substr(walk_prefix));
        const bool goes_on = each(order <= 0 ? &cursor : nullptr, order >= 0);
        if (order <= 0) {
            goes_on ? cursor.next() : cursor.skip();
        }
        if (order >= 0) {
            if (!goes_on) {
                walk.skip();
            }
            has_walk = walk.next();
        }
    }
}

// Whether the clock tick of the directory's ctime is not over, so that another change could get the
// same time. If so, sleeps for a millisecond. For a TreeWalk.
bool isWithinClockTick(const struct statx& attributes);

// Nanoseconds since the epoch.
int64_t nanoseconds(const struct statx_timestamp& time);

}  // namespace manager
