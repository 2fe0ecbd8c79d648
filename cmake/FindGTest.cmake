# SPDX-License-Identifier: Apache-2.0
# Finds GoogleTest: the installed library if it is built for this target. Otherwise, as in cross builds
# or with libc++, builds it from Debian's package of its sources.
if(TARGET GTest::gtest)
    set(GTest_FOUND TRUE)
    return()
endif()
# Debian's library is made for GNU's C++ library.
include(CheckCXXSymbolExists)
check_cxx_symbol_exists(_LIBCPP_VERSION ciso646 F2FS_SNAPSHOT_LIBCXX)
if(NOT F2FS_SNAPSHOT_LIBCXX)
    find_package(GTest CONFIG QUIET)
endif()
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
