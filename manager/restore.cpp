// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "manager/abi.h"
#include "manager/descent.h"
#include "manager/destination.h"
#include "manager/info.h"
#include "manager/replica.h"
#include "manager/walk.h"

namespace manager {

namespace {

using Components = std::vector<std::string>;

// The names in a path of the manifest. Throws ERROR_FORMAT for ".", ".." and empty names.
Components componentsOf(const std::string& path) {
    Components components;
    for (size_t begin = 1, end = 0; end != std::string::npos; begin = end + 1) {
        end = path.find('/', begin);
        components.push_back(path.substr(begin, end - begin));
        const std::string& name = components.back();
        if (path[0] != '/' || name.empty() || name == "." || name == "..") {
            throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, path,
                          "the manifest is damaged: it has the path " + shown(path));
        }
    }
    return components;
}

// Which of the manifest's paths are restored: all, unless the caller names some.
class Selection {
  public:
    explicit Selection(const f2fs_snapshot_restore_options& options) {
        for (size_t i = 0; i < options.path_count; ++i) {
            requireArgument(options.paths[i], "path to restore");
            std::string path = options.paths[i];
            while (path.size() > 1 && path.back() == '/') {
                path.pop_back();
            }
            paths_.push_back({std::move(path), false});
        }
    }

    bool has(const std::string& path) {
        bool is_selected = paths_.empty();
        for (auto& [selected, is_known] : paths_) {
            if (isAtOrBelow(path, selected)) {
                is_selected = is_known = true;
            }
        }
        return is_selected;
    }
    void requireAllKnown(const std::string& snapshot) const {
        for (const auto& [selected, is_known] : paths_) {
            if (!is_known) {
                throw Failure(
                    F2FS_SNAPSHOT_ERROR_NOT_FOUND, selected,
                    "the snapshot " + shown(snapshot) + " does not contain " + shown(selected));
            }
        }
    }

  private:
    std::vector<std::pair<std::string, bool>> paths_;
};

// A Descent that moves from one path to the next.
class Position {
  public:
    Position(UniqueFd top, const std::string& path) : descent_(std::move(top), path) {}

    int fd() const {
        return descent_.fd();
    }
    // Goes to the directory of the last name. Calls enter(descent, name) for each directory on the
    // way down; if that returns false, stops there and returns false.
    template <typename Enter>
    bool moveTo(const Components& names, Enter enter) {
        const auto parents = names.end() - 1;
        const auto common =
            std::mismatch(at_.begin(), at_.end(), names.begin(), parents).first - at_.begin();
        while (at_.size() > static_cast<size_t>(common)) {
            at_.pop_back();
            descent_.leave();
        }
        while (at_.size() + 1 < names.size()) {
            const std::string& name = names[at_.size()];
            if (!enter(descent_, name)) {
                return false;
            }
            at_.push_back(name);
        }
        return true;
    }

  private:
    Descent descent_;
    Components at_;
};

bool enterExisting(Descent& descent, const std::string& name) {
    descent.enter(name);
    return true;
}

// The type of a name (of S_IFMT), 0 if it does not exist.
uint32_t typeOf(int directory, const std::string& name, const std::string& path) {
    struct statx attributes = {};
    const int error = attributesOf(directory, name.c_str(), attributes);
    if (error != 0 && error != ENOENT) {
        failSystem("look at", path, error);
    }
    return error == 0 ? attributes.stx_mode & S_IFMT : 0;
}

UniqueFd reopened(int directory, const std::string& path) {
    return openDirectory(directory, ".", path);
}

// Directories that are known to be missing, and all paths below them.
class Missing {
  public:
    void add(const std::string& directory) {
        directories_.push_back(directory);
    }
    bool has(const std::string& path) const {
        return std::any_of(directories_.begin(), directories_.end(),
                           [&](const std::string& top) { return isAtOrBelow(path, top); });
    }

  private:
    Components directories_;
};

// Finds what is in the way of a restore into directories that exist.
class Survey {
  public:
    Survey(const Destination& destination, Report& report)
        : position_(reopened(destination.fd(), destination.path()), ""), report_(report) {}

    void look(const Recorded& recorded) {
        const Components names = componentsOf(recorded.path);
        const auto enter = [&](Descent& descent, const std::string& name) {
            const std::string path = descent.path() + "/" + name;
            const uint32_t type = typeOf(descent.fd(), name, path);
            if (type == S_IFDIR) {
                descent.enter(name);
                return true;
            }
            judge(path, S_IFDIR, type);
            missing_.add(path);
            return false;
        };
        if (!missing_.has(recorded.path) && position_.moveTo(names, enter)) {
            judge(recorded.path, recorded.mode & S_IFMT,
                  typeOf(position_.fd(), names.back(), recorded.path));
        }
    }

