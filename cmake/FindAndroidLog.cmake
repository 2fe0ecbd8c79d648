# SPDX-License-Identifier: Apache-2.0
# Finds Android's log library: the NDK's on a device, Debian's android-liblog-dev elsewhere.
# Defines the imported target AndroidLog::log.
if(ANDROID)
    find_library(AndroidLog_LIBRARY log)
    find_path(AndroidLog_INCLUDE_DIR android/log.h)
else()
    find_library(AndroidLog_LIBRARY log PATH_SUFFIXES android)
    find_path(AndroidLog_INCLUDE_DIR android/log.h PATH_SUFFIXES android)
endif()
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(AndroidLog
    REQUIRED_VARS AndroidLog_LIBRARY AndroidLog_INCLUDE_DIR
    REASON_FAILURE_MESSAGE "on Debian: apt-get install android-liblog-dev")
if(AndroidLog_FOUND AND NOT TARGET AndroidLog::log)
    add_library(AndroidLog::log UNKNOWN IMPORTED)
    set_target_properties(AndroidLog::log PROPERTIES
        IMPORTED_LOCATION "${AndroidLog_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${AndroidLog_INCLUDE_DIR}")
endif()
