// SPDX-License-Identifier: Apache-2.0
// A store: the directory that holds named snapshots.
//
//     STORE/                    0700, the caller's; locked (flock) by a call that changes it
//     STORE/NAME/               a whole snapshot; locked, shared, by who verifies or restores it
//     STORE/NAME/snapshot/      what the library made: source S is at snapshot + S
//     STORE/NAME/manifest.mtree what the sources were, by bsdtar's mtree format; paths begin "./"
//                               at snapshot/. Modes, owners and times are the sources', sizes and
//                               digests those of the snapshot's files
//     STORE/NAME/xattrs.dump    extended attributes of the sources, in the format of getfattr
//                               --dump --encoding=hex; only if there are any
//     STORE/NAME/info.json      who made what when; "format" is 1 (info.h)
//     STORE/.NAME.partial/      NAME in the making: renamed to NAME when it is on the disk
//     STORE/.NAME.removed/      NAME being removed
//     STORE/.NAME.log           the end of the library's log, of a create that failed
//
// Whoever holds the lock of the store may remove every entry that begins with a dot: no call that
// made one is alive. The helper program of a create inherits the locks, so that they last until it
// is gone, too. The lock of a snapshot is taken while its name exists: destroy takes it before it
// takes the name away.
#pragma once

#include <string>
#include <vector>

#include "manager/file.h"
#include "manager/monitor.h"

namespace manager {

// Throws ERROR_NAME unless a snapshot can have this name.
void checkName(const std::string& name);

class Store {
  public:
    static constexpr char PARTIAL[] = ".partial";
    static constexpr char REMOVED[] = ".removed";
    static constexpr char LOG[] = ".log";

    // Opens, or makes, the store at path; checks who can reach it.
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
    // left. The lock lasts as long as the descriptor.
    UniqueFd lock(Monitor& monitor) const;

    // The names that snapshots have, sorted by bytes.
    std::vector<std::string> names() const;

    // Opens a snapshot's directory with a shared lock, so that it cannot be destroyed. Throws
    // ERROR_NAME, ERROR_NOT_FOUND or ERROR_BUSY.
    UniqueFd openShared(const std::string& name) const;
    // Opens it without a lock.
    UniqueFd open(const std::string& name) const;

    // Removes a snapshot. The caller holds the store's lock.
    void destroy(const std::string& name, Monitor& monitor) const;

  private:
    void removeLeftovers(Monitor& monitor) const;

    std::string path_;
    UniqueFd fd_;
};

}  // namespace manager
