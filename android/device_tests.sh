#!/system/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Runs f2fs_driver_check, or a test program, in a new directory of a volume, and removes the directory.
#
# usage: device_tests.sh PROGRAM [ARGUMENT...]     PROGRAM: a path relative to this script's directory
#
# The directory is made in TMPDIR, or in /data/local/tmp.
set -u
here=$(cd "${0%/*}" && pwd) || exit 2
program=${1:?which program?}
shift
TMPDIR=$(mktemp -d "${TMPDIR:-/data/local/tmp}/f2fs_snapshot_tests.XXXXXX") || exit 2
trap 'cd / && rm -rf "$TMPDIR"' EXIT
trap 'exit 130' HUP INT TERM
export TMPDIR F2FS_SNAPSHOT_TEST_VOLUME="$TMPDIR" LD_LIBRARY_PATH="$here"
cd "$TMPDIR" || exit 2
case $program in
    *f2fs_driver_check*) "$here/$program" "$@" "$TMPDIR" ;;
    *) "$here/$program" --gtest_brief=1 "$@" ;;
esac
