#!/usr/bin/env bash
# Installs a build into a temporary folder, uses what is there as an outsider would, and uninstalls
# it again; then the same with the Debian package on the system itself, where that may be done.
#
# usage: install_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
source=$(realpath -- "$1")
build=$(realpath -- "$2")

package=f2fs-snapshot
work=$(mktemp -d "${TMPDIR:-/tmp}/install_test.XXXXXX")
manifest=$build/install_manifest.txt
package_installed=

cleanup() {
    [[ -z $package_installed ]] || dpkg --purge "$package" >/dev/null
    rm -f "$manifest"
    [[ ! -e $work/manifest ]] || mv "$work/manifest" "$manifest"  # of the user's own installation
    rm -rf "$work"
}
trap cleanup EXIT
[[ ! -e $manifest ]] || cp -p "$manifest" "$work/manifest"

fail() {
    echo "install_test: $*" >&2
    exit 1
}

# Runs a command that has nothing to say unless it fails.
quietly() {
    "$@" >"$work/output" 2>&1 || {
        cat "$work/output" >&2
        fail "failed: $*"
    }
}

from_cache() {
    sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"
}

mkdir "$work/outside"
cat >"$work/outside/main.cpp" <<'END'
#include <f2fs_snapshot/f2fs_ioctl.h>
#include <f2fs_snapshot/paths.h>
#include <f2fs_snapshot/snapshot.h>

int main() {
    std::vector<std::string> paths;
    splitDirsString("/a;;/b;", ';', paths);
    return paths == std::vector<std::string>{"/a", "/b"} && revokeDedupFile(-1) == -1 &&
                   PreCreateDirSnapshot({}) == 0 ? 0 : 1;
}
END
cat >"$work/outside/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.22)
project(outside CXX)
find_package(f2fs_snapshot 1.0 REQUIRED)
add_executable(outside main.cpp)
target_link_libraries(outside PRIVATE f2fs_snapshot::f2fs_snapshot)
END
compiler=$(from_cache CMAKE_CXX_COMPILER)
read -ra flags < <(from_cache CMAKE_CXX_FLAGS) || true

# Builds the outside program in both ways against the installation below a prefix.
use_library() {
    local prefix=$1 by_cmake=$work/by_cmake by_pkgconfig=$work/by_pkgconfig config config_flags
    rm -rf "$by_cmake"
    quietly cmake -S "$work/outside" -B "$by_cmake" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_CXX_COMPILER="$compiler" -DCMAKE_CXX_FLAGS="${flags[*]}"
    grep -q "^f2fs_snapshot_DIR:PATH=$prefix/" "$by_cmake/CMakeCache.txt" ||
        fail "find_package has found another installation than the one in $prefix"
    quietly cmake --build "$by_cmake"
    quietly "$by_cmake/outside"
    grep -q 'invalid file_handle = -1' "$work/output" || fail "the library has not logged"

    config=$(find "$prefix"/lib* -name f2fs_snapshot.pc)
    export PKG_CONFIG_PATH=${config%/*}
    read -ra config_flags < <(pkg-config --cflags --libs f2fs_snapshot)
    quietly "$compiler" "${flags[@]}" -std=c++17 "$work/outside/main.cpp" "${config_flags[@]}" \
        -o "$by_pkgconfig"
    quietly env LD_LIBRARY_PATH="$(pkg-config --variable=libdir f2fs_snapshot)" "$by_pkgconfig"
}

use_programs() {
    local bin=$1
    [[ $("$bin/f2fs_snapshot" pre "" 2>/dev/null) == "execute sucess" ]] ||
        fail "$bin/f2fs_snapshot does not run"
    [[ ! -e $build/emulator/f2fs_emulator ]] || quietly "$bin/f2fs_emulator" --version
}

install_and_uninstall() {
    local prefix=$work/prefix left
    quietly cmake --install "$build" --prefix "$prefix"
    use_programs "$prefix/bin"
    use_library "$prefix"
    quietly env --chdir="$build" cmake -P "$source/cmake/Uninstall.cmake"
    left=$(find "$prefix" ! -type d -o -name '*f2fs*')
    [[ -z $left ]] || fail "left by uninstall: $left"
    echo "installed, used and uninstalled"
}

why_no_package() {
    if ((EUID != 0)); then
        echo "not root"
    elif ! command -v dpkg-shlibdeps >/dev/null || ! command -v file >/dev/null; then
        echo "dpkg-dev and file are needed"
    elif dpkg-query -W "$package" >/dev/null 2>&1; then
        echo "$package is installed on this system"
    fi
}

package_and_remove() {
    local file left
    quietly cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/package"
    file=$(find "$work/package" -maxdepth 1 -name '*.deb')
    dpkg-deb -f "$file" Depends | grep -q 'android-liblog.*libc6' ||
        fail "dependencies: $(dpkg-deb -f "$file" Depends)"
    package_installed=yes
    quietly dpkg --install "$file"
    dpkg -L "$package" >"$work/listed"
    use_programs /usr/bin
    use_library /usr
    ! command -v man >/dev/null || quietly man -w f2fs_snapshot
    quietly dpkg --purge "$package"
    package_installed=
    left=$(while read -r path; do
        [[ -d $path && $path != *f2fs* ]] || find "$path" 2>/dev/null
    done <"$work/listed" || true)
    [[ -z $left ]] || fail "left by the package: $left"
    echo "package built, installed, used and removed"
}

install_and_uninstall
reason=$(why_no_package)
if [[ -n $reason ]]; then
    echo "Debian package skipped: $reason"
else
    package_and_remove
fi
