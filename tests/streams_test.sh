#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The tool's standard streams: closed ones cost no data, and a verdict that cannot be written is a failure.
#
# usage: streams_test.sh TOOL
set -euo pipefail
tool=$1
work=$(mktemp -d "${TMPDIR:-/tmp}/streams_test.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir "$work/source"
echo precious >"$work/source/file"

# On a file system without the requests the tool logs an error while it has the file open.
for closed in '2>&-' '>&- 2>&-' '<&- >&- 2>&-' '<&- 2>&-'; do
    status=0
    sh -c "\"$tool\" pre \"$work/source\" $closed" >/dev/null || status=$?
    if ((status != 255)) || [[ $(<"$work/source/file") != precious ]]; then
        echo "$closed: exit status $status, and the file holds: $(<"$work/source/file")" >&2
        exit 1
    fi
done

status=0
"$tool" pre "" >/dev/full || status=$?
((status == 1)) || { echo "exit status $status for a verdict that was lost" >&2; exit 1; }
