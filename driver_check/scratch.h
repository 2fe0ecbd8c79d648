// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "driver_check/check.h"

namespace driver_check {

// A directory of this run. The destructor removes it with everything below, unless keep() was
// called. It follows no link and enters no other file system.
class Scratch {
  public:
    // Makes one with a new name. valid() says whether that worked, error() why not.
    explicit Scratch(const std::string& parent);
    // The directory `name`: made for Stage::before, opened for Stage::after. No directory for
    // Stage::none.
    Scratch(const std::string& parent, const std::string& name, Stage stage);
    ~Scratch();
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    bool valid() const {
        return fd_ >= 0;
    }
    int error() const {
        return error_;
    }
    int fd() const {
        return fd_;
    }
    const std::string& path() const {
        return path_;
    }
    // Removes its entries. Returns false if some are left.
    bool clear() const;
    // Lets the directory and its content outlive the object.
    void keep() {
        is_kept_ = true;
    }

  private:
    void enter();

    std::string path_;
    int fd_ = -1;
    int error_ = 0;
    bool is_kept_ = false;
};

}  // namespace driver_check
