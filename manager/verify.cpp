// SPDX-License-Identifier: Apache-2.0
#include "manager/verify.h"

#include <fcntl.h>

#include <cerrno>

#include "manager/failure.h"
#include "manager/info.h"
#include "manager/listing.h"
#include "manager/manifest.h"

namespace manager {

namespace {

// Iterates over the manifest's lines and the snapshot's entries side by side.
class Verification {
  public:
    Verification(const Store& store, const std::string& name, Monitor& monitor)
        : monitor_(monitor),
          generation_(store.openShared(name)),
          info_(readInfo(generation_.get(), store.pathOf(name), name)),
          manifest_(generation_.get(), store.pathOf(name)) {}

    Report run();

  private:
    void compare(const TreeWalk& walk, const Recorded& line);
    void compareFile(const TreeWalk& walk, const Recorded& line);
    bool isAboveSource(const std::string& path) const;
    void differ(f2fs_snapshot_finding_kind kind, const std::string& path, const std::string& what,
                int error = 0);

    Monitor& monitor_;
    UniqueFd generation_;
    Info info_;
    ManifestReader manifest_;
    Report report_;
};

Report Verification::run() {
    monitor_.begin(F2FS_SNAPSHOT_PHASE_VERIFY, info_.counts.files);
    TreeWalk walk(openDirectory(generation_.get(), "snapshot", info_.path), info_.path);
    Recorded line;
    bool has_line = manifest_.next(line);
    bool has_walk = walk.next() && walk.next();  // the top itself is above all sources
    while (has_line || has_walk) {
        const std::string path = has_walk ? walk.path().substr(info_.path.size()) : "";
        if (has_walk && walk.type() == S_IFDIR && isAboveSource(path)) {
            has_walk = walk.next();
            continue;
        }
        const int order = !has_line ? 1 : !has_walk ? -1 : comparePaths(line.path, path);
        if (order < 0) {
            differ(F2FS_SNAPSHOT_FOUND_MISSING, line.path, "it is missing");
        } else if (order > 0) {
            differ(F2FS_SNAPSHOT_FOUND_UNEXPECTED, path, "it is not in the manifest");
        } else {
            compare(walk, line);
        }
        has_line = order <= 0 ? manifest_.next(line) : has_line;
        has_walk = order >= 0 ? walk.next() : has_walk;
    }
    return std::move(report_);
}

void Verification::compare(const TreeWalk& walk, const Recorded& line) {
    if (walk.error() != 0) {
        differ(F2FS_SNAPSHOT_FOUND_UNREADABLE, line.path, reasonOf(walk.error()), walk.error());
        return;
    }
    if (walk.type() != (line.mode & S_IFMT)) {
        differ(F2FS_SNAPSHOT_FOUND_TYPE_DIFFERS, line.path, "it is of another type");
        return;
    }
    switch (walk.type()) {
        case S_IFDIR:
            ++report_.counts.directories;
            break;
        case S_IFLNK:
            ++report_.counts.links;
            if (walk.linkText() != line.link) {
                differ(F2FS_SNAPSHOT_FOUND_LINK_DIFFERS, line.path, "it has another text");
            }
            break;
        default:
            ++report_.counts.files;
            report_.counts.bytes += walk.attributes().stx_size;
            compareFile(walk, line);
            monitor_.step();
    }
}

void Verification::compareFile(const TreeWalk& walk, const Recorded& line) {
    const uint64_t size = walk.attributes().stx_size;
    if (size != line.size) {
        differ(F2FS_SNAPSHOT_FOUND_SIZE_DIFFERS, line.path,
               "it has " + std::to_string(size) + " bytes instead of " + std::to_string(line.size));
        return;
    }
    if (line.digest.empty()) {
        return;
    }
    const UniqueFd file(
        openat(walk.parent(), walk.name(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.valid()) {
        differ(F2FS_SNAPSHOT_FOUND_UNREADABLE, line.path, reasonOf(errno), errno);
        return;
    }
    try {
        if (digestOf(file.get(), size, line.path, [&] { monitor_.poll(); }) != line.digest) {
            differ(F2FS_SNAPSHOT_FOUND_DIGEST_DIFFERS, line.path, "its content is another one");
        }
    } catch (const Failure& failure) {
        if (failure.code != F2FS_SNAPSHOT_ERROR_SYSTEM) {
            throw;
        }
        differ(F2FS_SNAPSHOT_FOUND_UNREADABLE, line.path, reasonOf(failure.os_error),
               failure.os_error);
    }
}

bool Verification::isAboveSource(const std::string& path) const {
    for (const std::string& source : info_.sources) {
        if (source.size() > path.size() && source.compare(0, path.size(), path) == 0 &&
            source[path.size()] == '/') {
            return true;
        }
    }
    return false;
}

void Verification::differ(f2fs_snapshot_finding_kind kind, const std::string& path,
                          const std::string& what, int error) {
    report_.findings.push_back({path, kind, F2FS_SNAPSHOT_FAILS, shown(path) + ": " + what, error});
}

}  // namespace

Report verifySnapshot(const Store& store, const std::string& name, Monitor& monitor) {
    return Verification(store, name, monitor).run();
}

uint64_t diskUsage(const Store& store, const std::string& name) {
    constexpr uint64_t BLOCK = 512;  // the unit of stx_blocks
    const UniqueFd generation = store.open(name);
    const Info info = readInfo(generation.get(), store.pathOf(name), name);
    uint64_t bytes = 0;
    TreeWalk walk(openDirectory(generation.get(), "snapshot", info.path), info.path);
    while (walk.next()) {
        bytes += walk.attributes().stx_blocks * BLOCK;
    }
    return bytes;
}

}  // namespace manager
