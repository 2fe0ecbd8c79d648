#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a build into a temporary directory, examines the files, uses them from outside the project,
# and uninstalls them again.
#
# usage: BUILD_TYPE=... CXX=... CXXFLAGS=... install_test.sh SOURCE_DIR BUILD_DIR
set -euxo pipefail # every command is shown, since most say nothing when they fail
source=$(realpath -- "$1")
build=$(realpath -- "$2")

work=$(mktemp -d "${TMPDIR:-/tmp}/install_test.XXXXXX")
prefix=$work/prefix
manifest=$build/install_manifest.txt
cleanup() {
    rm -f "$manifest"
    [[ ! -e $work/manifest ]] || mv "$work/manifest" "$manifest"
    rm -rf "$work"
}
trap cleanup EXIT
[[ ! -e $manifest ]] || cp -p "$manifest" "$work/manifest" # of the user's own installation

# A program must be hardened as far as the build type allows, and contain no path of the building machine.
# Its run paths must be relative to itself, or lead to Debian's liblog.
look_at() {
    local program=$1
    readelf -W -h -l -d --dyn-syms "$program" >"$work/readelf"
    grep -q 'Type: *DYN ' "$work/readelf"
    grep -q 'GNU_RELRO' "$work/readelf"
    grep -qE 'BIND_NOW|Flags: NOW' "$work/readelf"
    if [[ ${program##*/} != f2fs_snapshot ]]; then # which has no code of its own
        grep -q '__stack_chk_fail' "$work/readelf"
        [[ $program != */libf2fs_snapshot.so.* || $BUILD_TYPE != *Rel* ]] || grep -q '_chk@' "$work/readelf"
    fi
    diff /dev/null <(grep -c -a -F -e "$source" -e "$build" "$program" | grep -vx 0)
    diff /dev/null <(sed -n 's/.*RUNPATH.*\[\(.*\)\]/\1/p' "$work/readelf" | tr : '\n' |
        grep -vE "^[$]ORIGIN(/|$)|^/usr/lib/[^/]*/android$")
}

cmake --install "$build" --prefix "$prefix" >"$work/said"
grep "The loader does not search $prefix/lib" "$work/said"
if unshare --mount true; then # as root: the hint for a directory that the loader does search
    unshare --mount bash -ec "mount -t tmpfs none /usr/local
        cmake --install ${build@Q} --prefix /usr/local" >"$work/said"
    grep 'Run ldconfig as root, so that programs find the libraries in /usr/local/lib' "$work/said"
    cmake --install "$build" --prefix "$prefix" >"$work/said" # for the uninstallation below
fi
"$source/tests/use_installed.sh" "$prefix"
"$source/tests/sbom_test.py" "$prefix"
while read -r program; do
    look_at "$program"
done < <(find "$prefix" -type f \( -perm /111 -o -name '*.so*' \) -exec grep -l '^.ELF' {} +)
env --chdir="$build" cmake -P "$source/cmake/Uninstall.cmake"
diff /dev/null <(find "$prefix" ! -type d -o -name '*f2fs*')
