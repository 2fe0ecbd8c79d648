# SPDX-License-Identifier: Apache-2.0
# Finds GoogleTest: the installed library where it is one for this target; else, as in cross builds,
# it is built from Debian's sources of it.
if(TARGET GTest::gtest)
    set(GTest_FOUND TRUE)
    return()
endif()
find_package(GTest CONFIG QUIET)
if(NOT GTest_FOUND)
    find_path(GTest_SOURCE_DIR src/gtest-all.cc PATHS /usr/src/googletest/googletest)
    include(FindPackageHandleStandardArgs)
    find_package_handle_standard_args(GTest REQUIRED_VARS GTest_SOURCE_DIR
        REASON_FAILURE_MESSAGE "on Debian: apt-get install libgtest-dev googletest")
    if(GTest_FOUND)
        set(INSTALL_GTEST OFF)
        add_subdirectory(${GTest_SOURCE_DIR} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    endif()
endif()
