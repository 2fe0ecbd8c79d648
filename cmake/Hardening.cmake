# SPDX-License-Identifier: Apache-2.0
# Flags that every build has: hardened programs, and the same bytes from the same sources, wherever
# and in which build type they are built. They come before CXXFLAGS and LDFLAGS, which can undo each.
# The NDK and the platform bring their own.
if(ANDROID)
    return()
endif()
include(CheckCXXCompilerFlag)
include(CheckPIESupported)

check_pie_supported(LANGUAGES CXX)
if(NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE)
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()
foreach(flag stack-protector-strong stack-clash-protection cf-protection)
    string(MAKE_C_IDENTIFIER "HAVE_${flag}" have)
    check_cxx_compiler_flag(-f${flag} ${have})
    if(${have})
        string(PREPEND CMAKE_CXX_FLAGS "-f${flag} ")
    endif()
endforeach()
foreach(kind EXE SHARED MODULE)
    string(PREPEND CMAKE_${kind}_LINKER_FLAGS "-Wl,-z,relro -Wl,-z,now ")
endforeach()
# _FORTIFY_SOURCE needs an optimised build, and interferes with a sanitizer's own checks.
if(NOT F2FS_SNAPSHOT_SANITIZE AND NOT CMAKE_CXX_FLAGS MATCHES "_FORTIFY_SOURCE|-fsanitize")
    foreach(type RELEASE RELWITHDEBINFO MINSIZEREL)
        string(PREPEND CMAKE_CXX_FLAGS_${type} "-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 ")
    endforeach()
endif()

# A debugger finds the sources when it is started in the root of the checkout.
if(NOT CMAKE_CXX_FLAGS MATCHES "-prefix-map=")
    add_compile_options(
        -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}=.)
endif()