  private:
    void judge(const std::string& path, uint32_t wanted, uint32_t found) {
        const bool is_directory = found == S_IFDIR;
        if (found == 0 || (is_directory && wanted == S_IFDIR)) {
            return;
        }
        const bool fails = is_directory || wanted == S_IFDIR;
        report_.findings.push_back({path, F2FS_SNAPSHOT_FOUND_IN_THE_WAY,
                                    fails ? F2FS_SNAPSHOT_FAILS : F2FS_SNAPSHOT_NOTE,
                                    shown(path) + (fails ? " is in the way: it is of another type"
                                                         : " would be replaced")});
        if (wanted == S_IFDIR) {
            missing_.add(path);
        }
    }

    Position position_;
    Report& report_;
    Missing missing_;
};

void count(const Recorded& recorded, Counts& counts) {
    const uint32_t type = recorded.mode & S_IFMT;
    counts.files += type == S_IFREG ? 1 : 0;
    counts.directories += type == S_IFDIR ? 1 : 0;
    counts.links += type == S_IFLNK ? 1 : 0;
    counts.bytes += type == S_IFREG ? recorded.size : 0;
}

bool isFailure(const Finding& finding) {
    return finding.severity == F2FS_SNAPSHOT_FAILS;
}

class Restore {
  public:
    Restore(const Store& store, const std::string& name,
            const f2fs_snapshot_restore_options& options, Monitor& monitor)
        : path_(store.pathOf(name)),
          generation_(store.openShared(name)),
          overwrite_(options.overwrite != 0),
          selection_(options),
          monitor_(monitor) {
        readInfo(generation_.get(), path_, name);  // throws for an unknown format
        monitor_.begin(F2FS_SNAPSHOT_PHASE_LIST);
        forEachLine([this](const Recorded& recorded) { count(recorded, report.counts); });
        selection_.requireAllKnown(name);
    }

    // Finds what is in the way.
    void survey(const Destination& destination);
    void run(const Destination& destination);

    Report report;

  private:
    // Calls each(Recorded) with what is to be restored, a directory before its entries. Reads the
    // manifest anew: it can be larger than the memory.
    template <typename Each>
    void forEachLine(Each each) {
        ManifestReader manifest(generation_.get(), path_);
        for (Recorded recorded; manifest.next(recorded);) {
            monitor_.poll();
            if (selection_.has(recorded.path)) {
                each(recorded);
            }
        }
    }
    void requireNothingInTheWay();
    void restoreInto(int top, const std::string& path);
    void restore(const Recorded& recorded);
    bool isInSnapshot(const Recorded& recorded, const std::string& name);
    void restoreFile(const Recorded& recorded, const Spot& spot);
    void finishDirectories(int top, const std::string& path, bool tops);

    const std::string path_;
    const UniqueFd generation_;
    const bool overwrite_;
    Selection selection_;
    Monitor& monitor_;
    uint64_t files_ = 0;  // to be restored

