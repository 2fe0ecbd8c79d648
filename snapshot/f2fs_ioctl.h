// SPDX-License-Identifier: Apache-2.0
// The driver's snapshot interface: six ioctl requests on files of an F2FS volume.
//
// Records have native byte order and no padding, and are the same for 32-bit and 64-bit callers.
// The comments say what the library relies on; docs/kernel-interface.md is the whole contract.
// A request returns 0 on success. Any other result is a failure, normally -1 with errno set.
#pragma once

#include <stdint.h>
#include <sys/ioctl.h>

#include <cstddef>

#include "export.h"

// Out argument of F2FS_IOC_DEDUP_GET_FILE_INFO. The caller zeroes it before the call.
struct dedup_file_info {
    int16_t is_deduped;  // nonzero: the file is deduplicated
    int16_t is_layered;  // nonzero: the file is prepared, a snapshot of it can be made
    uint32_t reserved;   // never read
};

// In and out argument of F2FS_IOC_MODIFY_CHECK.
struct modify_check_info {
    uint32_t flag;  // set: the file's new bits; get: sent as 0, returned as the file's bits
    uint32_t mode;  // MODIFY_CHECK_SET or MODIFY_CHECK_GET
};

// In argument of F2FS_IOC_CLONE_FILE.
struct clone_file_info {
    int32_t source_fd;  // open descriptor of the file whose data is cloned
    uint32_t flags;     // CLONE_FLAGS
};

// In argument of F2FS_IOC_SNAPSHOT_CREATE.
struct snapshot_create_info {
    int32_t source_fd;  // open descriptor of the file to snapshot
    uint32_t flags;     // 0
};

constexpr uint32_t MODIFY_CHECK_SET = 4;
constexpr uint32_t MODIFY_CHECK_GET = 8;

// A set stores MODIFY_CHECK_FLAG. UNCHANGED is the modification mark: the kernel clears it when the
// file's data or size changes. A get that returns it proves that nothing changed since the set.
constexpr uint32_t MODIFY_CHECK_FLAG = 0x82;
constexpr uint32_t MODIFY_CHECK_UNCHANGED = 0x2;

constexpr uint32_t CLONE_FLAGS = 0x160;

// clang-format off
#define F2FS_IOC_MAGIC 0xF5
//      request                                               number  argument                       issued on; effect
#define F2FS_IOC_DEDUP_REVOKE        _IOW(F2FS_IOC_MAGIC,       0x66, uint32_t)                   // any file; clears its deduplicated and layered state (word: 0)
#define F2FS_IOC_DEDUP_GET_FILE_INFO _IOR(F2FS_IOC_MAGIC,       0x67, struct dedup_file_info)     // source; returns its state
#define F2FS_IOC_CLONE_FILE          _IOW(F2FS_IOC_MAGIC,       0x69, struct clone_file_info)     // unnamed temporary file; receives the source's data
#define F2FS_IOC_MODIFY_CHECK        _IOWR(F2FS_IOC_MAGIC,      0x6A, struct modify_check_info)   // source or snapshot file; sets or gets its bits
#define F2FS_IOC_SNAPSHOT_CREATE     _IOW(F2FS_IOC_MAGIC,       0x6C, struct snapshot_create_info) // snapshot file; becomes a snapshot of the source
#define F2FS_IOC_SNAPSHOT_PREPARE    _IOW(F2FS_IOC_MAGIC,       0x6D, int32_t)                    // source; becomes layered over the clone (word: its descriptor)
// clang-format on

static_assert(F2FS_IOC_DEDUP_REVOKE == 0x4004F566);
static_assert(F2FS_IOC_DEDUP_GET_FILE_INFO == 0x8008F567);
static_assert(F2FS_IOC_CLONE_FILE == 0x4008F569);
static_assert(F2FS_IOC_MODIFY_CHECK == 0xC008F56A);
static_assert(F2FS_IOC_SNAPSHOT_CREATE == 0x4008F56C);
static_assert(F2FS_IOC_SNAPSHOT_PREPARE == 0x4004F56D);

static_assert(sizeof(dedup_file_info) == 8 && offsetof(dedup_file_info, is_deduped) == 0 &&
              offsetof(dedup_file_info, is_layered) == 2 &&
              offsetof(dedup_file_info, reserved) == 4);
static_assert(sizeof(modify_check_info) == 8 && offsetof(modify_check_info, flag) == 0 &&
              offsetof(modify_check_info, mode) == 4);
static_assert(sizeof(clone_file_info) == 8 && offsetof(clone_file_info, source_fd) == 0 &&
              offsetof(clone_file_info, flags) == 4);
static_assert(sizeof(snapshot_create_info) == 8 && offsetof(snapshot_create_info, source_fd) == 0 &&
              offsetof(snapshot_create_info, flags) == 4);

// Asks the driver to end a file's deduplicated and layered state (F2FS_IOC_DEDUP_REVOKE). What that
// means for shared blocks is the driver's affair. For clients: no operation of the library calls
// it.
//
// file_handle  open descriptor of the file; stays open
//
// Returns the request's result: 0 on success, normally -1 on failure (the log may have overwritten
// errno). Returns -1 without a request if file_handle is negative.
extern "C" F2FS_SNAPSHOT_EXPORT int32_t revokeDedupFile(int32_t file_handle);
