// SPDX-License-Identifier: Apache-2.0
// A test program defines its own main, because the library exports one.
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
