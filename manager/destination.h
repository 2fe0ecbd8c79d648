// SPDX-License-Identifier: Apache-2.0
// The directory that a snapshot is restored into.
#pragma once

#include <string>
#include <vector>

#include "manager/file.h"
#include "manager/monitor.h"
#include "manager/store.h"

namespace manager {

// The directory, locked against other restores.
class Destination {
  public:
    // Makes the directory if it is missing. The destructor removes it again if it is empty then.
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
    // Throws ERROR_EXISTS if the directory holds more than the PartialTree of a killed restore.
    void requireEmpty() const;
    void removePartial(Monitor& monitor) const;

  private:
    void open(const Store& store, bool dry_run);
    void removeIfMade() const;

    std::string path_;
    UniqueFd fd_;
    bool is_made_ = false;
};

// A subdirectory of an empty destination. Trees are made in it, so that they appear in the
// destination when they are complete. Without keep(), the destructor removes everything that was
// made and published.
class PartialTree {
  public:
    explicit PartialTree(const Destination& destination);
    PartialTree(const PartialTree&) = delete;
    PartialTree& operator=(const PartialTree&) = delete;
    ~PartialTree();

    UniqueFd open() const;
    // Moves its entries to the destination.
    void publish();
    // Removes the empty subdirectory; what was published stays.
    void keep();

  private:
    const Destination& destination_;
    const std::string path_;
    std::vector<std::string> published_;
    bool is_kept_ = false;
};

}  // namespace manager
