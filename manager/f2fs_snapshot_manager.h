/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Named snapshots of directory trees, kept in a store: the C interface of
 * libf2fs_snapshot_manager.so. It compiles as C11 and as C++17.
 *
 * A store is a directory that only its owner can enter. Each snapshot in it has a name. A snapshot
 * gets its name when it is complete: one that is being made, or was interrupted, has none.
 *
 * Results. Every function that can fail returns an f2fs_snapshot_code, 0 on success. If `error` is
 * not NULL, a failure fills it in; a success leaves it alone. Out parameters are written on success
 * only. errno is not part of the contract. No C++ exception leaves the library.
 *
 * Structures. The first member of each options and error structure is its size. The caller sets it
 * to sizeof the structure that it was compiled with, and clears the rest: a zero member means the
 * default. Use the INIT macros. Members that a newer header adds are taken as zero for older
 * callers. Structures that the library returns have a size as well: a member beyond it is missing.
 *
 * Strings are NUL-terminated bytes. Paths are not interpreted as text: any name that the file
 * system allows comes through unchanged. Messages are English sentences in UTF-8, with unprintable
 * bytes of paths escaped as in C.
 *
 * Ownership. An object returned through an out parameter belongs to the caller, who frees it with
 * the _free or _close function of its type. It stays valid when the store is closed.
 *
 * Threads. Functions can be called from several threads at the same time, also on one store.
 * Callbacks come on the thread of the call that they were given to, and only during it. A callback
 * must not leave by an exception or a jump. It may call functions of this interface, but no call
 * for the store or sources that its own call has locked succeeds.
 *
 * Processes. f2fs_snapshot_create starts one helper program per attempt and waits for it; it
 * neither changes the handling of signals nor waits for other children. The kernel kills the helper
 * when the calling thread ends.
 */
#ifndef F2FS_SNAPSHOT_MANAGER_H
#define F2FS_SNAPSHOT_MANAGER_H

#include <stddef.h>
#include <stdint.h>

#define F2FS_SNAPSHOT_MANAGER_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif
/* NOLINTBEGIN(modernize-use-using): C has typedef only */

/* Results. The numbers never change. */
typedef enum f2fs_snapshot_code {
    F2FS_SNAPSHOT_OK = 0,
    F2FS_SNAPSHOT_ERROR_ARGUMENT = 1,     /* a parameter that no call could accept */
    F2FS_SNAPSHOT_ERROR_SYSTEM = 2,       /* a system call failed with os_error */
    F2FS_SNAPSHOT_ERROR_STORE = 3,        /* the directory cannot serve as a store */
    F2FS_SNAPSHOT_ERROR_SOURCE = 4,       /* a source cannot be snapshotted into this store */
    F2FS_SNAPSHOT_ERROR_NAME = 5,         /* a name that no snapshot can have */
    F2FS_SNAPSHOT_ERROR_EXISTS = 6,       /* a snapshot or file of that name is there already */
    F2FS_SNAPSHOT_ERROR_NOT_FOUND = 7,    /* no snapshot of that name */
    F2FS_SNAPSHOT_ERROR_BUSY = 8,         /* another call holds the store, a source or a snapshot */
    F2FS_SNAPSHOT_ERROR_CANCELLED = 9,    /* the cancel callback ended the call */
    F2FS_SNAPSHOT_ERROR_TIMEOUT = 10,     /* the time limit has passed */
    F2FS_SNAPSHOT_ERROR_LIBRARY = 11,     /* the snapshot library failed or died */
    F2FS_SNAPSHOT_ERROR_NOT_WHOLE = 12,   /* strict only: see f2fs_snapshot_create */
    F2FS_SNAPSHOT_ERROR_FORMAT = 13,      /* a damaged snapshot, or one of an unknown format */
    F2FS_SNAPSHOT_ERROR_UNSUPPORTED = 14, /* the volume has no driver for snapshots */
    F2FS_SNAPSHOT_ERROR_MEMORY = 15,      /* memory exhausted */
    F2FS_SNAPSHOT_ERROR_INTERNAL = 16     /* anything else: a defect */
} f2fs_snapshot_code;

