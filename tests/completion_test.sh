#!/usr/bin/env bash
# Types command lines with tabs in them into an interactive bash and compares the arguments that
# the programs get.
#
# usage: completion_test.sh FOLDER_OF_COMPLETIONS
set -euo pipefail
completions=$(realpath -- "$1")

work=$(mktemp -d "${TMPDIR:-/tmp}/completion_test.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{DCIM/sub,Music,"My Files","it's",a:b}
touch "$work/Music file"
cat >"$work/rc" <<END
PS1=
source "$completions/f2fs_snapshot"
source "$completions/f2fs_emulator"
f2fs_snapshot() { printf '<%s>' "\$@"; echo; }
f2fs_emulator() { f2fs_snapshot "\$@"; }
END

line() {
    printf '%b\n' "$1" >>"$work/typed"
    printf '%s\n' "$2" >>"$work/expected"
}

line 'f2fs_snapshot p\t' '<pre>'
line 'f2fs_snapshot c\t' '<create>'
line 'f2fs_snapshot destroy DC\t' '<destroy><DCIM>'
line 'f2fs_snapshot destroy DCIM/s\t' '<destroy><DCIM/sub>'
line 'f2fs_snapshot destroy Mu\t' '<destroy><Music>'
line 'f2fs_snapshot destroy "My\t"' '<destroy><My Files>'
line 'f2fs_snapshot destroy ~/DC\t' "<destroy><$work/DCIM>"
line 'f2fs_snapshot pre DCIM\\;My\t' '<pre><DCIM;My Files>'
line 'f2fs_snapshot pre My\\ Files\\;DC\t' '<pre><My Files;DCIM>'
line 'f2fs_snapshot pre "My Files;DCIM/s\t"' '<pre><My Files;DCIM/sub>'
line "f2fs_snapshot create 'DCIM;Music;My\t' DC\t" '<create><DCIM;Music;My Files><DCIM>'
line 'f2fs_snapshot create "DCIM;it\t" a\t' "<create><DCIM;it's><a:b>"
line 'f2fs_snapshot create DCIM "x;My\t"' '<create><DCIM><x;My>'
line 'f2fs_snapshot testcase DC\t' '<testcase><DC>'
line 'f2fs_emulator --v\t' '<--version>'
line 'f2fs_emulator -f DC\t Mu\t' '<-f><DCIM/><Music/>'
line 'f2fs_emulator -o DC\t' '<-o><DC>'

(cd "$work" && INPUTRC=/dev/null TERM=dumb HOME=$work bash --noprofile --rcfile rc -i <typed) \
    >"$work/got" 2>"$work/errors" || {
    cat "$work/errors" >&2
    exit 1
}
diff "$work/expected" "$work/got"
