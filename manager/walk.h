// SPDX-License-Identifier: Apache-2.0
// Visits the entries of a tree in a fixed order: a directory before its entries, siblings by the
// bytes of their names.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "manager/descent.h"
#include "manager/file.h"

namespace manager {

// Compares two paths by the order above: negative, 0 or positive.
int comparePaths(const std::string& one, const std::string& other);

// Whether a path is `top` or below it. Both are absolute, without a slash at the end.
bool isAtOrBelow(const std::string& path, const std::string& top);

// Usage: while (walk.next()) { walk.path() ... }. The first entry is the top itself. The other
// functions describe the current entry.
class TreeWalk {
  public:
    // Called with a directory's attributes before its names are read. While it returns true, the
    // attributes are read again. Without it, a directory's attributes are read after its names.
    using IsUnsettled = std::function<bool(const struct statx& attributes)>;

    TreeWalk(UniqueFd top, const std::string& path, IsUnsettled is_unsettled = nullptr);

    // Goes to the next entry; returns false if there is none. Entries that vanish, or are replaced,
    // before they can be looked at are skipped.
    bool next();
    // Skips the entries of the current directory.
    void skip() {
        opened_.reset();
    }

    const std::string& path() const {
        return path_;
    }
    // The open directory that the entry is in, and its name there. Of the top: itself and ".".
    int parent() const {
        return started_top_ ? opened_.get() : descent_.fd();
    }
    const char* name() const {
        return started_top_ ? "." : name_.c_str();
    }
    // The open directory, if the entry is one and error() is 0.
    int directory() const {
        return opened_.get();
    }
    // Directories above the entry in the tree, 0 for the top.
    size_t depth() const {
        return started_top_ ? 0 : descent_.depth() + 1;
    }
    const struct statx& attributes() const {
        return attributes_;
    }
    uint32_t type() const {
        return attributes_.stx_mode & S_IFMT;
    }
    // Of a symbolic link.
    const std::string& linkText() const {
        return link_text_;
    }
    // An errno value if the attributes, the link text or the names in a directory could not be
    // read, else 0.
    int error() const {
        return error_;
    }
    bool hasUnknownTypes() const {
        return names_.has_unknown_types;
    }

  private:
    struct Level {
        std::vector<std::string> names;
        size_t next = 0;
    };
    void descend();
    void readDirectory();
    void readLinkText();

    IsUnsettled is_unsettled_;
    Descent descent_;
    std::vector<Level> levels_;
    bool started_top_ = false;
    bool is_top_done_ = false;
    std::string path_;
    std::string name_;
    struct statx attributes_ = {};
    int error_ = 0;
    std::string link_text_;
    UniqueFd opened_;  // the current directory, until the walk goes on into it
    Names names_;      // its names
};

}  // namespace manager
