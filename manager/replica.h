// SPDX-License-Identifier: Apache-2.0
// Makes files, links and directories as recorded in a manifest.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "manager/file.h"
#include "manager/manifest.h"
#include "manager/results.h"

namespace manager {

// Where an entry is made.
struct Spot {
    int directory;
    std::string name;
    bool replace;  // an existing entry of that name is replaced in one step
};

class Replica {
  public:
    // on_data  called after each piece of data, for progress and cancel
    Replica(Attributes attributes, Report& report, std::function<void()> on_data)
        : attributes_(std::move(attributes)), report_(report), on_data_(std::move(on_data)) {}

    // Copies a file. Hard links to one file become hard links to one copy, if their contents agree.
    // top  below which all files of this replica are made
    void makeFile(const Recorded& recorded, int source, const Spot& spot, int top);
    void makeLink(const Recorded& recorded, const Spot& spot);
    // Sets a directory's attributes, after all its entries were made.
    void finishDirectory(const Recorded& recorded, int directory);

    // Adds a finding about a path of the manifest.
    void find(const std::string& path, f2fs_snapshot_finding_kind kind,
              f2fs_snapshot_severity severity, const std::string& why, int error = 0);

  private:
    struct Copy {
        std::string path;
        uint64_t inode;
    };
    bool linkToCopy(const Recorded& recorded, int source, const Spot& spot, int top);
    void setAttributes(const Recorded& recorded, int fd);
    void setExtended(const Recorded& recorded, const std::string& target);
    void checkDigest(const Recorded& recorded, int copy);

    Attributes attributes_;
    Report& report_;
    std::function<void()> on_data_;
    std::map<uint64_t, Copy> copies_;  // of files with several names, by the inode of the source
};

// Opens a path below a directory, following no link. On failure, the descriptor is invalid and
// errno is set.
UniqueFd openBelow(int top, const std::string& path, int flags);

}  // namespace manager
