# SPDX-License-Identifier: Apache-2.0
# Removes what the last `cmake --install` put in place, by its manifest in the build directory, and the
# directories named f2fs_snapshot where that leaves them empty.
#
# usage, in the build directory: cmake -P .../Uninstall.cmake   (the target `uninstall` does that)
set(manifest ${CMAKE_CURRENT_BINARY_DIR}/install_manifest.txt)
if(NOT EXISTS ${manifest})
    message(FATAL_ERROR "nothing to uninstall: there is no ${manifest}")
endif()
file(STRINGS ${manifest} files)
foreach(file IN LISTS files)
    file(REMOVE $ENV{DESTDIR}${file})
    get_filename_component(directory $ENV{DESTDIR}${file} DIRECTORY)
    set(result 0)
    while(result EQUAL 0 AND directory MATCHES "/f2fs_snapshot(/|$)")
        execute_process(COMMAND rmdir ${directory} RESULT_VARIABLE result ERROR_QUIET)
        get_filename_component(directory ${directory} DIRECTORY)
    endwhile()
endforeach()
file(REMOVE ${manifest})
