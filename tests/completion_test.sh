#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Types command lines with tabs in them into an interactive bash and compares the arguments that
# the programs get.
#
# usage: completion_test.sh COMPLETIONS_DIR
set -euo pipefail
completions=$(realpath -- "$1")

work=$(mktemp -d "${TMPDIR:-/tmp}/completion_test.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{DCIM/sub,Music,"My Files","it's",a:b}
touch "$work/Movie"
cat >"$work/rc" <<END
PS1=
source "$completions/f2fs_snapshot"
source "$completions/f2fs_emulator"
source "$completions/f2fs_driver_check"
f2fs_snapshot() { printf '<%s>' "\$@"; echo; }
f2fs_emulator() { f2fs_snapshot "\$@"; }
f2fs_driver_check() { [[ \$* != --list ]] && f2fs_snapshot "\$@" || printf '%s\n' mark.placed mark.race; }
END

line() {
    printf '%b\n' "$1" >>"$work/typed"
    printf '%s\n' "$2" >>"$work/expected"
}
line 'f2fs_snapshot d\t' '<destroy>'
line 'f2fs_snapshot destroy DCIM/s\t' '<destroy><DCIM/sub>'
line 'f2fs_snapshot destroy Mo\t' '<destroy><Mo>' # a file
line 'f2fs_snapshot destroy ~/DC\t' "<destroy><$work/DCIM>"
line 'f2fs_snapshot pre My\\ Files\\;My\t' '<pre><My Files;My Files>'
line "f2fs_snapshot create 'DCIM;Music;My\t' DC\t" '<create><DCIM;Music;My Files><DCIM>'
line 'f2fs_snapshot create "DCIM;it\t" a\t' "<create><DCIM;it's><a:b>"
line 'f2fs_snapshot create DCIM "x;My\t"' '<create><DCIM><x;My>'
line 'f2fs_snapshot testcase DC\t' '<testcase><DC>'
line 'f2fs_emulator --v\t' '<--version>'
line 'f2fs_emulator -f DC\t Mu\t' '<-f><DCIM/><Music/>'
line 'f2fs_driver_check --kt\t DC\t' '<--ktap><DCIM/>'
line 'f2fs_driver_check --stage=a\t DC\t' '<--stage=after><DCIM/>'
line 'f2fs_driver_check --only mark.p\t DC\t' '<--only><mark.placed><DCIM/>'
line 'f2fs_emulator -o DC\t' '<-o><DC>'

cd "$work"
INPUTRC=/dev/null TERM=dumb HOME=$work bash --noprofile --rcfile rc -i <typed >got 2>errors ||
    cat errors >&2
diff expected got
