// SPDX-License-Identifier: Apache-2.0
// Moves up and down a directory tree with few open descriptors at any depth. Follows no link.
#pragma once

#include <string>
#include <vector>

#include "manager/file.h"

namespace manager {

class Descent {
  public:
    // path  of the top, for messages
    Descent(UniqueFd top, std::string path);

    // The current directory.
    int fd() const {
        return levels_.back().fd.get();
    }
    const std::string& path() const {
        return path_;
    }
    // Levels below the top, which has 0.
    size_t depth() const {
        return levels_.size() - 1;
    }

    // Enters a subdirectory of the current directory.
    void enter(const std::string& name);
    // The same, with the subdirectory's open descriptor and attributes.
    void enter(UniqueFd directory, const std::string& name, const struct statx& identity);
    // Goes back to the directory above. If that is no longer open, it is opened by ".."; throws
    // ERROR_SYSTEM if the current directory was moved elsewhere meanwhile.
    void leave();

  private:
    struct Level {
        UniqueFd fd;  // closed while the current directory is much deeper
        struct statx identity;
        size_t path_length;
    };
    std::vector<Level> levels_;
    std::string path_;
};

}  // namespace manager
