// SPDX-License-Identifier: Apache-2.0
// Tests that try their luck: a seed that is printed and can be given, and a long form.
//
// F2FS_SNAPSHOT_SEED=N repeats a run's choices, F2FS_SNAPSHOT_LONG=1 runs the long form.
#pragma once

#include <stdint.h>
#include <stdlib.h>

#include <iostream>
#include <random>

inline int rounds(int in_short, int in_long) {
    return getenv("F2FS_SNAPSHOT_LONG") != nullptr ? in_long : in_short;
}

class Random {
  public:
    explicit Random(uint32_t seed) : engine_(seed) {}
    Random() {
        const char* given = getenv("F2FS_SNAPSHOT_SEED");
        const auto seed = given != nullptr ? static_cast<uint32_t>(strtoul(given, nullptr, 0))
                                           : std::random_device{}();
        std::cout << "F2FS_SNAPSHOT_SEED=" << seed << std::endl;
        engine_.seed(seed);
    }
    // The same everywhere: the numbers of the engine are fixed by the language, those of the
    // library's distributions are not.
    size_t below(size_t bound) {
        return engine_() % bound;
    }

  private:
    std::mt19937 engine_;
};
