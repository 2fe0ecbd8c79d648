# SPDX-License-Identifier: Apache-2.0
# Defines header_libraries: CLI11 and nlohmann/json, header-only libraries that serve every target. They
# are linked into a directory of their own, since a cross compiler must not see the rest of /usr/include.
set(headers ${PROJECT_BINARY_DIR}/header_libraries)
file(MAKE_DIRECTORY ${headers})
foreach(header CLI/CLI.hpp nlohmann/json.hpp)
    get_filename_component(library ${header} DIRECTORY)
    find_path(${library}_INCLUDE_DIR ${header} NO_CMAKE_FIND_ROOT_PATH)
    if(NOT ${library}_INCLUDE_DIR)
        message(FATAL_ERROR "There is no ${header}. On Debian: apt-get install libcli11-dev "
            "nlohmann-json3-dev. Elsewhere: -D${library}_INCLUDE_DIR=DIRECTORY. Without them: "
            "F2FS_SNAPSHOT_DRIVER_CHECK=OFF and F2FS_SNAPSHOT_MANAGER=OFF.")
    endif()
    file(CREATE_LINK ${${library}_INCLUDE_DIR}/${library} ${headers}/${library} SYMBOLIC)
endforeach()
add_library(header_libraries INTERFACE)
target_include_directories(header_libraries SYSTEM INTERFACE ${headers})
# With the NDK, packages are looked for below the device's root only, where these libraries are not.
if(ANDROID)
    add_library(CLI11::CLI11 ALIAS header_libraries)
    add_library(nlohmann_json::nlohmann_json ALIAS header_libraries)
endif()
