// SPDX-License-Identifier: Apache-2.0
// Point-in-time snapshots of directory trees on F2FS: the engine's operations.
//
// Results. Every operation returns 0 on success; any other value, positive or negative, is a
// failure, logged where it happened under the tag "f2fs_snapshot_native":
//     -1   a path holds a "/../" step, or a system call or request failed (its own -1, passed on)
//     -2   a file, a directory stream or a temporary file could not be opened
//     -11  files kept changing until the check passes were used up
//     -22  a source tree holds something that is no directory, regular file or symbolic link, or
//          its file system does not report the types of entries
//     other values: the result of a request that was neither 0 nor -1, passed on unchanged
// errno is not part of the contract. The first failure stops the walk that it belongs to; work
// done before it stays, save where an operation says otherwise.
//
// Paths are byte strings, normally absolute, and used as they are: nothing is normalised, and a
// child's path is always parent + "/" + name.
//
// Threads. Nothing is shared between calls and no thread is started; every descriptor and
// directory stream is closed before a call returns. Calls on one target at the same time, or on
// one source while it is being snapshotted elsewhere, are not kept apart.
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

// Prepares every regular file of the source trees ahead of CreateDirSnapshot, which then has less
// to do: each file not yet layered is marked, cloned into an unnamed temporary file beside it, and
// layered over that clone. Files already layered are left alone; links and other entries are
// skipped.
//
// dirpath  source directories, prepared in order; an empty list is a success
//
// Returns 0, -1 (also for a "/../" path: the sources before it are prepared by then), -2, or a
// failed request's result. A positive result of a request stops only its own directory and is
// returned only when nothing is prepared after it. Files prepared before a failure stay prepared.
F2FS_SNAPSHOT_EXPORT int32_t PreCreateDirSnapshot(const std::vector<std::string>& dirpath);

// Prepares one directory tree. A file's nonzero result stops the walk, a subdirectory's only when
// it is negative.
//
// Returns 0, -1, -2, or a failed request's result.
F2FS_SNAPSHOT_EXPORT int32_t PreCreateSingleDirSnapshot(std::string dirpath);

// Prepares the file srcdirpath + "/" + filename, unless the kernel reports it as layered already.
//
// Returns 0, -2 when the file or the temporary file in srcdirpath cannot be opened, or a failed
// request's result; the modification mark may be set by then.
F2FS_SNAPSHOT_EXPORT int32_t PreCreateSingleFileSnapshot(std::string srcdirpath,
                                                         std::string filename);

// Makes the snapshot root dstpath + "/snapshot" and mirrors every source directory S below it, at
// dstpath + "/snapshot" + S: directories with mode 0770, files as kernel snapshots with mode 0440
// (both less the umask), symbolic links with their text. A snapshot root that is there already is
// removed first. Then at most eleven check passes find files that changed meanwhile and snapshot
// them again, until a pass finds none: on success the snapshot holds the content of every file that
// existed throughout as of one instant, the start of that last pass. docs/consistency.md states the
// limits (hard links, renames, a directory that the pass could not read, ...).
//
// dirpath  source directories, absolute, none of them given twice or below another; an empty list
//          is a success that touches nothing
// dstpath  target directory; made when missing. dstpath + "/snapshot" + source must stay below 255
//          bytes for every source, or the process is aborted
//
// Returns 0; -1 for a "/../" path; -1 or -2 when the snapshot root cannot be removed or made; -1,
// -2, -22 or a failed request's result from the first creation or a re-creation; -11 when the
// eleventh pass still found changes. A failure once the first tree is being mirrored removes the
// snapshot root again (a failed removal is logged), unless it is a source's own mirror directory,
// dstpath + "/snapshot" + S, that cannot be made: that leaves what was made. A check pass that
// cannot read a directory ends early without failing the call.
F2FS_SNAPSHOT_EXPORT int32_t CreateDirSnapshot(const std::vector<std::string>& dirpath,
                                               std::string dstpath);

// Mirrors the tree srcdirpath into the existing directory dstdirpath: each regular file is
// prepared and snapshotted, each symbolic link copied. A subdirectory whose path equals rawdstpath
// (the snapshot root) is left out.
//
// Returns 0; -1 when a directory cannot be made; -2; -22 for an entry of another type; or the
// first nonzero result of preparing, snapshotting or copying an entry. What was made stays.
F2FS_SNAPSHOT_EXPORT int32_t CreateSingleDirSnapshot(std::string srcdirpath, std::string dstdirpath,
                                                     std::string rawdstpath);

// Makes dstdirpath + "/" + filename a snapshot of srcdirpath + "/" + filename, which must be
// prepared. An existing regular file there is truncated and reused, if the caller may write to it
// (an earlier snapshot file, mode 0440, only root may).
//
// Returns 0; -2 when either file cannot be opened; otherwise the result of the failed stat,
// fallocate or request. fallocate refuses every size, other than 0, whose low 32 bits are 0 or
// have the highest bit set: 2 GiB to 4 GiB, 6 GiB to 8 GiB, and so on. After a failure the
// destination file may exist, empty or preallocated.
F2FS_SNAPSHOT_EXPORT int32_t CreateSingleFileSnapshot(std::string srcdirpath, std::string filename,
                                                      std::string dstdirpath);

// Copies the symbolic link srcdirpath + "/" + filename to dstdirpath, text unchanged.
//
// Returns 0, or -1 when reading or making the link fails (also when the name is taken).
F2FS_SNAPSHOT_EXPORT int32_t CreateSingleFileSoftLink(std::string srcdirpath, std::string filename,
                                                      std::string dstdirpath);

// Appends to modifyfilelist every regular file below srcdirpath whose snapshot file (rawdstpath +
// the file's path) is missing, whose modification mark is gone, or that cannot be asked. Entries
// already listed are kept. The subdirectory rawdstpath itself is left out. Changes nothing on
// disk.
//
// Returns 0, or -2 when srcdirpath or a directory below it cannot be opened; what was appended
// before stays.
F2FS_SNAPSHOT_EXPORT int32_t checkModifyFiles(std::string srcdirpath,
                                              std::vector<file_info>& modifyfilelist,
                                              std::string rawdstpath);

// Removes the snapshot root dstpath + "/snapshot" with everything under it; dstpath itself stays,
// links below the root are not followed, and entries of other types (pipes, sockets, devices) are
// left in place. A root that is itself a link to a directory has that directory emptied: keep the
// target writable for the owner of the snapshot alone.
//
// Returns 0; -1 for a "/../" path or when something could not be removed (call again to pick up
// what is left); -2 when there is no snapshot root or it cannot be opened.
F2FS_SNAPSHOT_EXPORT int32_t DestroyDirSnapshot(std::string dstpath);