/* A failure. The caller owns it; there is nothing to free. Longer texts are cut. */
typedef struct f2fs_snapshot_error {
    size_t size;
    int32_t code;       /* an f2fs_snapshot_code */
    int32_t os_error;   /* an errno value, or 0 */
    char path[4096];    /* the path that could not be handled, or "" */
    char message[1024]; /* one sentence: what failed, why, and what to do */
} f2fs_snapshot_error;
#define F2FS_SNAPSHOT_ERROR_INIT \
    { sizeof(f2fs_snapshot_error), 0, 0, "", "" }

/* What a call is doing. */
typedef enum f2fs_snapshot_phase {
    F2FS_SNAPSHOT_PHASE_LIST = 1,    /* listing the sources, before and after */
    F2FS_SNAPSHOT_PHASE_CREATE = 2,  /* files are snapshotted */
    F2FS_SNAPSHOT_PHASE_CHECK = 3,   /* a pass looks for files that changed meanwhile */
    F2FS_SNAPSHOT_PHASE_RECORD = 4,  /* the manifest is written */
    F2FS_SNAPSHOT_PHASE_SYNC = 5,    /* what was made is written to the disk */
    F2FS_SNAPSHOT_PHASE_VERIFY = 6,  /* a snapshot is compared with its manifest */
    F2FS_SNAPSHOT_PHASE_RESTORE = 7, /* files are copied out */
    F2FS_SNAPSHOT_PHASE_REMOVE = 8   /* a snapshot, or the rest of a failed call, is removed */
} f2fs_snapshot_phase;

typedef struct f2fs_snapshot_progress {
    size_t size;
    int32_t phase;        /* an f2fs_snapshot_phase */
    uint32_t attempt;     /* from 1 */
    uint32_t pass;        /* check pass from 1, 0 before the first */
    uint64_t files_done;  /* regular files of this phase; in later passes, of this pass */
    uint64_t files_total; /* 0 while unknown */
    uint64_t files_again; /* how often a file was snapshotted again so far in this attempt */
} f2fs_snapshot_progress;

/* Each member may be NULL. `context` is passed to all of them. */
typedef struct f2fs_snapshot_callbacks {
    size_t size;
    void* context;
    /* At each change of phase or pass, and in between about every tenth of a second. */
    void (*progress)(void* context, const f2fs_snapshot_progress* progress);
    /* Each log line of the snapshot library, several per file, with its Android priority (4:
     * information, 6: error). Never called where the lines cannot be captured (Android before API
     * 30). */
    void (*log)(void* context, int32_t priority, const char* line);
    /* Asked about every tenth of a second, and before each step that cannot be undone. A result
     * other than 0 ends the call with F2FS_SNAPSHOT_ERROR_CANCELLED and leaves nothing behind. */
    int (*cancel)(void* context);
} f2fs_snapshot_callbacks;
#define F2FS_SNAPSHOT_CALLBACKS_INIT \
    { sizeof(f2fs_snapshot_callbacks), NULL, NULL, NULL, NULL }

/* How much a finding matters. */
typedef enum f2fs_snapshot_severity {
    F2FS_SNAPSHOT_FAILS = 1,     /* the call fails, or the snapshot is not what it should be */
    F2FS_SNAPSHOT_UNCOVERED = 2, /* the call can succeed, but does not promise this path */
    F2FS_SNAPSHOT_NOTE = 3       /* worth knowing */
} f2fs_snapshot_severity;

