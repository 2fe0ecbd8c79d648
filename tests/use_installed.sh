#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Uses an installation below a prefix from outside the project: its programs, and its libraries by CMake
# and by pkg-config.
#
# usage: [CXX=...] [CXXFLAGS=...] use_installed.sh PREFIX
set -euxo pipefail # every command is shown, since most say nothing when they fail
prefix=$1
example=$(dirname "$0")/../examples/java/FirstSnapshot.java
work=$(mktemp -d "${TMPDIR:-/tmp}/use_installed.XXXXXX")
cleanup() {
    ! mountpoint -q "$work/volume" || fusermount3 -u "$work/volume" || fusermount3 -uz "$work/volume"
    rm -rf --one-file-system "$work"
}
trap cleanup EXIT

mkdir "$work/outside"
cat >"$work/outside/main.cpp" <<'PROGRAM'
#include <f2fs_snapshot/f2fs_ioctl.h>
#include <f2fs_snapshot/path_list.h>
#include <f2fs_snapshot/snapshot.h>

int main() {
    std::vector<std::string> paths;
    splitDirsString(";", ';', paths);
    return PreCreateDirSnapshot(paths) == 0 && revokeDedupFile(-1) == -1 ? 0 : 1;
}
PROGRAM
cat >"$work/outside/CMakeLists.txt" <<'PROJECT'
cmake_minimum_required(VERSION 3.22)
project(outside CXX)
find_package(f2fs_snapshot 1.0 REQUIRED)
add_executable(outside main.cpp)
target_link_libraries(outside PRIVATE f2fs_snapshot::f2fs_snapshot)
PROJECT

"$prefix/bin/f2fs_snapshot" pre ""
if [[ -e $prefix/bin/f2fs_emulator && -e $prefix/bin/f2fs_snapshotctl && -c /dev/fuse ]]; then
    mkdir "$work/backing" "$work/volume"
    "$prefix/bin/f2fs_emulator" "$work/backing" "$work/volume"
    mkdir "$work/volume/photos"
    mkdir -m 700 "$work/volume/store"
    echo data >"$work/volume/photos/file"
    "$prefix/bin/f2fs_snapshotctl" -s "$work/volume/store" create --name first "$work/volume/photos"
    grep data "$work/volume/store/first/snapshot$work/volume/photos/file"
    if [[ -e $prefix/share/java/f2fs_snapshot.jar ]]; then
        options=(-cp "$prefix/share/java/f2fs_snapshot.jar")
        if [[ $prefix != /usr ]]; then # there Debian's VM finds the library by itself
            library=$(find "$prefix"/lib* -name libf2fs_snapshot_java.so)
            options+=(-Djava.library.path="${library%/*}")
        fi
        java "${options[@]}" "$example" "$work/volume/photos" "$work/volume/store" | grep '^all as of'
    fi
    fusermount3 -u "$work/volume"
fi

cmake -S "$work/outside" -B "$work/by_cmake" -DCMAKE_PREFIX_PATH="$prefix"
grep "^f2fs_snapshot_DIR:PATH=$prefix/" "$work/by_cmake/CMakeCache.txt" # and no other one
cmake --build "$work/by_cmake"
"$work/by_cmake/outside" 2>&1 | grep 'invalid file_handle = -1' # which the library logs

config=$(find "$prefix"/lib* -name f2fs_snapshot.pc)
export PKG_CONFIG_PATH=${config%/*}
LD_LIBRARY_PATH=$(pkg-config --variable=libdir f2fs_snapshot)
export LD_LIBRARY_PATH
read -ra flags <<<"${CXXFLAGS-} $(pkg-config --cflags --libs f2fs_snapshot)"
"${CXX:-c++}" -std=c++17 "$work/outside/main.cpp" "${flags[@]}" -o "$work/by_pkgconfig"
"$work/by_pkgconfig"
if [[ -e ${config%/*}/f2fs_snapshot_manager.pc ]]; then
    cat >"$work/manager.cpp" <<'PROGRAM'
#include <f2fs_snapshot/f2fs_snapshot_manager.h>
#include <stdio.h>

int main() {
    return puts(f2fs_snapshot_manager_version()) < 0;
}
PROGRAM
    read -ra flags <<<"${CXXFLAGS-} $(pkg-config --cflags --libs f2fs_snapshot_manager)"
    "${CXX:-c++}" "$work/manager.cpp" "${flags[@]}" -o "$work/manager"
    [[ $("$work/manager") == $(pkg-config --modversion f2fs_snapshot_manager) ]]
fi
