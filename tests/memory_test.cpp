// SPDX-License-Identifier: Apache-2.0
// Memory exhaustion: no client can catch std::bad_alloc from an incomplete call of the library.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "snapshot/snapshot.h"

extern thread_local long allocations_left;  // limited_memory.cpp

namespace {

// 0: the call needed no more than this many allocations; 1: std::bad_alloc came out of it.
int prepareWith(const std::vector<std::string>& sources, long allocations) {
    allocations_left = allocations;
    try {
        PreCreateDirSnapshot(sources);
    } catch (const std::bad_alloc&) {
        return 1;
    }
    return 0;
}

TEST(MemoryDeathTest, ExhaustionEndsTheProcess) {
    const std::string root = testing::TempDir() + "memory_test." + std::to_string(getpid());
    const std::string source = root + "/a directory whose path needs memory of its own";
    std::filesystem::create_directories(source + "/below");
    for (const long allocations : {0, 1, 2, 3}) {
        SCOPED_TRACE(allocations);
        EXPECT_EXIT(_exit(prepareWith({source}, allocations)), testing::KilledBySignal(SIGABRT),
                    "bad_alloc");
    }
    EXPECT_EXIT(_exit(prepareWith({source}, -1)), testing::ExitedWithCode(0), "");
    std::filesystem::remove_all(root);
}

}  // namespace
