// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "driver_check/check.h"

namespace driver_check {

// A directory of this run's own. Everything below goes when the object goes, or by its name when
// kept: never through a link, and on no other file system.
class Scratch {
  public:
    // Makes one with a new name. valid() says whether that worked, error() why not.
    explicit Scratch(const std::string& parent);
    // The one that is made by --stage=before and opened (and removed) by --stage=after. Without a
    // stage: none.
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
    // Removes what is in it. False: something stays.
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
