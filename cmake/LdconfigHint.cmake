# SPDX-License-Identifier: Apache-2.0
# Run after the installation, with `library` set to the name of a shared library in `directory`: says what
# is left to do before other programs find it. A package (DESTDIR) leaves that to the package manager.
find_program(ldconfig ldconfig PATHS /usr/sbin /sbin)
if("$ENV{DESTDIR}" STREQUAL "" AND ldconfig)
    execute_process(COMMAND ${ldconfig} -p OUTPUT_VARIABLE known)
    execute_process(COMMAND ${ldconfig} -N -X -v OUTPUT_VARIABLE searched ERROR_QUIET)
    string(FIND "${known}" "=> ${directory}/${library}\n" known_at)
    string(FIND "\n${searched}" "\n${directory}:" searched_at)
    if(known_at LESS 0 AND searched_at GREATER_EQUAL 0)
        message(STATUS "Run ldconfig as root, so that programs find the libraries in ${directory}")
    elseif(known_at LESS 0)
        message(STATUS "The loader does not search ${directory}: programs that use the libraries need "
            "it as run path, or LD_LIBRARY_PATH")
    endif()
endif()
