#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the functions that the manager's library exports with those that its header declares: they
# must be the same.
#
# usage: exports.sh LIBRARY HEADER
set -euo pipefail

mapfile -t declared < <(tr '\n' ' ' <"$2" | grep -oE 'F2FS_SNAPSHOT_MANAGER_API [^(]*\(' |
    grep -oE 'f2fs_snapshot_[a-z_]+\(' | tr -d '(' | LC_ALL=C sort)
exported=$(nm -D --defined-only "$1" | sed -n 's/^[^ ]* T //p' | LC_ALL=C sort)
diff <(printf '%s@@F2FS_SNAPSHOT_MANAGER_1.0\n' "${declared[@]}") <(printf '%s\n' "$exported")
