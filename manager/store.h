// SPDX-License-Identifier: Apache-2.0
// A store: the directory that holds named snapshots. A snapshot with its records is a generation.
//
//     STORE/                    0700, the caller's; locked (flock) by a call that changes it
//     STORE/NAME/               a complete snapshot; locked (shared) while it is in use
//     STORE/NAME/snapshot/      what the library made: source S is at snapshot + S
//     STORE/NAME/manifest.mtree names, attributes and digests of the sources (manifest.h)
//     STORE/NAME/xattrs.dump    extended attributes of the sources, if they have any (manifest.h)
//     STORE/NAME/info.json      sources, times and findings; "format" is 1 (info.h)
//     STORE/.NAME.partial/      NAME in the making: renamed to NAME when it is on the disk
//     STORE/.NAME.removed/      NAME being removed
//     STORE/.NAME.log           the end of the library's log after a failed create
//
// The holder of the store's lock may remove every entry .partial and .removed, because the call
// that made it has ended. The helper program of a create inherits the locks, so that they last
// until it has ended too.
#pragma once

#include <string>
#include <vector>

#include "manager/file.h"
#include "manager/monitor.h"

namespace manager {

// Throws ERROR_NAME unless a snapshot can have this name.
void checkName(const std::string& name);

// Opens a directory. Makes the path absolute and resolves the links in it.
UniqueFd openResolved(std::string& path);

class Store {
  public:
    // Opens the store at `path`; with `create`, makes it if it is missing. Throws ERROR_STORE if it
    // belongs to another user or others can enter it.
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

    // Takes the store's lock, or throws ERROR_BUSY. Removes what interrupted calls have left. The
    // lock lasts as long as the descriptor and its duplicates.
    UniqueFd lock(Monitor& monitor) const;

    // The names that snapshots have, sorted by bytes.
    std::vector<std::string> names() const;

    // Throws ERROR_NAME, or ERROR_EXISTS, unless a new snapshot can have this name.
    void requireFree(const std::string& name) const;

    // Opens a snapshot's directory. Throws ERROR_NAME or ERROR_NOT_FOUND.
    UniqueFd open(const std::string& name) const;
    // The same with a shared lock, so that it cannot be destroyed. Throws ERROR_BUSY, too.
    UniqueFd openShared(const std::string& name) const;

    // Removes a snapshot: its name first, then the data. The caller holds the store's lock. Throws
    // ERROR_BUSY while another call holds the snapshot's shared lock.
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
