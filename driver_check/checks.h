// SPDX-License-Identifier: Apache-2.0
// The checks, one function each, in the files named after their groups. Each runs in a process of
// its own, with an empty directory as the working directory, and ends by returning (passed) or
// through failed() or skip(). checks.cpp says which clause each one stands for.
#pragma once

#include "driver_check/changes.h"
#include "driver_check/requests.h"

namespace driver_check {

namespace presence {
void getFileInfo();
void modifyCheck();
void cloneFile();
void snapshotPrepare();
void snapshotCreate();
void dedupRevoke();
void directories();
void unknownRequests();
void badDescriptors();
void readOnlyTarget();
void badMemory();
void recordBounds();
}  // namespace presence

namespace mark {
void placed();
void readOnlyDescriptor();
void mode0440();
void recordKept();
void keptByReads();
void keptByRename();
void keptByLink();
void keptBySync();
void keptByDroppedCaches();
void perInode();
void lostBy(const Way& way);
void raceWrite();
void raceTruncate();
void raceMapped();
}  // namespace mark

namespace preparing {
void cloneData();
void sourceUnchanged();
void writeBetween();
void layered();
void stranger();
void space();
void revoke();
}  // namespace preparing

namespace snapshot {
void sizes();
void sparse();
void over4GiB();
void cachedData();
void mappedData();
void preallocation();
void sourceLater();
void snapshotLater();
void keepsMark();
void again();
void ofSnapshot();
void oneInstant();
void oneSize();
void oneInstantMapped();
}  // namespace snapshot

namespace feature {
void encrypted();
void compressed();
void casefolded();
void pinned();
void immutable();
void verity();
void quota();
}  // namespace feature

namespace file_system {
void tmpfile();
void entryTypes();
void mode0440();
}  // namespace file_system

namespace persistence {
void before();
void data();
void layered();
void marks();
}  // namespace persistence

namespace cost {
void time();
void space();
}  // namespace cost

}  // namespace driver_check
