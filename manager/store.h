// SPDX-License-Identifier: Apache-2.0
// A store: the directory that holds named snapshots.
//
//     STORE/                    0700, the caller's; locked (flock) by a call that changes it
//     STORE/NAME/               a whole snapshot; locked, shared, by who verifies or restores it
//     STORE/NAME/snapshot/      what the library made: source S is at snapshot + S
//     STORE/NAME/manifest.mtree what the sources were (manifest.h)
//     STORE/NAME/xattrs.dump    extended attributes of the sources, if they have any (manifest.h)
//     STORE/NAME/info.json      who made what when; "format" is 1 (info.h)
//     STORE/.NAME.partial/      NAME in the making: renamed to NAME when it is on the disk
//     STORE/.NAME.removed/      NAME being removed
//     STORE/.NAME.log           the end of the library's log, of a create that failed
//
// Whoever holds the store's lock may remove every entry .partial and .removed: no call that made
// one is alive. The helper program of a create inherits the locks, so that they last until it is
// gone, too.
#pragma once

#include <string>
#include <vector>

#include "manager/file.h"
#include "manager/monitor.h"

namespace manager {

// Throws ERROR_NAME unless a snapshot can have this name.
void checkName(const std::string& name);

// Opens a directory by a path that may contain links, and makes the path absolute and free of them.
UniqueFd openResolved(std::string& path);

class Store {
  public:
    // Opens, or makes, the store at path; checks who can enter it.
    Store(const std::string& path, bool create);

    int fd() const {
        return fd_.get();
    }
    // Absolute, without links.
    const std::string& path() const {
        return path_;
    }
    std::string pathOf(const std::string& name) const {
        return path_ + "/" + name;
    }

    // Takes the store's lock, or throws ERROR_BUSY, and removes what calls that were cut short have
    // left. The lock lasts as long as the descriptor and its duplicates.
    UniqueFd lock(Monitor& monitor) const;

    // The names that snapshots have, sorted by bytes.
    std::vector<std::string> names() const;

    // Opens a snapshot's directory. Throws ERROR_NAME or ERROR_NOT_FOUND.
    UniqueFd open(const std::string& name) const;
    // The same with a shared lock, so that it cannot be destroyed. Throws ERROR_BUSY, too.
    UniqueFd openShared(const std::string& name) const;

    // Removes a snapshot: its name at once, then the rest. The caller holds the store's lock.
    // Throws ERROR_BUSY while somebody has the snapshot's shared lock.
    void destroy(const std::string& name, Monitor& monitor) const;

    // Removes the logs of creates that failed.
    void removeLogs() const;

    // Removes an entry of the store.
    void remove(const std::string& entry, Monitor& monitor) const;

  private:
    void checkAccess() const;
    std::vector<std::string> entries() const;

    std::string path_;
    UniqueFd fd_;
};

}  // namespace manager
