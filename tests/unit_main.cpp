// SPDX-License-Identifier: Apache-2.0
// The library exports a main of its own, so that a test program must not look for one.
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
