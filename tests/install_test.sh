#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build into a temporary folder, uses what is there as an outsider would, and uninstalls
# it again; then the same with the Debian package on the system itself, where that may be done.
#
# usage: CXX=... CXXFLAGS=... install_test.sh SOURCE_DIR BUILD_DIR
set -euxo pipefail # every command is shown, since most say nothing when they fail
source=$(realpath -- "$1")
build=$(realpath -- "$2")

package=f2fs-snapshot
work=$(mktemp -d "${TMPDIR:-/tmp}/install_test.XXXXXX")
manifest=$build/install_manifest.txt
package_installed=

cleanup() {
    [[ -z $package_installed ]] || dpkg --purge "$package" >/dev/null
    rm -f "$manifest"
    [[ ! -e $work/manifest ]] || mv "$work/manifest" "$manifest"
    rm -rf "$work"
}
trap cleanup EXIT
[[ ! -e $manifest ]] || cp -p "$manifest" "$work/manifest" # of the user's own installation

mkdir "$work/outside"
cat >"$work/outside/main.cpp" <<'END'
#include <f2fs_snapshot/f2fs_ioctl.h>
#include <f2fs_snapshot/path_list.h>
#include <f2fs_snapshot/snapshot.h>

int main() {
    std::vector<std::string> paths;
    splitDirsString(";", ';', paths);
    return PreCreateDirSnapshot(paths) == 0 && revokeDedupFile(-1) == -1 ? 0 : 1;
}
END
cat >"$work/outside/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.22)
project(outside CXX)
find_package(f2fs_snapshot 1.0 REQUIRED)
add_executable(outside main.cpp)
target_link_libraries(outside PRIVATE f2fs_snapshot::f2fs_snapshot)
END

# Uses the installation below a prefix: its programs, and its library in both ways.
use() {
    local prefix=$1 config flags library
    "$prefix/bin/f2fs_snapshot" pre ""
    [[ ! -e $build/emulator/f2fs_emulator ]] || "$prefix/bin/f2fs_emulator" --version
    if [[ -e $build/manager/f2fs_snapshotctl ]]; then
        mkdir -m 700 "$work/store"
        # Gets as far as the installed helper: there is no driver here.
        "$prefix/bin/f2fs_snapshotctl" -s "$work/store" create "$work/outside" 2>"$work/errors" &&
            exit 1
        grep 'has no driver' "$work/errors"
        rmdir "$work/store"
    fi
    if [[ -e $build/java/f2fs_snapshot.jar ]]; then
        # Gets as far, through the jar and its native library.
        library=$(find "$prefix"/lib* -name libf2fs_snapshot_java.so)
        java -cp "$prefix/share/java/f2fs_snapshot.jar" -Djava.library.path="${library%/*}" \
            "$source/examples/java/FirstSnapshot.java" "$work/outside" "$work/store" \
            2>"$work/errors" && exit 1
        grep 'SnapshotException.* has no driver' "$work/errors"
        rmdir "$work/store"
    fi

    rm -rf "$work/by_cmake"
    cmake -S "$work/outside" -B "$work/by_cmake" -DCMAKE_PREFIX_PATH="$prefix"
    grep "^f2fs_snapshot_DIR:PATH=$prefix/" "$work/by_cmake/CMakeCache.txt" # and no other one
    cmake --build "$work/by_cmake"
    "$work/by_cmake/outside" 2>&1 | grep 'invalid file_handle = -1' # which the library logs

    config=$(find "$prefix"/lib* -name f2fs_snapshot.pc)
    export PKG_CONFIG_PATH=${config%/*}
    read -ra flags <<<"${CXXFLAGS-} $(pkg-config --cflags --libs f2fs_snapshot)"
    "$CXX" -std=c++17 "$work/outside/main.cpp" "${flags[@]}" -o "$work/by_pkgconfig"
    LD_LIBRARY_PATH="$(pkg-config --variable=libdir f2fs_snapshot)" "$work/by_pkgconfig"
}

cmake --install "$build" --prefix "$work/prefix"
use "$work/prefix"
env --chdir="$build" cmake -P "$source/cmake/Uninstall.cmake"
diff /dev/null <(find "$work/prefix" ! -type d -o -name '*f2fs*')

if ((EUID != 0)) || ! hash dpkg-shlibdeps file || dpkg-query -W "$package" 2>/dev/null; then
    echo "Debian package skipped: needs root, dpkg-dev and file, and no $package installed"
    exit
fi
cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package"
dpkg-deb -f "$work"/package/*.deb Depends | grep 'android-liblog.*libc6'
package_installed=yes
dpkg --install "$work"/package/*.deb
dpkg -L "$package" | grep f2fs >"$work/listed"
use /usr
! hash man || man -w f2fs_snapshot
dpkg --purge "$package"
package_installed=
diff /dev/null <(xargs ls -d <"$work/listed" 2>/dev/null)
