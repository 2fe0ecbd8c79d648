// SPDX-License-Identifier: Apache-2.0
// The directories that a call snapshots: opening, locking and judging them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "manager/results.h"
#include "manager/store.h"
#include "manager/walk.h"

namespace manager {

struct Source {
    std::string path;  // absolute, without links
    UniqueFd fd;
    struct statx identity;
};

// Opens the directories, and sorts them as a TreeWalk would meet them. Throws ERROR_SOURCE for one
// that cannot be snapshotted into this store.
std::vector<Source> openSources(const Store& store, const std::vector<std::string>& paths);

// Locks the sources against other calls for them or for directories above or below them. Returns
// the descriptors that hold the locks. Throws ERROR_BUSY.
std::vector<UniqueFd> lockSources(const std::vector<Source>& sources);

// Opens a source again by its path. If the source was moved, this is another directory or none.
UniqueFd reopenSource(const Source& source);

// The path below which the library mirrors the sources of a snapshot in the making.
std::string mirrorRoot(const Store& store, const std::string& name);

// Finds entries of the sources that the library cannot snapshot or that no snapshot covers.
class Rules {
  public:
    // name  of the snapshot to be made
    Rules(const Store& store, const std::vector<Source>& sources, const std::string& name);

    // Judges the current entry of a walk over a source. Returns whether to go on below it.
    bool judge(const TreeWalk& walk);

    // Adds a finding.
    void add(f2fs_snapshot_finding_kind kind, const std::string& path, const std::string& why,
             int error = 0);
    // The findings so far, without hard links.
    const std::vector<Finding>& findings() const {
        return findings_;
    }
    // All findings, in the order of their paths.
    std::vector<Finding> take();

  private:
    void probeStore();
    void judgeFile(const TreeWalk& walk);
    void judgeDirectory(const TreeWalk& walk);
    bool isOnOtherMount(const TreeWalk& walk) const;

    const Store& store_;
    const std::vector<Source>& sources_;
    const size_t root_length_;
    size_t max_depth_;
    std::vector<Finding> findings_;
    // Inode number and path of each file with a link count above 1.
    std::vector<std::pair<uint64_t, std::string>> linked_;
};

// Opens a file as the library does and asks the driver about it. Adds a finding if that fails.
void tryFile(const TreeWalk& walk, Rules& rules);

}  // namespace manager