/* Kinds of findings. The numbers never change. */
typedef enum f2fs_snapshot_finding_kind {
    /* f2fs_snapshot_check, and what f2fs_snapshot_create refuses or names as not covered */
    F2FS_SNAPSHOT_FOUND_NO_DRIVER = 1,        /* the volume has no snapshot requests */
    F2FS_SNAPSHOT_FOUND_ENTRY_TYPE = 2,       /* not a directory, regular file or link */
    F2FS_SNAPSHOT_FOUND_FILE_SIZE = 3,        /* 2 to 4 GiB, 6 to 8 GiB, and so on */
    F2FS_SNAPSHOT_FOUND_FILE_ACCESS = 4,      /* the file cannot be opened to read and write */
    F2FS_SNAPSHOT_FOUND_DIRECTORY_ACCESS = 5, /* cannot be read, searched and written */
    F2FS_SNAPSHOT_FOUND_PATH_LENGTH = 6,      /* the path in the snapshot would be too long */
    F2FS_SNAPSHOT_FOUND_DEPTH = 7,            /* too few descriptors for so deep a tree */
    F2FS_SNAPSHOT_FOUND_HARD_LINK = 8,        /* not covered against its other names */
    F2FS_SNAPSHOT_FOUND_MOUNT = 9,            /* a file system is mounted below a source */
    F2FS_SNAPSHOT_FOUND_OTHER_VOLUME = 10,    /* not on the store's volume */
    F2FS_SNAPSHOT_FOUND_SEMICOLON = 11,       /* the tool f2fs_snapshot cannot take this source */
    /* f2fs_snapshot_create: what changed while it worked */
    F2FS_SNAPSHOT_FOUND_APPEARED = 20,             /* a new name */
    F2FS_SNAPSHOT_FOUND_VANISHED = 21,             /* a name that is gone */
    F2FS_SNAPSHOT_FOUND_REPLACED = 22,             /* the name of another file, directory or link */
    F2FS_SNAPSHOT_FOUND_DIRECTORY_CHANGED = 23,    /* its names or attributes changed meanwhile */
    F2FS_SNAPSHOT_FOUND_DIRECTORY_UNREADABLE = 24, /* a check pass could not read all of it */
    F2FS_SNAPSHOT_FOUND_NOT_TAKEN = 25,            /* the snapshot differs from both listings */
    /* f2fs_snapshot_verify: how a snapshot differs from its manifest */
    F2FS_SNAPSHOT_FOUND_MISSING = 40,
    F2FS_SNAPSHOT_FOUND_UNEXPECTED = 41,
    F2FS_SNAPSHOT_FOUND_TYPE_DIFFERS = 42,
    F2FS_SNAPSHOT_FOUND_SIZE_DIFFERS = 43,
    F2FS_SNAPSHOT_FOUND_LINK_DIFFERS = 44,
    F2FS_SNAPSHOT_FOUND_DIGEST_DIFFERS = 45,
    F2FS_SNAPSHOT_FOUND_UNREADABLE = 46,
    /* f2fs_snapshot_restore, which reports the kinds above as well: what could not be set on a
     * restored path, and what is in its way */
    F2FS_SNAPSHOT_FOUND_OWNER_NOT_SET = 60, /* nor are the set-user-ID and set-group-ID modes */
    F2FS_SNAPSHOT_FOUND_ATTRIBUTE_NOT_SET = 61,
    F2FS_SNAPSHOT_FOUND_LINK_NOT_SET = 62, /* names of one file hold different contents */
    F2FS_SNAPSHOT_FOUND_IN_THE_WAY = 63    /* dry_run with overwrite only */
} f2fs_snapshot_finding_kind;

typedef struct f2fs_snapshot_finding {
    const char* path;    /* absolute; a path in a snapshot is given as that of its source */
    int32_t kind;        /* an f2fs_snapshot_finding_kind */
    int32_t severity;    /* an f2fs_snapshot_severity */
    int32_t os_error;    /* an errno value, or 0 */
    const char* message; /* one sentence that includes the path */
} f2fs_snapshot_finding;

/* Findings in the order of their paths ('/' before all other bytes), and the entries that the call
 * counted. Attributes that a restore cannot set on directories come last. */
typedef struct f2fs_snapshot_report {
    size_t size;
    const f2fs_snapshot_finding* findings;
    size_t finding_count;
    size_t finding_size; /* bytes from one finding to the next */
    uint64_t files;
    uint64_t directories;
    uint64_t links;
    uint64_t bytes; /* sizes of the files */
} f2fs_snapshot_report;
F2FS_SNAPSHOT_MANAGER_API void f2fs_snapshot_report_free(f2fs_snapshot_report* report);

