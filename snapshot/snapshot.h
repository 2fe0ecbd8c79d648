// SPDX-License-Identifier: Apache-2.0
// Snapshots of directory trees on F2FS, each as of one instant: the engine's operations.
//
// Results. Every operation returns 0 on success. Any other value, positive or negative, is a
// failure, logged where it happened under the tag "f2fs_snapshot_native":
//     -1   a path holds a "/../" step, or a system call or request failed (its own -1, passed on)
//     -2   a file, a directory stream or a temporary file could not be opened
//     -11  files kept changing until the check passes were used up
//     -22  a source tree holds an entry that is not a directory, regular file or symbolic link, or
//          its file system does not report the types of entries
//     other values: the result of a request that was neither 0 nor -1, passed on unchanged
// errno is not part of the contract. A walk ends at the first failure that it meets and undoes
// nothing, except where an operation says otherwise. No exception leaves the library: memory
// exhaustion ends the process.
//
// Paths are byte strings, normally absolute. They are used as given: nothing is normalised, and a
// child's path is always parent + "/" + name.
//
// Descriptors 0 to 2 must be open. A source file that is opened as descriptor 2 receives whatever
// the process writes to standard error, and on a development machine that is the log.
//
// Threads. Calls share nothing and start no thread. Every descriptor and directory stream is
// closed before a call returns. Two calls on one target, or on one source, at the same time disturb
// each other: keep them apart.
//
// Privileges. The caller needs read and write permission on every source file; read and search
// permission on every source directory, and write permission too where files are to be prepared
// (for the unnamed temporary ones); write permission on the target, or on the directory that the
// target is to be made in.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "export.h"

// One file to snapshot again.
struct file_info {
    std::string srcdirpath;  // source directory that holds it
    std::string filename;    // its name in that directory
};

// Prepares every regular file of the source trees, so that CreateDirSnapshot has less to do. Each
// file that is not layered yet is marked, its data cloned into a temporary file beside it, and the
// file layered over that clone. Layered files are left alone. Links and other entries are skipped.
//
// dirpath  source directories, prepared in order; an empty list is a success
//
// Returns 0, -1 (also for a "/../" path; the sources before it have been prepared), -2, or a
// failed request's result. A positive result of a request ends only the walk of its own directory;
// it is returned if nothing is prepared after it. Files prepared before a failure stay prepared.
F2FS_SNAPSHOT_EXPORT int32_t PreCreateDirSnapshot(const std::vector<std::string>& dirpath);

// Prepares one directory tree. A file's nonzero result stops the walk, a subdirectory's only when
// it is negative.
//
// Returns 0, -1, -2, or a failed request's result.
F2FS_SNAPSHOT_EXPORT int32_t PreCreateSingleDirSnapshot(std::string dirpath);

// Prepares the file srcdirpath + "/" + filename, unless the kernel reports it as layered already.
//
// Returns 0, -2 if the file or the temporary file in srcdirpath cannot be opened, or a failed
// request's result. After a failure the file's modification mark may be set.
F2FS_SNAPSHOT_EXPORT int32_t PreCreateSingleFileSnapshot(std::string srcdirpath,
                                                         std::string filename);

// Makes the snapshot root dstpath + "/snapshot" and mirrors every source directory S below it, at
// dstpath + "/snapshot" + S: directories with mode 0770, files as kernel snapshots with mode 0440
// (both less the umask), symbolic links with their text. An existing snapshot root is removed
// FIRST: use a new target for each snapshot, and destroy the old one after the new one succeeded.
//
// Then at most eleven check passes look for files that changed meanwhile and snapshot them again,
// until a pass finds none. On success the snapshot holds every file that existed throughout with
// its content as of one instant, the start of that last pass. docs/consistency.md states the limits
// (hard links, renames, a directory that the pass could not read, ...).
//
// dirpath  source directories: absolute, none of them given twice or below another. An empty list
//          is a success that touches nothing
// dstpath  target directory, absolute; made if missing, and kept after a failure. An empty path
//          means the snapshot root "/snapshot". The process is aborted unless dstpath +
//          "/snapshot" + source is shorter than 255 bytes for every source
//
// Returns 0; -1 for a "/../" path; -1 or -2 if the snapshot root cannot be removed or made; -1,
// -2, -22 or a failed request's result from the first creation or a re-creation; -11 if the
// eleventh pass still found changes.
// A failure after the first mirror directory was made removes the snapshot root again (a failed
// removal is logged). One failure leaves what was made: a source's own mirror directory, dstpath +
// "/snapshot" + S, cannot be made. A check pass that cannot read a directory ends early and does
// not fail the call.
F2FS_SNAPSHOT_EXPORT int32_t CreateDirSnapshot(const std::vector<std::string>& dirpath,
                                               std::string dstpath);

// Mirrors the tree srcdirpath into the existing directory dstdirpath: each regular file is
// prepared and snapshotted, each symbolic link copied. A subdirectory whose path equals rawdstpath
// (the snapshot root) is skipped.
//
// Returns 0; -1 if a directory cannot be made; -2; -22 for an entry of another type; or the first
// nonzero result of preparing, snapshotting or copying an entry. What was made stays.
F2FS_SNAPSHOT_EXPORT int32_t CreateSingleDirSnapshot(std::string srcdirpath, std::string dstdirpath,
                                                     std::string rawdstpath);

// Makes dstdirpath + "/" + filename a snapshot of srcdirpath + "/" + filename, which must be
// prepared. An existing regular file there is truncated and reused, if the caller may write to it
// (only root may write to an earlier snapshot file, mode 0440).
//
// Returns 0; -2 if either file cannot be opened; otherwise the result of the failed stat,
// fallocate or request. fallocate fails for sizes of 2 to 4 GiB, 6 to 8 GiB, and so on: sizes
// above 0 whose low 32 bits are 0 or have the highest bit set. After a failure the destination
// file may exist, empty or preallocated.
F2FS_SNAPSHOT_EXPORT int32_t CreateSingleFileSnapshot(std::string srcdirpath, std::string filename,
                                                      std::string dstdirpath);

// Copies the symbolic link srcdirpath + "/" + filename to dstdirpath, text unchanged.
//
// Returns 0, or -1 if reading or making the link fails (also if the name is taken).
F2FS_SNAPSHOT_EXPORT int32_t CreateSingleFileSoftLink(std::string srcdirpath, std::string filename,
                                                      std::string dstdirpath);

// Appends to modifyfilelist every regular file below srcdirpath that must be snapshotted again: its
// snapshot file (rawdstpath + the file's path) is missing, its modification mark is gone, or its
// mark cannot be read. Entries already listed are kept. The subdirectory rawdstpath itself is
// skipped. Changes nothing on disk.
//
// Returns 0, or -2 if srcdirpath or a directory below it cannot be opened; what was appended
// before stays.
F2FS_SNAPSHOT_EXPORT int32_t checkModifyFiles(std::string srcdirpath,
                                              std::vector<file_info>& modifyfilelist,
                                              std::string rawdstpath);

// Removes the snapshot root dstpath + "/snapshot" with everything under it. dstpath itself stays.
// Links below the root are removed, not followed. Entries of other types (pipes, sockets, devices)
// stay. If the root is itself a link to a directory, that directory is emptied: let nobody but the
// owner of the snapshot write to the target. An empty path means the snapshot root "/snapshot".
//
// Returns 0; -1 for a "/../" path or if something could not be removed (call again to remove the
// rest); -2 if there is no snapshot root or it cannot be opened.
F2FS_SNAPSHOT_EXPORT int32_t DestroyDirSnapshot(std::string dstpath);
