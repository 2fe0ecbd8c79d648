// SPDX-License-Identifier: Apache-2.0
#include "driver_check/checks.h"

#include "driver_check/check.h"

namespace driver_check {
namespace {

// Headings of docs/kernel-interface.md.
const char* const GET_INFO = "DEDUP_GET_FILE_INFO";
const char* const SET = "MODIFY_CHECK, set";
const char* const GET = "MODIFY_CHECK, get";
const char* const CLONE_FILE = "CLONE_FILE";
const char* const SNAPSHOT_PREPARE = "SNAPSHOT_PREPARE";
const char* const SNAPSHOT_CREATE = "SNAPSHOT_CREATE";
const char* const DEDUP_REVOKE = "DEDUP_REVOKE";
const char* const REFUSALS = "What a driver refuses";
const char* const PROMISE = "What the promise hangs on";
const char* const FEATURES = "Files with attributes";
const char* const REBOOT = "After a reboot";
const char* const NOT_RELIED_ON = "What is not relied on";
const char* const FILE_SYSTEM = "What else the file system gives";

// What failures mean, where several checks share it.
const char* const NO_PREPARE = "prepare fails, and no snapshot can be made.";
const char* const NO_CREATE = "create fails, so there are no snapshots.";
const char* const UNSEEN =
    "a file changed this way while create runs is taken as unchanged: the snapshot mixes states of "
    "different instants, and no error says so.";
const char* const MARK_LOST =
    "create sees changes where there are none, makes snapshots again and again, and ends with -11 "
    "although nothing was written.";
const char* const WRONG_SNAPSHOT =
    "the snapshot does not hold what the source held. A restore from it brings back wrong data.";
const char* const SOURCE_DAMAGED = "making a snapshot damages the user's own file.";
const char* const TRUSTS_CALLERS =
    "any program that may open a file of the volume can crash the kernel, or read and overwrite "
    "what it has no right to.";
const char* const REFUSED_LATE =
    "a request that cannot be served is taken as served: a snapshot without the data counts as "
    "made.";

std::vector<Check> lostByChecks() {
    std::vector<Check> checks;
    for (size_t i = 0; i < CHANGE_COUNT; ++i) {
        const Way& way = CHANGES[i];
        checks.push_back({std::string("mark.lost-by-") + way.name, PROMISE, MARK | way.needs,
                          UNSEEN, [&way] { mark::lostBy(way); }});
    }
    return checks;
}

std::vector<Check> presenceChecks() {
    using namespace presence;
    return {
        {"presence.get-file-info", GET_INFO, NOTHING, NO_PREPARE, getFileInfo, INFO},
        {"presence.modify-check", SET, NOTHING, "prepare and create fail: there are no snapshots.",
         modifyCheck, MARK},
        {"presence.clone-file", CLONE_FILE, NOTHING, NO_PREPARE, cloneFile, CLONE},
        {"presence.snapshot-prepare", SNAPSHOT_PREPARE, NOTHING, NO_PREPARE, snapshotPrepare,
         PREPARE},
        {"presence.snapshot-create", SNAPSHOT_CREATE, NOTHING, NO_CREATE, snapshotCreate, CREATE},
        {"presence.dedup-revoke", DEDUP_REVOKE, NOTHING,
         "revokeDedupFile fails; prepare, create and destroy do not need it.", dedupRevoke, REVOKE},
        {"presence.record-bounds", "Requests and records", ALL & ~REVOKE,
         "callers whose records lie elsewhere in memory get errors or corrupted memory, at random.",
         recordBounds},
        {"presence.directories", REFUSALS, ALL, TRUSTS_CALLERS, directories},
        {"presence.unknown-requests", REFUSALS, ALL,
         "a later version of the interface cannot find out what the driver knows.",
         unknownRequests},
        {"presence.bad-descriptors", REFUSALS, SNAPSHOT, REFUSED_LATE, badDescriptors},
        {"presence.read-only-target", REFUSALS, SNAPSHOT, TRUSTS_CALLERS, readOnlyTarget},
        {"presence.bad-memory", REFUSALS, ALL, TRUSTS_CALLERS, badMemory},
    };
}

std::vector<Check> markChecks() {
    using namespace mark;
    return {
        {"mark.placed", SET, MARK, MARK_LOST, placed},
        {"mark.read-only-descriptor", SET, MARK, NO_CREATE, readOnlyDescriptor},
        {"mark.mode-0440", SET, MARK, NO_CREATE, mode0440},
        {"mark.record-kept", SET, MARK, "create fails, or marks the snapshot file with other bits.",
         recordKept},
        {"mark.kept-by-reads", GET, MARK, MARK_LOST, keptByReads},
        {"mark.kept-by-rename", GET, MARK, MARK_LOST, keptByRename},
        {"mark.kept-by-link", GET, MARK, MARK_LOST, keptByLink},
        {"mark.kept-by-sync", GET, MARK, MARK_LOST, keptBySync},
        {"mark.kept-by-dropped-caches", GET, MARK, MARK_LOST, keptByDroppedCaches},
        {"mark.per-inode", PROMISE, MARK, UNSEEN, perInode},
    };
}

std::vector<Check> raceChecks() {
    using namespace mark;
    return {
        {"mark.race-write", PROMISE, MARK, UNSEEN, raceWrite},
        {"mark.race-truncate", PROMISE, MARK, UNSEEN, raceTruncate},
        {"mark.race-mapped", PROMISE, MARK, UNSEEN, raceMapped},
    };
}

std::vector<Check> prepareChecks() {
    using namespace preparing;
    return {
        {"prepare.clone-data", CLONE_FILE, CLONE, WRONG_SNAPSHOT, cloneData},
        {"prepare.source-unchanged", SNAPSHOT_PREPARE, LAYER, SOURCE_DAMAGED, sourceUnchanged},
        {"prepare.write-between", SNAPSHOT_PREPARE, SNAPSHOT,
         "what a program writes while prepare runs is lost for good.", writeBetween},
        {"prepare.layered", GET_INFO, SNAPSHOT | INFO,
         "prepare skips a file whose snapshot is then refused: create fails until the file is "
         "deleted.",
         layered},
        {"prepare.stranger", SNAPSHOT_PREPARE, LAYER, SOURCE_DAMAGED, stranger},
        {"prepare.space", SNAPSHOT_PREPARE, LAYER,
         "each prepare takes space that nothing gives back, until the volume is full.", space},
        {"prepare.revoke", DEDUP_REVOKE, SNAPSHOT | INFO | REVOKE,
         "revokeDedupFile leaves files in a state that prepare misjudges, or damages them.",
         revoke},
    };
}

std::vector<Check> snapshotChecks() {
    using namespace snapshot;
    const char* const torn =
        "a snapshot of a file that is being written mixes two of its states: databases and photos "
        "in it are broken.";
    return {
        {"snapshot.sizes", SNAPSHOT_CREATE, SNAPSHOT, WRONG_SNAPSHOT, sizes},
        {"snapshot.sparse", SNAPSHOT_CREATE, SNAPSHOT, WRONG_SNAPSHOT, sparse},
        {"snapshot.over-4-gib", SNAPSHOT_CREATE, SNAPSHOT, WRONG_SNAPSHOT, over4GiB},
        {"snapshot.cached-data", SNAPSHOT_CREATE, SNAPSHOT, WRONG_SNAPSHOT, cachedData},
        {"snapshot.mapped-data", SNAPSHOT_CREATE, SNAPSHOT, WRONG_SNAPSHOT, mappedData},
        {"snapshot.preallocation", SNAPSHOT_CREATE, SNAPSHOT,
         "snapshots have the wrong size: cut short, or with zeros at the end.", preallocation},
        {"snapshot.source-later", SNAPSHOT_CREATE, SNAPSHOT,
         "snapshots change with their sources, so that they are none.", sourceLater},
        {"snapshot.snapshot-later", SNAPSHOT_CREATE, SNAPSHOT, SOURCE_DAMAGED, snapshotLater},
        {"snapshot.keeps-mark", PROMISE, SNAPSHOT | MARK, "every create ends with -11.", keepsMark},
        {"snapshot.again", SNAPSHOT_CREATE, SNAPSHOT, WRONG_SNAPSHOT, again},
        {"snapshot.of-snapshot", SNAPSHOT_CREATE, SNAPSHOT | INFO,
         "a directory that holds an older snapshot cannot be a source.", ofSnapshot},
        {"snapshot.one-instant", SNAPSHOT_CREATE, SNAPSHOT, torn, oneInstant},
        {"snapshot.one-size", SNAPSHOT_CREATE, SNAPSHOT, torn, oneSize},
        {"snapshot.one-instant-mapped", SNAPSHOT_CREATE, SNAPSHOT, torn, oneInstantMapped},
    };
}

std::vector<Check> otherChecks() {
    return {
        {"feature.encrypted", FEATURES, SNAPSHOT | MARK, WRONG_SNAPSHOT, feature::encrypted},
        {"feature.compressed", FEATURES, SNAPSHOT | MARK, WRONG_SNAPSHOT, feature::compressed},
        {"feature.casefolded", FEATURES, SNAPSHOT | MARK, WRONG_SNAPSHOT, feature::casefolded},
        {"feature.pinned", FEATURES, SNAPSHOT | MARK, SOURCE_DAMAGED, feature::pinned},
        {"feature.immutable", FEATURES, SNAPSHOT, SOURCE_DAMAGED, feature::immutable},
        {"feature.verity", FEATURES, SNAPSHOT, SOURCE_DAMAGED, feature::verity},
        {"feature.quota", FEATURES, SNAPSHOT,
         "users are charged for snapshots that are gone, until they can write no more.",
         feature::quota},
        {"file-system.tmpfile", FILE_SYSTEM, NOTHING, NO_PREPARE, file_system::tmpfile},
        {"file-system.entry-types", FILE_SYSTEM, NOTHING,
         "create fails with -22; prepare and the check passes leave files out.",
         file_system::entryTypes},
        {"file-system.mode-0440", FILE_SYSTEM, NOTHING, NO_CREATE, file_system::mode0440},
        {"cost.time", NOT_RELIED_ON, SNAPSHOT | MARK | INFO, NO_CREATE, cost::time},
        {"cost.space", NOT_RELIED_ON, SNAPSHOT, NO_CREATE, cost::space},
        {"persistence.before", REBOOT, SNAPSHOT | MARK, NO_CREATE, persistence::before, NOTHING,
         Stage::before},
        {"persistence.data", REBOOT, NOTHING, "snapshots or sources are gone after a reboot.",
         persistence::data, NOTHING, Stage::after},
        {"persistence.layered", REBOOT, SNAPSHOT | INFO,
         "after a reboot prepare skips a file whose snapshot is then refused.",
         persistence::layered, NOTHING, Stage::after},
        {"persistence.marks", REBOOT, MARK, UNSEEN, persistence::marks, NOTHING, Stage::after},
    };
}

}  // namespace

const std::vector<Check>& allChecks() {
    static const std::vector<Check> checks = [] {
        std::vector<Check> all;
        for (auto&& group : {presenceChecks(), markChecks(), lostByChecks(), raceChecks(),
                             prepareChecks(), snapshotChecks(), otherChecks()}) {
            all.insert(all.end(), group.begin(), group.end());
        }
        return all;
    }();
    return checks;
}

}  // namespace driver_check
