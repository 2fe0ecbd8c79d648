// SPDX-License-Identifier: Apache-2.0
// The files in which a generation records its sources.
//
// manifest.mtree has a line for each directory, file and link of the sources, in bsdtar's mtree
// format with full paths, which begin "./" at the generation's snapshot/. Modes, owners and times
// are those of the sources, read at the end of create; sizes, and SHA-256 digests if they were
// asked for, are those of the snapshot's files. It consists of parts, each of which begins with
// "#mtree": libarchive keeps all that it reads and writes in memory. Parts follow each other in the
// order of a TreeWalk; within one, lines are in the order that libarchive gives them.
//
// xattrs.dump has the sources' extended attributes in the format of getfattr --dump --encoding=hex;
// absent if there are none. SELinux labels are left out, because the policy sets them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "manager/file.h"

struct archive;
struct archive_entry;

namespace manager {

constexpr char MANIFEST_FILE[] = "manifest.mtree";
constexpr char ATTRIBUTES_FILE[] = "xattrs.dump";

// One line of a manifest.
struct Recorded {
    std::string path;   // absolute, as the source's
    uint32_t mode = 0;  // with the type
    uint32_t owner = 0;
    uint32_t group = 0;
    int64_t modified = 0;  // nanoseconds since the epoch
    uint64_t inode = 0;    // the same for all names of one file; 0: unknown
    uint32_t names = 1;    // the link count
    uint64_t size = 0;     // files only
    std::string link;      // the text of a symbolic link
    std::string digest;    // SHA-256, 32 bytes; empty: none
};

// Writes a manifest into a new file.
class ManifestWriter {
  public:
    // directory  of the generation at `path`
    ManifestWriter(int directory, const std::string& path, bool has_digests);
    // content      of a regular file, for its digest; -1: none
    // on_progress  is called from time to time while the content is read
    void add(const Recorded& line, int content, const std::function<void()>& on_progress);
    // Completes the file.
    void close();

  private:
    void open();

    std::string path_;
    bool has_digests_;
    UniqueFd fd_;
    std::unique_ptr<archive, int (*)(archive*)> archive_;
    size_t held_ = 0;  // lines that libarchive keeps in memory
};

// Reads a manifest, in the order of a TreeWalk. Throws ERROR_FORMAT for a damaged one.
class ManifestReader {
  public:
    // directory  of the generation at `path`
    ManifestReader(int directory, const std::string& path);
    // Reads the next line; false: there is none.
    bool next(Recorded& line);

  private:
    bool readPart();
    std::string partText();
    void append(archive_entry* entry);

    std::string path_;
    UniqueFd fd_;
    std::string text_;  // what was read of the file, and is not in part_
    std::vector<Recorded> part_;
    size_t next_ = 0;
    std::string last_;  // path
};

// Extended attributes by path (absolute) and name.
using Attributes = std::map<std::string, std::map<std::string, std::string>>;

// Adds the attributes of the entry `name` in the directory `parent` under the key `path`.
void collectAttributes(int parent, const char* name, const std::string& path,
                       Attributes& attributes);
// Writes xattrs.dump, if there are any attributes.
void writeAttributes(int directory, const std::string& path, const Attributes& attributes);
// Reads xattrs.dump; a missing file has no attributes. Throws ERROR_FORMAT for a damaged one.
Attributes readAttributes(int directory, const std::string& path);

// The SHA-256 digest of a file's content, 32 bytes. Throws ERROR_UNSUPPORTED if there is none.
std::string digestOf(int file, uint64_t size, const std::string& path,
                     const std::function<void()>& on_progress);

}  // namespace manager
