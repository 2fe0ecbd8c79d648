// SPDX-License-Identifier: Apache-2.0
#include "manager/create.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "manager/check.h"
#include "manager/failure.h"
#include "manager/info.h"
#include "manager/listing.h"
#include "manager/manifest.h"
#include "manager/sources.h"

namespace manager {

namespace {

constexpr int64_t SECOND = 1000000000;
constexpr int32_t FILES_KEPT_CHANGING = -11;

int64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    return time.tv_sec * SECOND + time.tv_nsec;
}

// The directory of a generation in the making. Removed with the object unless it was published.
class Partial {
  public:
    Partial(const Store& store, const std::string& name, Monitor& monitor)
        : store_(store), monitor_(monitor), name_(name), entry_("." + name + ".partial") {
        if (mkdirat(store_.fd(), entry_.c_str(), S_IRWXU) != 0) {
            failSystem("make", path());
        }
        is_made_ = true;
        fd_ = openDirectory(store_.fd(), entry_.c_str(), path());
    }
    ~Partial() {
        if (is_made_) {
            try {
                monitor_.ignoreCancel();
                store_.remove(entry_, monitor_);
            } catch (...) {
                // The next call that changes the store tries again.
            }
        }
    }
    Partial(const Partial&) = delete;
    Partial& operator=(const Partial&) = delete;

    int fd() const {
        return fd_.get();
    }
    std::string path() const {
        return store_.pathOf(entry_);
    }
    // Removes what an attempt has made.
    void clear() {
        for (const char* name : {"snapshot", MANIFEST_FILE, ATTRIBUTES_FILE}) {
            removeTree(fd(), name, path() + "/" + name, [&] { monitor_.poll(); });
        }
    }
    // Writes everything to the disk, then gives it the name.
    void publish() {
        monitor_.begin(F2FS_SNAPSHOT_PHASE_SYNC);
        if (syncfs(fd()) != 0) {
            failSystem("sync", path());
        }
        monitor_.throwIfCancelled();
        constexpr unsigned int NOREPLACE = 1;  // RENAME_NOREPLACE, not in all headers
        if (syscall(SYS_renameat2, store_.fd(), entry_.c_str(), store_.fd(), name_.c_str(),
                    NOREPLACE) != 0) {
            failSystem("name the snapshot", store_.pathOf(name_));
        }
        is_made_ = false;
        if (fsync(store_.fd()) != 0) {
            failSystem("sync the store", store_.path());
        }
    }

  private:
    const Store& store_;
    Monitor& monitor_;
    const std::string name_;
    const std::string entry_;
    UniqueFd fd_;
    bool is_made_ = false;
};

// One call of createSnapshot: makes attempts until one is whole, or the last has been made.
class Creation {
  public:
    Creation(const Store& store, const CreateRequest& request, Monitor& monitor)
        : store_(store), request_(request), monitor_(monitor) {
        info_.created = now();
        info_.name = request.name;
        info_.path = store.pathOf(request.name) + "/snapshot";
        info_.has_digests = request.digests;
        info_.is_temporary = request.is_temporary;
    }
    Info run();

  private:
    void prepare();
    void attempt(bool is_last);
    void listSources();
    void refuse(const std::vector<Finding>& findings) const;
    void callLibrary();
    void compareSources();
    void compareSource(const Source& source, Listing& listing);
    void compareEntry(const TreeWalk& walk, Entry& entry, const std::string& path);
    void confirmPasses();
    void record();
    void recordTree(const Source& source, Listing& listing, ManifestWriter& manifest);
    void recordEntry(const TreeWalk& walk, const std::string& path, const ListingCursor* cursor,
                     ManifestWriter& manifest);
    [[noreturn]] void failStrict() const;
    [[noreturn]] void explain(const std::string& reason);
    void keepLog(std::string& message);
    void change(f2fs_snapshot_finding_kind kind, const std::string& path, const char* what);

