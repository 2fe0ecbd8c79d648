// SPDX-License-Identifier: Apache-2.0
// A way down a tree that holds few descriptors however deep it is, and follows no link.
#pragma once

#include <string>
#include <vector>

#include "manager/file.h"

namespace manager {

class Descent {
  public:
    // path  of the top, for messages
    Descent(UniqueFd top, std::string path);

    // The directory that the way has led to.
    int fd() const {
        return levels_.back().fd.get();
    }
    const std::string& path() const {
        return path_;
    }
    // How many directories are above it, 0 at the top.
    size_t depth() const {
        return levels_.size() - 1;
    }

    // Goes on to a directory in this one.
    void enter(const std::string& name);
    // The same, with a descriptor that the caller opened, and its attributes.
    void enter(UniqueFd directory, const std::string& name, const struct statx& identity);
    // Goes back. Throws if the directory was moved out of the one that it was entered from, and
    // that one is no longer open.
    void leave();

  private:
    struct Level {
        UniqueFd fd;  // closed while the way is much deeper
        struct statx identity;
        size_t path_length;
    };
    std::vector<Level> levels_;
    std::string path_;
};

}  // namespace manager