/* A snapshot. Times are nanoseconds since 1970-01-01 UTC. */
typedef struct f2fs_snapshot_info {
    size_t size;
    const char* name;
    const char* path;           /* the directory that holds the trees: source S is at path + S */
    const char* const* sources; /* without links, in the order of their paths */
    size_t source_count;
    int64_t created; /* when the call began */
    /* The instant whose contents the snapshot holds lies between these two. */
    int64_t instant_earliest;
    int64_t instant_latest;
    uint64_t files;
    uint64_t directories;
    uint64_t links;
    uint64_t bytes;       /* sizes of the files */
    uint32_t attempts;    /* how often the library was called */
    uint32_t passes;      /* check passes of the last attempt; 0: not known */
    uint64_t files_again; /* how often a file was snapshotted again in it */
    /* 1: the snapshot holds the whole trees as of one instant: names, types, links and contents.
     * Only files that `findings` names as hard links are not covered against each other.
     * 0: `findings` names what changed. Contents of files that kept their name are still of one
     * instant. */
    int32_t whole;
    int32_t links_blocked; /* 1: the library was kept from following symbolic links */
    int32_t has_digests;   /* 1: the manifest holds SHA-256 digests */
    const f2fs_snapshot_finding* findings;
    size_t finding_count;
    size_t finding_size; /* bytes from one finding to the next */
    int32_t temporary;   /* as given to f2fs_snapshot_create */
} f2fs_snapshot_info;
F2FS_SNAPSHOT_MANAGER_API void f2fs_snapshot_info_free(f2fs_snapshot_info* info);

/* The version of the library that is linked, like "1.0.0". Static. */
F2FS_SNAPSHOT_MANAGER_API const char* f2fs_snapshot_manager_version(void);

/* --- Store --- */

typedef struct f2fs_snapshot_store f2fs_snapshot_store;

#define F2FS_SNAPSHOT_STORE_CREATE 1u /* make the directory (0700) if its parent has none */

/*
 * Opens the store in the directory `path`, absolute or relative. It must belong to the effective
 * user and deny all permissions to group and others. Keep it where nobody else can rename the
 * directories above it.
 *
 * flags  F2FS_SNAPSHOT_STORE_CREATE or 0
 *
 * Errors: ARGUMENT (empty path), STORE (not a directory, or not safe as above), SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_store_open(const char* path, uint32_t flags,
                                                           f2fs_snapshot_store** store,
                                                           f2fs_snapshot_error* error);
/* `store` may be NULL. No other call may be using it. */
F2FS_SNAPSHOT_MANAGER_API void f2fs_snapshot_store_close(f2fs_snapshot_store* store);
/* The store's path, absolute and without links. Valid until the store is closed. */
F2FS_SNAPSHOT_MANAGER_API const char* f2fs_snapshot_store_path(const f2fs_snapshot_store* store);

/* --- Check --- */

typedef struct f2fs_snapshot_check_options {
    size_t size;
    const f2fs_snapshot_callbacks* callbacks; /* progress and cancel */
    const char* name; /* that the snapshot shall get; NULL: the time, as for create */
} f2fs_snapshot_check_options;
#define F2FS_SNAPSHOT_CHECK_OPTIONS_INIT \
    { sizeof(f2fs_snapshot_check_options), NULL, NULL }

/*
 * Reports each path below the sources that would make f2fs_snapshot_create fail (severity FAILS)
 * or that it would not cover (UNCOVERED). Changes nothing: files are opened for reading and
 * writing, as create has to do, and closed again.
 *
 * A tree without a finding of severity FAILS can be snapshotted, as long as it does not change and
 * neither space nor descriptors run out.
 *
 * options  may be NULL
 * report   f2fs_snapshot_report_free
 *
 * Errors: as f2fs_snapshot_create for names, and for sources that it refuses as a whole; CANCELLED,
 * SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_check(f2fs_snapshot_store* store,
                                                      const char* const* sources,
                                                      size_t source_count,
                                                      const f2fs_snapshot_check_options* options,
                                                      f2fs_snapshot_report** report,
                                                      f2fs_snapshot_error* error);

/* --- Create --- */

