// SPDX-License-Identifier: Apache-2.0
// The ways to change a file's data or size. A new one is a function and a row of CHANGES.
#pragma once

#include <functional>

#include "driver_check/check.h"
#include "driver_check/requests.h"

namespace driver_check {

struct Way {
    const char* name;  // the check that the change clears the mark is mark.lost-by-NAME
    // Prepares the change and returns it; the mark is set before the change is made. The file is of
    // SMALL size and open for reading and writing. Skips the check where the volume refuses it.
    std::function<void()> (*make)(const File& file);
    Needs needs;
};

extern const Way CHANGES[];
extern const size_t CHANGE_COUNT;

// A shared, writable mapping of a whole file. Skips the check where the volume refuses it.
class Mapping {
  public:
    explicit Mapping(const File& file);
    Mapping(Mapping&& from) noexcept;
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping();
    volatile unsigned char* bytes() const {
        return bytes_;
    }

  private:
    volatile unsigned char* bytes_;
    size_t size_;
};

}  // namespace driver_check