    int top_ = -1;
    std::unique_ptr<Replica> replica_;
    std::unique_ptr<Position> from_;
    std::unique_ptr<Position> to_;
    std::vector<Recorded> directories_;  // get their attributes after all their entries
    Missing missing_;                    // in the snapshot
};

void Restore::survey(const Destination& destination) {
    if (overwrite_ && destination.exists()) {
        Survey survey(destination, report);
        forEachLine([&](const Recorded& recorded) { survey.look(recorded); });
    } else if (destination.exists()) {
        destination.requireEmpty();
    }
}

void Restore::requireNothingInTheWay() {
    for (const Finding& finding : report.findings) {
        if (isFailure(finding)) {
            throw Failure(F2FS_SNAPSHOT_ERROR_EXISTS, finding.path, finding.message);
        }
    }
}

void Restore::run(const Destination& destination) {
    requireNothingInTheWay();
    files_ = report.counts.files;
    report = {};  // only a dry run reports what would be replaced
    destination.removePartial(monitor_);
    if (overwrite_) {
        restoreInto(destination.fd(), destination.path());
        finishDirectories(destination.fd(), destination.path(), true);
        return;
    }
    PartialTree partial(destination);
    restoreInto(partial.open().get(), destination.path());
    partial.publish();
    // Only now: a directory without write permission could not have been moved.
    finishDirectories(destination.fd(), destination.path(), true);
    partial.keep();
}

void Restore::restoreInto(int top, const std::string& path) {
    monitor_.begin(F2FS_SNAPSHOT_PHASE_RESTORE, files_);
    const std::string snapshot = path_ + "/snapshot";
    replica_ = std::make_unique<Replica>(readAttributes(generation_.get(), path_), report,
                                         [this] { monitor_.poll(); });
    from_ = std::make_unique<Position>(openDirectory(generation_.get(), "snapshot", snapshot),
                                       snapshot);
    to_ = std::make_unique<Position>(reopened(top, path), path);
    top_ = top;
    forEachLine([this](const Recorded& recorded) {
        const auto known = static_cast<ptrdiff_t>(report.findings.size());
        if (missing_.has(recorded.path)) {
            return;
        }
        restore(recorded);
        if (std::none_of(report.findings.begin() + known, report.findings.end(), isFailure)) {
            count(recorded, report.counts);
        }
    });
    monitor_.begin(F2FS_SNAPSHOT_PHASE_SYNC);
    finishDirectories(top, path, false);
    if (syncfs(top) != 0) {
        failSystem("sync the file system of", path);
    }
}

void Restore::restore(const Recorded& recorded) {
    const Components names = componentsOf(recorded.path);
    from_->moveTo(names, enterExisting);
    to_->moveTo(names, [](Descent& descent, const std::string& name) {
        if (mkdirat(descent.fd(), name.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
            failSystem("make the directory", descent.path() + "/" + name);
        }
        return enterExisting(descent, name);
    });
    const Spot spot = {to_->fd(), names.back(), overwrite_};
    const bool is_there = isInSnapshot(recorded, names.back());
    switch (recorded.mode & S_IFMT) {
        case S_IFDIR:
            if (mkdirat(spot.directory, spot.name.c_str(), S_IRWXU) != 0 && errno != EEXIST) {
                failSystem("make the directory", recorded.path);
            }
            directories_.push_back(recorded);
            break;
        case S_IFLNK:
            replica_->makeLink(recorded, spot);
            break;
        default:
            if (is_there) {
                restoreFile(recorded, spot);
            }
            monitor_.step();
    }
}

bool Restore::isInSnapshot(const Recorded& recorded, const std::string& name) {
    const uint32_t type = typeOf(from_->fd(), name, path_ + "/snapshot" + recorded.path);
    if (type == (recorded.mode & S_IFMT)) {
        return true;
    }
    replica_->find(recorded.path,
                   type == 0 ? F2FS_SNAPSHOT_FOUND_MISSING : F2FS_SNAPSHOT_FOUND_TYPE_DIFFERS,
                   F2FS_SNAPSHOT_FAILS,
                   type == 0 ? "the snapshot has lost it" : "the snapshot has another type of it");
    if (S_ISDIR(recorded.mode)) {
        missing_.add(recorded.path);
    }
    return false;
}

void Restore::restoreFile(const Recorded& recorded, const Spot& spot) {
    const UniqueFd source(
        openat(from_->fd(), spot.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat64 attributes = {};
    if (!source.valid() || fstat64(source.get(), &attributes) != 0) {
        failSystem("open the snapshot of", recorded.path);
    }
    if (static_cast<uint64_t>(attributes.st_size) != recorded.size) {
        replica_->find(recorded.path, F2FS_SNAPSHOT_FOUND_SIZE_DIFFERS, F2FS_SNAPSHOT_FAILS,
                       "the snapshot has another size of it");
    }
    replica_->makeFile(recorded, source.get(), spot, top_);
}

// tops  true: those directly in the destination; false: all others
void Restore::finishDirectories(int top, const std::string& path, bool tops) {
    Position position(reopened(top, path), path);
    // The deeper ones first: a directory's mode can forbid entering it.
    for (auto each = directories_.rbegin(); each != directories_.rend(); ++each) {
        const Recorded& recorded = *each;
        const Components names = componentsOf(recorded.path);
        if ((names.size() == 1) != tops) {
            continue;
        }
        position.moveTo(names, enterExisting);
        replica_->finishDirectory(
            recorded, openDirectory(position.fd(), names.back().c_str(), recorded.path).get());
    }
}

}  // namespace

}  // namespace manager

int32_t f2fs_snapshot_restore(f2fs_snapshot_store* store, const char* name, const char* destination,
                              const f2fs_snapshot_restore_options* options,
                              f2fs_snapshot_report** report, f2fs_snapshot_error* error) {
    return manager::guarded(error, [&] {
        manager::requireArgument(store, "store");
        manager::requireArgument(name, "name");
        manager::requireArgument(destination, "destination");
        const f2fs_snapshot_restore_options given = manager::optionsOf(options);
        manager::Monitor monitor(given.callbacks);
        manager::Restore restore(store->store, name, given, monitor);
        const bool dry_run = given.dry_run != 0;
        const manager::Destination place(store->store, destination, dry_run);
        restore.survey(place);
        if (!dry_run) {
            restore.run(place);
        }
        if (report != nullptr) {
            *report = manager::newReport(std::move(restore.report));
        }
    });
}
