# SPDX-License-Identifier: Apache-2.0
# Where everything goes on `cmake --install`, and the Debian package made of it (`cpack`).

set_target_properties(f2fs_snapshot PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
# Run paths are the same in the build directory and when installed: CMake marks one that it has to
# rewrite with an empty entry, which has the loader look in the working directory.
#
# Debian keeps liblog in a directory of its own, where only a run path finds it.
if(NOT ANDROID)
    set_target_properties(f2fs_snapshot PROPERTIES
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH_USE_LINK_PATH ON)
endif()
# Clients include <f2fs_snapshot/snapshot.h>, from an installation and from a build directory. Every
# declaration in these headers can be linked; tool/main.h is left out, since the tool is how to call it.
set(public_headers
    jni/snapshot_jni.h
    snapshot/export.h
    snapshot/f2fs_ioctl.h
    snapshot/path_list.h
    snapshot/snapshot.h)
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
    # The program in which the manager runs the library. The manager finds it by a path from its own
    # place, and it the library.
    file(RELATIVE_PATH library_from_helper
        ${CMAKE_INSTALL_FULL_LIBEXECDIR}/f2fs_snapshot ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(f2fs_snapshot_helper PROPERTIES
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH_USE_LINK_PATH ON
        INSTALL_RPATH "$ORIGIN/${library_from_helper};$ORIGIN/..")
    install(TARGETS f2fs_snapshot_helper DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/f2fs_snapshot)
endif()

# The libraries need nothing else of their users, so the exported target is the whole configuration.
include(CMakePackageConfigHelpers)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/f2fs_snapshotConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(EXPORT f2fs_snapshot
        FILE f2fs_snapshotConfig.cmake NAMESPACE f2fs_snapshot:: DESTINATION ${package_dir})
install(FILES ${PROJECT_BINARY_DIR}/f2fs_snapshotConfigVersion.cmake DESTINATION ${package_dir})

# Paths in it start from its own place, so that the installed tree can be moved.
file(RELATIVE_PATH prefix_from_pkgconfig
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
configure_file(cmake/f2fs_snapshot.pc.in ${PROJECT_BINARY_DIR}/f2fs_snapshot.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/f2fs_snapshot.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

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
    file(RELATIVE_PATH library_from_tool
        ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    if(ANDROID)
        # CMake ignores INSTALL_RPATH there.
        target_link_options(f2fs_snapshot_tool PRIVATE
            "LINKER:-rpath,$ORIGIN:$ORIGIN/${library_from_tool}")
    else()
        set_target_properties(f2fs_snapshot_tool PROPERTIES
            BUILD_WITH_INSTALL_RPATH ON
            INSTALL_RPATH "$ORIGIN;$ORIGIN/${library_from_tool}")
    endif()
    install_program(f2fs_snapshot_tool f2fs_snapshot)
endif()
if(F2FS_SNAPSHOT_EMULATOR)
    install_program(f2fs_emulator f2fs_emulator)
endif()
if(F2FS_SNAPSHOT_DRIVER_CHECK)
    install_program(f2fs_driver_check f2fs_driver_check)
endif()
if(F2FS_SNAPSHOT_MANAGER)
    file(RELATIVE_PATH library_from_program
        ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(f2fs_snapshotctl PROPERTIES
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "$ORIGIN;$ORIGIN/${library_from_program}")
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
    set_target_properties(f2fs_snapshot_java PROPERTIES
        BUILD_WITH_INSTALL_RPATH ON
        INSTALL_RPATH "$ORIGIN")
    install(TARGETS f2fs_snapshot_java)
    get_target_property(java_api_jar f2fs_snapshot_jar JAR_FILE)
    install(FILES ${java_api_jar} ${java_api_documents} DESTINATION ${CMAKE_INSTALL_DATADIR}/java)
endif()

if(NOT ANDROID)
    install(FILES CHANGELOG.md CONTRIBUTING.md LICENSE README.md
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

# The architecture is the building machine's; a cross build sets CPACK_DEBIAN_PACKAGE_ARCHITECTURE.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME f2fs-snapshot)
set(CPACK_PACKAGE_CONTACT "f2fs_snapshot developers <f2fs_snapshot@example.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "point-in-time snapshots of directory trees on F2FS")
set(CPACK_PACKAGE_DESCRIPTION
"Library and command-line tool that snapshot directory trees on an F2FS volume
through ioctl requests of its driver, and a driver emulator on FUSE to develop
and test with.")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS fuse3)
include(CPack)