typedef struct f2fs_snapshot_create_options {
    size_t size;
    const f2fs_snapshot_callbacks* callbacks;
    const char* name;    /* NULL: the time in UTC, like 2026-01-31T23-59-59.123Z */
    int32_t strict;      /* 1: fail unless the snapshot is whole and no file has two names */
    int32_t digests;     /* 1: put SHA-256 digests of the files into the manifest */
    uint32_t attempts;   /* at most; 0: 3 */
    uint32_t time_limit; /* seconds for one call of the library; 0: 3600 */
    const char* helper;  /* path of f2fs_snapshot_helper; NULL: as installed with this library */
    int32_t temporary;   /* 1: the caller destroys it soon; prune neither counts nor removes it */
} f2fs_snapshot_create_options;
#define F2FS_SNAPSHOT_CREATE_OPTIONS_INIT \
    { sizeof(f2fs_snapshot_create_options), NULL, NULL, 0, 0, 0, 0, NULL, 0 }

/*
 * Adds a snapshot of the source trees to the store.
 *
 * The trees are listed, snapshotted by the library, and listed again. If anything differs, all of
 * this is repeated, up to `attempts` times in all. If something still differs, the snapshot is kept
 * with info->whole = 0 and the changes as findings; with `strict` the call fails instead.
 *
 * sources  directories by absolute paths, at least one. Links in them are resolved first. None may
 *          be given twice, lie below another, contain the store or lie in it, have a file system
 *          mounted below it, or be on another volume than the store. Store, name and source
 *          together are limited to 254 bytes less 19: STORE/.NAME.partial/snapshot/SOURCE
 * options  may be NULL. A name has 1 to 100 bytes, no "/" and no control characters, and does not
 *          begin with a dot
 * info     may be NULL; f2fs_snapshot_info_free
 *
 * A failure or cancel removes what was made, and no older snapshot is touched. If the process is
 * killed, what it made has no name, and the next call that changes the store removes it. When the
 * call returns 0, the snapshot is on the disk.
 *
 * A failure of the library leaves the last lines of its log in the store's file .NAME.log, which
 * the next successful create removes; the error's message names it.
 *
 * Errors: ARGUMENT (also a relative source), NAME, EXISTS, SOURCE, BUSY, UNSUPPORTED, CANCELLED,
 * TIMEOUT, LIBRARY, NOT_WHOLE, SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_create(f2fs_snapshot_store* store,
                                                       const char* const* sources,
                                                       size_t source_count,
                                                       const f2fs_snapshot_create_options* options,
                                                       f2fs_snapshot_info** info,
                                                       f2fs_snapshot_error* error);

/* --- List and show --- */

/* One line of a listing: a snapshot, or the reason why its directory cannot be used as one. */
typedef struct f2fs_snapshot_list_entry {
    const char* name;
    const f2fs_snapshot_info* info; /* NULL: damaged or of an unknown format */
    f2fs_snapshot_error error;      /* if info is NULL */
} f2fs_snapshot_list_entry;

typedef struct f2fs_snapshot_list {
    size_t size;
    const f2fs_snapshot_list_entry* entries; /* oldest first; damaged ones at the end, by name */
    size_t entry_count;
    size_t entry_size; /* bytes from one entry to the next */
} f2fs_snapshot_list;
F2FS_SNAPSHOT_MANAGER_API void f2fs_snapshot_list_free(f2fs_snapshot_list* list);

/*
 * Lists the store's snapshots. Takes no lock: a snapshot that is made or destroyed meanwhile may be
 * in the list or not.
 *
 * snapshots  f2fs_snapshot_list_free
 *
 * Errors: SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_list_all(f2fs_snapshot_store* store,
                                                         f2fs_snapshot_list** snapshots,
                                                         f2fs_snapshot_error* error);

/*
 * Describes one snapshot.
 *
 * info  f2fs_snapshot_info_free
 *
 * Errors: NAME, NOT_FOUND, FORMAT, SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_show(f2fs_snapshot_store* store, const char* name,
                                                     f2fs_snapshot_info** info,
                                                     f2fs_snapshot_error* error);

/* Bytes on the disk of the snapshot's files, as the file system accounts them: blocks shared with
 * other files count in full. Errors: as f2fs_snapshot_show. */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_disk_usage(f2fs_snapshot_store* store,
                                                           const char* name, uint64_t* bytes,
                                                           f2fs_snapshot_error* error);

