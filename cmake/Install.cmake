# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` installs, and where.

set_target_properties(f2fs_snapshot PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})

# set_run_path(TARGET DIRECTORY BUILD_PATH...): sets the run path by which TARGET, installed in DIRECTORY,
# finds its libraries. In the build directory these are at BUILD_PATH. The loader searches a system's
# library directory by itself: a target for it has a run path in the build directory only. Elsewhere the
# run path is relative to the target, so that the installed tree can be moved, and the build directory has
# the same one: a run path that CMake rewrites on installation has an empty entry, for which the loader
# searches the working directory.
function(set_run_path target directory)
    if(ANDROID) # CMake ignores INSTALL_RPATH there
        return()
    endif()
    if(CMAKE_INSTALL_FULL_LIBDIR IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
        set_target_properties(${target} PROPERTIES BUILD_RPATH_USE_ORIGIN ON)
    else()
        file(RELATIVE_PATH libraries ${directory} ${CMAKE_INSTALL_FULL_LIBDIR})
        string(REGEX REPLACE "/$" "" run_path "$ORIGIN/${libraries}")
        list(PREPEND run_path ${ARGN})
        set_target_properties(${target} PROPERTIES
            BUILD_WITH_INSTALL_RPATH ON
            INSTALL_RPATH "${run_path}")
    endif()
endfunction()

# Debian keeps liblog in a directory of its own, where only a run path finds it.
set_target_properties(f2fs_snapshot PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON)
if(TARGET f2fs_snapshot_log)
    set_run_path(f2fs_snapshot ${CMAKE_INSTALL_FULL_LIBDIR})
    install(TARGETS f2fs_snapshot_log EXPORT f2fs_snapshot LIBRARY NAMELINK_SKIP)
elseif(NOT ANDROID)
    set_target_properties(f2fs_snapshot PROPERTIES BUILD_WITH_INSTALL_RPATH ON)
endif()

# Clients include <f2fs_snapshot/snapshot.h>, from an installation and from a build directory. Every
# declaration in these headers can be linked. tool/main.h is left out: users call the tool instead.
set(public_headers
    snapshot/export.h
    snapshot/f2fs_ioctl.h
    snapshot/path_list.h
    snapshot/snapshot.h)
if(F2FS_SNAPSHOT_JNI)
    list(APPEND public_headers jni/snapshot_jni.h)
endif()
if(F2FS_SNAPSHOT_MANAGER)
    list(APPEND public_headers manager/f2fs_snapshot_manager.h)
endif()
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include/f2fs_snapshot)
foreach(header IN LISTS public_headers)
    get_filename_component(name ${header} NAME)
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${header}
        ${PROJECT_BINARY_DIR}/include/f2fs_snapshot/${name} SYMBOLIC)
endforeach()
target_include_directories(f2fs_snapshot INTERFACE
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_compile_features(f2fs_snapshot INTERFACE cxx_std_17)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/f2fs_snapshot)