    const Store& store_;
    const CreateRequest& request_;
    Monitor& monitor_;
    UniqueFd store_lock_;
    std::vector<Source> sources_;
    std::vector<UniqueFd> source_locks_;
    std::unique_ptr<Partial> partial_;
    Info info_;
    // Of the current attempt:
    std::vector<Listing> listings_;
    std::vector<Finding> uncovered_;
    std::vector<Finding> changes_;
    Attributes attributes_;
    HelperResult library_;
};

Info Creation::run() {
    prepare();
    for (uint32_t i = 1;; ++i) {
        info_.attempts = monitor_.now.attempt = i;
        const bool is_last = i >= request_.attempts;
        attempt(is_last);
        if (changes_.empty() || (is_last && !request_.strict)) {
            break;
        }
        if (is_last) {
            failStrict();
        }
        partial_->clear();
    }
    info_.whole = changes_.empty();
    info_.findings = std::move(uncovered_);
    info_.findings.insert(info_.findings.end(), changes_.begin(), changes_.end());
    std::stable_sort(
        info_.findings.begin(), info_.findings.end(),
        [](const auto& one, const auto& two) { return comparePaths(one.path, two.path) < 0; });
    writeFile(partial_->fd(), INFO_FILE, partial_->path() + "/" + INFO_FILE, infoToJson(info_));
    store_.removeLogs();
    partial_->publish();
    return std::move(info_);
}

void Creation::prepare() {
    sources_ = openSources(store_, request_.sources);
    for (const Source& source : sources_) {
        info_.sources.push_back(source.path);
    }
    store_lock_ = store_.lock(monitor_);
    source_locks_ = lockSources(sources_);
    store_.requireFree(request_.name);
    partial_ = std::make_unique<Partial>(store_, request_.name, monitor_);
}

void Creation::attempt(bool is_last) {
    changes_.clear();
    attributes_.clear();
    library_ = {};
    info_.counts = {};
    listSources();
    try {
        callLibrary();
    } catch (const Failure& failure) {
        if (failure.code != F2FS_SNAPSHOT_ERROR_LIBRARY) {
            throw;
        }
        explain(failure.message);
    }
    compareSources();
    if (library_.result != 0) {
        // The library's call fails if a name vanishes while it works.
        if (is_last || (changes_.empty() && library_.result != FILES_KEPT_CHANGING)) {
            explain("the snapshot library ended with " + std::to_string(library_.result));
        }
        change(F2FS_SNAPSHOT_FOUND_NOT_TAKEN, sources_.front().path, "the library gave up");
        return;
    }
    confirmPasses();
    record();
}

void Creation::listSources() {
    monitor_.now.pass = 0;
    monitor_.now.files_again = 0;
    monitor_.begin(F2FS_SNAPSHOT_PHASE_LIST);
    listings_.clear();
    Rules rules(store_, sources_, request_.name);
    refuse(rules.findings());  // before the trees are read
    for (const Source& source : sources_) {
        listings_.emplace_back(source.path);
        Listing& listing = listings_.back();
        TreeWalk walk(reopenSource(source), source.path, isWithinClockTick);
        while (walk.next()) {
            if (rules.judge(walk)) {
                listing.append(walk);
                monitor_.step(walk.type() == S_IFREG ? 1 : 0);
            } else {
                walk.skip();
            }
        }
    }
    uncovered_ = rules.take();
    refuse(uncovered_);
}

void Creation::refuse(const std::vector<Finding>& findings) const {
    for (const Finding& finding : findings) {
        const bool fails = finding.severity == F2FS_SNAPSHOT_FAILS;
        if (fails || (finding.severity == F2FS_SNAPSHOT_UNCOVERED && request_.strict)) {
            throw Failure(!fails ? F2FS_SNAPSHOT_ERROR_NOT_WHOLE
                          : finding.kind == F2FS_SNAPSHOT_FOUND_NO_DRIVER
                              ? F2FS_SNAPSHOT_ERROR_UNSUPPORTED
                              : F2FS_SNAPSHOT_ERROR_SOURCE,
                          finding.path, "cannot snapshot " + finding.message, finding.os_error);
        }
    }
}

void Creation::callLibrary() {
    uint64_t files = 0;
    for (const Listing& listing : listings_) {
        files += listing.counts.files;
    }
    HelperCall call;
    call.program = request_.helper;
    call.target = partial_->path();
    call.sources = info_.sources;
    call.locks.push_back(store_lock_.get());
    for (const UniqueFd& lock : source_locks_) {
        call.locks.push_back(lock.get());
    }
    call.time_limit = request_.time_limit;
    monitor_.begin(F2FS_SNAPSHOT_PHASE_CREATE, files);
    const int64_t begin = now();
    runHelper(call, monitor_, library_);
    info_.links_blocked = library_.links_blocked;
    info_.passes = library_.log.passes;
    info_.files_again = library_.log.files_taken > files ? library_.log.files_taken - files : 0;
    info_.instant_earliest = library_.has_log ? library_.log.earliest : begin;
    info_.instant_latest = library_.has_log ? library_.log.latest : now();
}

void Creation::compareSources() {
    monitor_.begin(F2FS_SNAPSHOT_PHASE_LIST, monitor_.now.files_total);
    for (size_t i = 0; i < sources_.size(); ++i) {
        compareSource(sources_[i], listings_[i]);
    }
}

void Creation::compareSource(const Source& source, Listing& listing) {
    UniqueFd top = reopenSource(source);
    if (!top.valid()) {
        change(F2FS_SNAPSHOT_FOUND_VANISHED, source.path, "it is gone");
        return;
    }
    TreeWalk walk(std::move(top), source.path);
    ListingCursor cursor(listing);
    merge(cursor, walk, 0, [&](ListingCursor* listed, bool is_there) {
        monitor_.poll();
        if (listed == nullptr) {
            change(F2FS_SNAPSHOT_FOUND_APPEARED, walk.path(), "it is new");
            return false;
        }
        if (!is_there) {
            change(F2FS_SNAPSHOT_FOUND_VANISHED, listed->path(), "it is gone");
            return false;
        }
        const Entry& entry = listed->entry();
        if (walk.error() != 0 || entry.inode != walk.attributes().stx_ino ||
            entry.type() != walk.type() ||
            (entry.type() == S_IFLNK && walk.linkText() != listed->linkText())) {
            change(F2FS_SNAPSHOT_FOUND_REPLACED, listed->path(),
                   "its name now leads to another file, directory or link");
            return false;
        }
        compareEntry(walk, listed->entry(), listed->path());
        return true;
    });
}

// Records the attributes of an entry that is still the same file, directory or link.
void Creation::compareEntry(const TreeWalk& walk, Entry& entry, const std::string& path) {
    const struct statx& attributes = walk.attributes();
    if (entry.type() == S_IFDIR && entry.changed != nanoseconds(attributes.stx_ctime)) {
        change(F2FS_SNAPSHOT_FOUND_DIRECTORY_CHANGED, path,
               "names came and went in it, or it has other attributes");
    }
    entry.mode = attributes.stx_mode;
    entry.owner = attributes.stx_uid;
    entry.group = attributes.stx_gid;
    // The last known time of a write before the instant: a later write may not be in the snapshot.
    const int64_t modified = nanoseconds(attributes.stx_mtime);
    if (modified <= info_.instant_earliest) {
        entry.modified = modified;
    }
    collectAttributes(walk.parent(), walk.name(), path, attributes_);
}

// The last check pass must have read every directory to its end.
void Creation::confirmPasses() {
    const LibraryLog& log = library_.log;
    if (!library_.has_log) {
        if (library_.is_unsure) {
            change(F2FS_SNAPSHOT_FOUND_DIRECTORY_UNREADABLE, sources_.front().path,
                   "a further check pass found changes, or a directory that it could not read");
        }
        return;
    }
    uint64_t files = 0;
    for (const Listing& listing : listings_) {
        files += listing.counts.files;
    }
    if (!log.unreadable.empty()) {
        change(F2FS_SNAPSHOT_FOUND_DIRECTORY_UNREADABLE, log.unreadable,
               "the last check pass could not read it");
    } else if (log.files_checked != files && changes_.empty()) {
        change(F2FS_SNAPSHOT_FOUND_DIRECTORY_UNREADABLE, sources_.front().path,
               "the last check pass could not read all of it");
    }
}

void Creation::record() {
    monitor_.begin(F2FS_SNAPSHOT_PHASE_RECORD, monitor_.now.files_total);
    ManifestWriter manifest(partial_->fd(), partial_->path(), request_.digests);
    for (size_t i = 0; i < sources_.size(); ++i) {
        recordTree(sources_[i], listings_[i], manifest);
    }
    manifest.close();
    writeAttributes(partial_->fd(), partial_->path(), attributes_);
}

// Also compares the snapshot with the listing: both must have the same names.
void Creation::recordTree(const Source& source, Listing& listing, ManifestWriter& manifest) {
    const std::string root = partial_->path() + "/snapshot";
    UniqueFd top(openat(partial_->fd(), ("snapshot" + source.path).c_str(),
                        O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!top.valid()) {
        failSystem("open the snapshot of", source.path);
    }
    const bool is_constant = changes_.empty();
    TreeWalk walk(std::move(top), root + source.path);
    ListingCursor cursor(listing);
    merge(cursor, walk, root.size(), [&](ListingCursor* listed, bool is_there) {
        if (!is_there) {
            if (is_constant) {
                change(F2FS_SNAPSHOT_FOUND_NOT_TAKEN, listed->path(), "the snapshot lacks it");
            }
            return false;
        }
        monitor_.step(walk.type() == S_IFREG ? 1 : 0);
        if (walk.error() != 0) {
            failSystem("read", walk.path(), walk.error());
        }
        const bool is_equal = listed != nullptr && listed->entry().type() == walk.type() &&
                              (walk.type() != S_IFLNK || walk.linkText() == listed->linkText());
        const std::string path = walk.path().substr(root.size());
        if (!is_equal && is_constant) {
            change(F2FS_SNAPSHOT_FOUND_NOT_TAKEN, path, "the snapshot has something else");
        }
        recordEntry(walk, path, is_equal ? listed : nullptr, manifest);
        return true;
    });
}

void Creation::recordEntry(const TreeWalk& walk, const std::string& path,
                           const ListingCursor* cursor, ManifestWriter& manifest) {
    const struct statx& attributes = walk.attributes();
    Recorded line;
    line.path = path;
    line.mode = cursor != nullptr ? cursor->entry().mode : attributes.stx_mode;
    line.owner = cursor != nullptr ? cursor->entry().owner : attributes.stx_uid;
    line.group = cursor != nullptr ? cursor->entry().group : attributes.stx_gid;
    line.inode = cursor != nullptr ? cursor->entry().inode : 0;
    line.names = cursor != nullptr ? cursor->entry().names : 1;
    line.modified =
        cursor != nullptr ? cursor->entry().modified : nanoseconds(attributes.stx_mtime);
    UniqueFd content;
    if (walk.type() == S_IFREG) {
        ++info_.counts.files;
        info_.counts.bytes += line.size = attributes.stx_size;
        if (request_.digests) {
            content =
                UniqueFd(openat(walk.parent(), walk.name(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
            if (!content.valid()) {
                failSystem("read", walk.path());
            }
        }
    } else if (walk.type() == S_IFLNK) {
        ++info_.counts.links;
        line.link = walk.linkText();
    } else {
        ++info_.counts.directories;
    }
    manifest.add(line, content.get(), [&] { monitor_.poll(); });
}

void Creation::change(f2fs_snapshot_finding_kind kind, const std::string& path, const char* what) {
    changes_.push_back({path, kind, F2FS_SNAPSHOT_FAILS, shown(path) + ": " + what});
}

void Creation::failStrict() const {
    const std::string more = changes_.size() == 1
                                 ? ""
                                 : ", and " + std::to_string(changes_.size() - 1) + " more changes";
    throw Failure(F2FS_SNAPSHOT_ERROR_NOT_WHOLE, changes_.front().path,
                  "the trees changed in each of " + std::to_string(info_.attempts) +
                      " attempts: " + changes_.front().message + more);
}

// The source file whose snapshot the library could not allocate, by its log; empty: none.
std::string unallocated(const LibraryLog& log, const std::string& root) {
    const std::string begin = "fallocate failed dstfilepath = " + root;
    for (const std::string& line : log.tail()) {
        if (line.compare(0, begin.size(), begin) == 0) {
            return line.substr(begin.size(), line.rfind(" dst_file_fd = ") - begin.size());
        }
    }
    return "";
}

// Throws the library's failure with the best known reason: no room, a change or a finding.
void Creation::explain(const std::string& reason) {
    std::string path = sources_.front().path;
    std::string message = reason;
    const std::string no_room = unallocated(library_.log, partial_->path() + "/snapshot");
    if (!no_room.empty()) {
        path = no_room;
        message = "cannot snapshot " + shown(path) +
                  ": the volume has no room for its size; make some, or destroy older snapshots";
    } else if (library_.result == FILES_KEPT_CHANGING) {
        message = "files in " + shown(path) + " kept changing: call again when less is written";
    } else if (!changes_.empty()) {
        path = changes_.front().path;
        message = reason + " because the trees changed: " + changes_.front().message +
                  "; nothing is kept, call again";
    } else {
        const Report report = checkSources(store_, sources_, request_.name, monitor_);
        for (const Finding& finding : report.findings) {
            if (finding.severity == F2FS_SNAPSHOT_FAILS) {
                path = finding.path;
                message = "cannot snapshot " + finding.message;
                break;
            }
        }
    }
    keepLog(message);
    throw Failure(F2FS_SNAPSHOT_ERROR_LIBRARY, path, message);
}

void Creation::keepLog(std::string& message) {
    const std::string name = "." + request_.name + ".log";
    const std::string path = store_.pathOf(name);
    std::string text;
    for (const std::string& line : library_.log.tail()) {
        text += line;
        if (line.empty() || line.back() != '\n') {
            text += '\n';
        }
    }
    try {
        removeTree(store_.fd(), name, path, [] {});
        writeFile(store_.fd(), name.c_str(), path, text);
        message += "; the end of its log is in " + shown(path);
    } catch (const Failure&) {
        // The library's failure matters more than its log.
    }
}

}  // namespace

std::string nameOfNow() {
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    tm utc = {};
    gmtime_r(&time.tv_sec, &utc);
    char text[64];
    const size_t length = strftime(text, sizeof text, "%Y-%m-%dT%H-%M-%S", &utc);
    snprintf(text + length, sizeof text - length, ".%03dZ",
             static_cast<int>(time.tv_nsec / 1000000));
    return text;
}

Info createSnapshot(const Store& store, const CreateRequest& request, Monitor& monitor) {
    checkName(request.name);
    return Creation(store, request, monitor).run();
}

}  // namespace manager
