// SPDX-License-Identifier: Apache-2.0
// Where a snapshot is restored to.
#pragma once

#include <string>
#include <vector>

#include "manager/file.h"
#include "manager/monitor.h"
#include "manager/store.h"

namespace manager {

// The directory to restore into. One call at a time has it.
class Destination {
  public:
    // Makes the directory if it is missing; it goes away with the object if it is empty then.
    // dry_run  makes and locks nothing
    Destination(const Store& store, const std::string& path, bool dry_run);
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;
    ~Destination();

    // False in a dry run only.
    bool exists() const {
        return fd_.valid();
    }
    int fd() const {
        return fd_.get();
    }
    // Absolute, without links.
    const std::string& path() const {
        return path_;
    }
    // Throws ERROR_EXISTS. The partial tree of a restore that was killed does not count.
    void requireEmpty() const;
    void removePartial(Monitor& monitor) const;

  private:
    void open(const Store& store, bool dry_run);
    void removeIfMade() const;

    std::string path_;
    UniqueFd fd_;
    bool is_made_ = false;
};

// The subdirectory of an empty destination in which trees are made that shall appear when they are
// whole. Goes away with the object, and takes along what was published unless that is to be kept.
class PartialTree {
  public:
    explicit PartialTree(const Destination& destination);
    PartialTree(const PartialTree&) = delete;
    PartialTree& operator=(const PartialTree&) = delete;
    ~PartialTree();

    UniqueFd open() const;
    // Moves what is in it to the destination.
    void publish();
    // Ends with what was published.
    void keep();

  private:
    const Destination& destination_;
    const std::string path_;
    std::vector<std::string> published_;
    bool is_kept_ = false;
};

// Whether a path is `top` or leads to something in it.
bool isAtOrBelow(const std::string& path, const std::string& top);

}  // namespace manager