install(TARGETS f2fs_snapshot EXPORT f2fs_snapshot)
install(FILES ${public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/f2fs_snapshot)
if(F2FS_SNAPSHOT_MANAGER)
    target_include_directories(f2fs_snapshot_manager INTERFACE
        $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    install(TARGETS f2fs_snapshot_manager EXPORT f2fs_snapshot)
    # The program in which the manager runs the library. The manager finds it by a path relative to
    # itself, and it finds the library in the same way.
    set_run_path(f2fs_snapshot_helper ${CMAKE_INSTALL_FULL_LIBEXECDIR}/f2fs_snapshot "$ORIGIN/..")
    set_target_properties(f2fs_snapshot_helper PROPERTIES INSTALL_RPATH_USE_LINK_PATH ON)
    install(TARGETS f2fs_snapshot_helper DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/f2fs_snapshot)
endif()

# Users of the libraries need no other package, so the exported targets are the whole configuration.
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/f2fs_snapshotConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(EXPORT f2fs_snapshot
        FILE f2fs_snapshotConfig.cmake NAMESPACE f2fs_snapshot:: DESTINATION ${package_dir})
install(FILES ${PROJECT_BINARY_DIR}/f2fs_snapshotConfigVersion.cmake DESTINATION ${package_dir})

# Paths in a .pc file are relative to it, so that the installed tree can be moved.
file(RELATIVE_PATH prefix_from_pkgconfig
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
function(install_pkgconfig library description)
    configure_file(cmake/library.pc.in ${PROJECT_BINARY_DIR}/${library}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
install_pkgconfig(f2fs_snapshot "point-in-time snapshots of directory trees on F2FS")
if(F2FS_SNAPSHOT_MANAGER)
    install_pkgconfig(f2fs_snapshot_manager "named snapshots of directory trees on F2FS, kept in a store")
endif()

# Programs go to bin: what a user may do is decided by the rights on the files, not by being root.
function(install_program target name)
    install(TARGETS ${target})
    if(NOT ANDROID)
        install(FILES man/${name}.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
        install(FILES completions/${name}
                DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    endif()
endfunction()
if(F2FS_SNAPSHOT_TOOL)
    if(ANDROID)
        file(RELATIVE_PATH library_from_tool
            ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
        target_link_options(f2fs_snapshot_tool PRIVATE
            "LINKER:-rpath,$ORIGIN:$ORIGIN/${library_from_tool}")
    endif()
    set_run_path(f2fs_snapshot_tool ${CMAKE_INSTALL_FULL_BINDIR} "$ORIGIN")
    install_program(f2fs_snapshot_tool f2fs_snapshot)
endif()
if(F2FS_SNAPSHOT_EMULATOR)
    install_program(f2fs_emulator f2fs_emulator)
endif()
if(F2FS_SNAPSHOT_DRIVER_CHECK)
    install_program(f2fs_driver_check f2fs_driver_check)
endif()
if(F2FS_SNAPSHOT_MANAGER)
    set_run_path(f2fs_snapshotctl ${CMAKE_INSTALL_FULL_BINDIR} "$ORIGIN")
    install_program(f2fs_snapshotctl f2fs_snapshotctl)
    if(NOT ANDROID)
        # Debian's zsh looks into the first below /usr/local, into the second below /usr.
        foreach(directory zsh/site-functions zsh/vendor-completions)
            install(FILES completions/zsh/_f2fs_snapshotctl
                    DESTINATION ${CMAKE_INSTALL_DATADIR}/${directory})
        endforeach()
        install(FILES completions/fish/f2fs_snapshotctl.fish
                DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
    endif()
endif()

if(TARGET f2fs_snapshot_java)
    set_run_path(f2fs_snapshot_java ${CMAKE_INSTALL_FULL_LIBDIR})
    install(TARGETS f2fs_snapshot_java)
    get_target_property(java_api_jar f2fs_snapshot_jar JAR_FILE)
    install(FILES ${java_api_jar} ${java_api_documents} DESTINATION ${CMAKE_INSTALL_DATADIR}/java)
endif()

if(NOT ANDROID)
    install(FILES CHANGELOG.md CONTRIBUTING.md LICENSE README.md SECURITY.md
            DESTINATION ${CMAKE_INSTALL_DOCDIR})
    install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

if(NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

add_custom_target(uninstall
    COMMAND ${CMAKE_COMMAND} -P ${PROJECT_SOURCE_DIR}/cmake/Uninstall.cmake
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    VERBATIM)

# What the installed files are linked with, or contain parts of.
set(dependencies "C++ runtime of ${CMAKE_CXX_COMPILER_ID}|${CMAKE_CXX_COMPILER_VERSION}|NOASSERTION|DYNAMIC_LINK")
if(NOT TARGET f2fs_snapshot_log)
    list(APPEND dependencies "liblog|NOASSERTION|Apache-2.0|DYNAMIC_LINK")
endif()
if(F2FS_SNAPSHOT_EMULATOR)
    list(APPEND dependencies "libfuse|${FUSE3_VERSION}|LGPL-2.1-only|DYNAMIC_LINK")
endif()
if(F2FS_SNAPSHOT_MANAGER)
    find_package(LibArchive QUIET)
    list(APPEND dependencies "libarchive|${LibArchive_VERSION}|BSD-2-Clause|DYNAMIC_LINK")
endif()
if(F2FS_SNAPSHOT_MANAGER OR F2FS_SNAPSHOT_DRIVER_CHECK)
    find_package(CLI11 QUIET)
    find_package(nlohmann_json QUIET)
    list(APPEND dependencies
        "CLI11|${CLI11_VERSION}|BSD-3-Clause|STATIC_LINK"
        "JSON for Modern C++|${nlohmann_json_VERSION}|MIT|STATIC_LINK")
endif()
option(F2FS_SNAPSHOT_SBOM "Install a list of the installed files and their licences (SPDX)" ON)
if(ANDROID)
    return()
endif()
install(CODE "get_filename_component(directory
        \"${CMAKE_INSTALL_LIBDIR}\" ABSOLUTE BASE_DIR \"\${CMAKE_INSTALL_PREFIX}\")
    set(library libf2fs_snapshot.so.${PROJECT_VERSION_MAJOR})")
install(SCRIPT cmake/LdconfigHint.cmake)
if(F2FS_SNAPSHOT_SBOM)
    install(CODE "get_filename_component(sbom
            \"${CMAKE_INSTALL_DOCDIR}/f2fs_snapshot.spdx.json\" ABSOLUTE BASE_DIR \"\${CMAKE_INSTALL_PREFIX}\")
        set(name ${PROJECT_NAME})
        set(version ${PROJECT_VERSION})
        set(source_dir \"${PROJECT_SOURCE_DIR}\")
        set(dependencies \"${dependencies}\")")
    install(SCRIPT cmake/Sbom.cmake)
endif()
