#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs a command on F2FS_SNAPSHOT_TEST_VOLUME. If that is not set, mounts an emulator, which ends with
# the command. Ends with 77 where none can be mounted.
#
# usage: on_emulator.sh EMULATOR COMMAND...
set -euo pipefail
[[ -z ${F2FS_SNAPSHOT_TEST_VOLUME-} ]] || exec "${@:2}"
if [[ ! -w /dev/fuse ]]; then
    echo "skipped: /dev/fuse cannot be used"
    exit 77
fi
if ((EUID == 0)) && [[ ${ON_EMULATOR_UNSHARED-} != yes ]]; then
    # The mount ends with the processes.
    ON_EMULATOR_UNSHARED=yes exec unshare --mount "$0" "$@"
fi

work=$(mktemp -d)
daemon=
cleanup() {
    status=$?
    if [[ -n $daemon ]]; then
        kill "$daemon" 2>/dev/null || true
        wait "$daemon" || true
    fi
    # The daemon says once that its file system cannot share blocks, where that is so.
    if grep -v 'cannot share blocks, so snapshots are plain copies$' "$work/errors" >&2; then
        status=1
    fi
    rm -rf --one-file-system "$work"
    exit "$status"
}
trap cleanup EXIT
mkdir "$work/backing" "$work/volume"
setpriv --pdeathsig KILL "$1" -f "$work/backing" "$work/volume" 2>"$work/errors" &
daemon=$!
until mountpoint -q "$work/volume"; do
    kill -0 "$daemon"
    sleep 0.01
done
F2FS_SNAPSHOT_TEST_VOLUME=$work/volume setpriv --pdeathsig KILL "${@:2}"