/* --- Hold --- */

typedef struct f2fs_snapshot_hold f2fs_snapshot_hold;

/*
 * Keeps a snapshot from being destroyed while the caller reads it: until the hold is released or
 * the process ends. Programs that the process executes do not inherit it.
 *
 * Errors: NAME, NOT_FOUND, FORMAT, BUSY (it is being destroyed), SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_hold_take(f2fs_snapshot_store* store,
                                                          const char* name,
                                                          f2fs_snapshot_hold** hold,
                                                          f2fs_snapshot_error* error);
/* Takes NULL too. The store may be closed before. */
F2FS_SNAPSHOT_MANAGER_API void f2fs_snapshot_hold_release(f2fs_snapshot_hold* hold);

/* --- Verify --- */

typedef struct f2fs_snapshot_verify_options {
    size_t size;
    const f2fs_snapshot_callbacks* callbacks; /* progress and cancel */
} f2fs_snapshot_verify_options;
#define F2FS_SNAPSHOT_VERIFY_OPTIONS_INIT \
    { sizeof(f2fs_snapshot_verify_options), NULL }

/*
 * Compares a snapshot with its manifest: names, types, link texts, sizes, and contents if the
 * manifest has digests. The snapshot cannot be destroyed meanwhile.
 *
 * options  may be NULL
 * report   each difference; no finding: intact. f2fs_snapshot_report_free
 *
 * Errors: NAME, NOT_FOUND, FORMAT, BUSY (it is being destroyed), CANCELLED, SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_verify(f2fs_snapshot_store* store, const char* name,
                                                       const f2fs_snapshot_verify_options* options,
                                                       f2fs_snapshot_report** report,
                                                       f2fs_snapshot_error* error);

/* --- Restore --- */

typedef struct f2fs_snapshot_restore_options {
    size_t size;
    const f2fs_snapshot_callbacks* callbacks; /* progress and cancel */
    const char* const* paths; /* absolute source paths to restore; NULL: everything */
    size_t path_count;
    int32_t overwrite; /* 1: the destination may hold files; see below */
    int32_t dry_run;   /* 1: change nothing; report what is in the way, and the counts */
} f2fs_snapshot_restore_options;
#define F2FS_SNAPSHOT_RESTORE_OPTIONS_INIT \
    { sizeof(f2fs_snapshot_restore_options), NULL, NULL, 0, 0, 0 }

/*
 * Copies a snapshot's trees into a directory, source S to destination + S, with modes, owners,
 * times, extended attributes, links and hard links as the manifest has them. Blocks of zeros become
 * holes. Directories above the trees get mode 0700. Follows no link below the destination, not even
 * one put there meanwhile. The snapshot cannot be destroyed meanwhile.
 *
 * Entries that the snapshot lacks, or that differ from the manifest, do not end the call: the rest
 * is restored. The report names them with severity FAILS and does not count them.
 *
 * Without `overwrite`, the destination must be empty or missing. The trees are made in its
 * subdirectory .f2fs_snapshot_restore.partial and appear under their names when they are complete
 * and on the disk. A failure or cancel removes all that was made. If the process is killed, that
 * subdirectory stays. The next restore into this destination removes it. If some trees have
 * appeared already, that restore needs `overwrite`.
 *
 * With `overwrite`, directories that exist are used, and files and links that exist are replaced,
 * each in one step; nothing else is removed. An entry of another type in the way is ERROR_EXISTS,
 * found before anything is changed. A failure or cancel leaves what was restored before it; no file
 * is left half written under its name.
 *
 * destination  made (0700) if missing; its parent must exist. Not in the store
 * options      may be NULL
 * report       may be NULL; what could not be restored, and counts of the rest.
 * f2fs_snapshot_report_free
 *
 * Errors: ARGUMENT, NAME, NOT_FOUND (the snapshot, or one of the paths in it), FORMAT, EXISTS,
 * BUSY, CANCELLED, SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t
f2fs_snapshot_restore(f2fs_snapshot_store* store, const char* name, const char* destination,
                      const f2fs_snapshot_restore_options* options, f2fs_snapshot_report** report,
                      f2fs_snapshot_error* error);

/* --- Destroy and prune --- */

