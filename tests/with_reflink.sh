#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# Runs a test program with its temporary files on a file system that can share blocks: XFS in an image.
# Ends with 77 where such a file system cannot be mounted.
set -u
if [[ $1 != --mounted ]]; then
    exec unshare --mount "$0" --mounted "$@"  # the mount ends with the processes
fi
shift
work=$(mktemp -d) && mkdir "$work/tmp" || exit 1
trap 'umount -q "$work/tmp"; rm -rf "$work"' EXIT
truncate -s 300M "$work/image"
if ! mkfs.xfs -q -m reflink=1 "$work/image" || ! mount -o loop "$work/image" "$work/tmp"; then
    exit 77
fi
chmod 1777 "$work/tmp" && chmod 755 "$work" && TMPDIR=$work/tmp "$@"