typedef struct f2fs_snapshot_destroy_options {
    size_t size;
    const f2fs_snapshot_callbacks* callbacks; /* progress; cancel until the removal begins */
} f2fs_snapshot_destroy_options;
#define F2FS_SNAPSHOT_DESTROY_OPTIONS_INIT \
    { sizeof(f2fs_snapshot_destroy_options), NULL }

/*
 * Removes a snapshot: its name first, then the data. If the process is killed, the next call that
 * changes the store removes the rest. Follows no link. A damaged snapshot, or one of an unknown
 * format, can be destroyed too.
 *
 * options  may be NULL
 *
 * Errors: NAME, NOT_FOUND, BUSY (the store, or the snapshot is being verified, restored or held),
 * CANCELLED, SYSTEM.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t
f2fs_snapshot_destroy(f2fs_snapshot_store* store, const char* name,
                      const f2fs_snapshot_destroy_options* options, f2fs_snapshot_error* error);

/*
 * Which snapshots to keep. Each rule keeps the newest snapshot of each of the newest N hours,
 * days, ISO weeks, months or years that have one, in local time. Each rule counts separately. A
 * rule that finds fewer than N also keeps the oldest snapshot. A snapshot that no rule keeps is
 * removed, except the newest whole one. At least one rule must be given.
 */
typedef struct f2fs_snapshot_prune_options {
    size_t size;
    const f2fs_snapshot_callbacks* callbacks;
    uint32_t keep_last; /* the newest N */
    uint32_t keep_hourly;
    uint32_t keep_daily;
    uint32_t keep_weekly;
    uint32_t keep_monthly;
    uint32_t keep_yearly;
    uint64_t keep_within; /* all that are less than this many seconds older than the newest */
    int32_t dry_run;      /* 1: change nothing; report what would be removed */
} f2fs_snapshot_prune_options;
#define F2FS_SNAPSHOT_PRUNE_OPTIONS_INIT \
    { sizeof(f2fs_snapshot_prune_options), NULL, 0, 0, 0, 0, 0, 0, 0, 0 }

typedef struct f2fs_snapshot_prune_entry {
    const char* name;
    int32_t kept;        /* 1: kept; 0: removed, or would be */
    const char* reasons; /* the rules that keep it, like "last, daily"; "" if none */
} f2fs_snapshot_prune_entry;

typedef struct f2fs_snapshot_prune_result {
    size_t size;
    const f2fs_snapshot_prune_entry* entries; /* newest first */
    size_t entry_count;
    size_t entry_size; /* bytes from one entry to the next */
} f2fs_snapshot_prune_result;
F2FS_SNAPSHOT_MANAGER_API void f2fs_snapshot_prune_result_free(f2fs_snapshot_prune_result* result);

/*
 * Removes the snapshots that no rule keeps, the oldest first. Damaged and temporary ones are
 * neither counted nor removed. One that is being verified, restored or held stays, for
 * the reason "in use".
 *
 * result  may be NULL; f2fs_snapshot_prune_result_free
 *
 * Errors: ARGUMENT (no rule), BUSY, CANCELLED, SYSTEM. Snapshots removed before a failure stay
 * removed.
 */
F2FS_SNAPSHOT_MANAGER_API int32_t f2fs_snapshot_prune(f2fs_snapshot_store* store,
                                                      const f2fs_snapshot_prune_options* options,
                                                      f2fs_snapshot_prune_result** result,
                                                      f2fs_snapshot_error* error);

/* NOLINTEND(modernize-use-using) */
#ifdef __cplusplus
}
#endif

#endif /* F2FS_SNAPSHOT_MANAGER_H */
