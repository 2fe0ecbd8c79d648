#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Types command lines with tabs in them into interactive shells and compares the arguments that the
# program gets; fish is asked for its candidates. Shells that are not installed are left out, except
# bash.
#
# usage: completion_test.sh COMPLETIONS_DIR
set -euo pipefail
completions=$(realpath -- "$1")

work=$(mktemp -d "${TMPDIR:-/tmp}/completion_test.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{DCIM/sub,Music,my.store,bin}
# Lists two snapshots in my.store and none elsewhere; prints the arguments of all other calls.
cat >"$work/bin/f2fs_snapshotctl" <<'END_PROGRAM'
#!/bin/sh
if [ "$3 $4" = "--quiet list" ]; then
    [ "$2" != "$PWD/my.store" ] || printf 'nightly\nbefore update\n'
else
    printf '<%s>' "$@"
    echo
fi
END_PROGRAM
chmod +x "$work/bin/f2fs_snapshotctl"
cd "$work"
export PATH=$work/bin:$PATH HOME=$work TERM=dumb F2FS_SNAPSHOT_STORE=

common=(
    'de\t' '<destroy>'
    '--j\t list' '<--json><list>'
    'create --na\t x DC\t' '<create><--name><x><DCIM>'
    'check DCIM/s\t' '<check><DCIM/sub>'
    "--store $work/my.store show ni\t" "<--store><$work/my.store><show><nightly>"
    "destroy -s $work/my.store be\t" "<destroy><-s><$work/my.store><before update>"
    "-s $work/my.store restore ni\t Mu\t" "<-s><$work/my.store><restore><nightly><Music>"
    'prune --keep-d\t 3' '<prune><--keep-daily><3>'
    'verify --w\t 3 --a\t' '<verify><--wait><3><--all>'
)
bash_only=(
    "-s ~/my.st\t destroy ni\t" "<-s><$work/my.store><destroy><ni>" # not a path of that store
    'run DC\t -- pri\tf' '<run><DCIM><--><printf>'
)

in_bash() {
    printf 'PS1=\nsource "%s/f2fs_snapshotctl"\n' "$completions" >rc
    printf "f2fs_snapshotctl %b\n" "$@" >typed
    INPUTRC=/dev/null bash --noprofile --rcfile rc -i <typed 2>errors || cat errors >&2
}

# zsh completes on a terminal only. Each line is answered before the next one is typed.
in_zsh() {
    cat >driver.zsh <<'END_DRIVER'
zmodload zsh/zpty
zpty shell zsh -f -i
zpty -w shell "stty columns 1000; PS1= fpath=($1 \$fpath); autoload compinit; compinit -u -D; echo rea''dy"
zpty -r shell answer '*ready*'
shift
for line; do
    zpty -w shell "f2fs_snapshotctl $(print -- $line)"
    zpty -r shell answer $'*<*>\r*'
    print -r -- "<${${answer#*<}%%$'\r'*}"
done
END_DRIVER
    timeout 120 zsh -f driver.zsh "$completions/zsh" "$@"
}

# compare SHELL LINE EXPECTED...
compare() {
    local shell=$1 lines=() i
    shift
    for ((i = 1; i <= $#; i += 2)); do lines+=("${!i}"); done
    for ((i = 2; i <= $#; i += 2)); do echo "${!i}"; done >expected
    # Whether a directory ends in '/' is a matter of taste.
    "in_$shell" "${lines[@]}" | sed 's,/>,>,g' >got
    diff expected got
    echo "$shell: ${#lines[@]} lines"
}

compare bash "${common[@]}" "${bash_only[@]}"
if hash zsh 2>/dev/null; then
    compare zsh "${common[@]}"
else
    echo "zsh: skipped, it is not installed"
fi
if hash fish 2>/dev/null; then
    # fish_candidates LINE EXPECTED
    fish_candidates() {
        diff <(fish --no-config -c "source $completions/fish/f2fs_snapshotctl.fish
            complete -C 'f2fs_snapshotctl $1'" | cut -f 1) <(printf '%b' "$2")
    }
    fish_candidates de 'destroy\n'
    fish_candidates "--store $work/my.store show " 'before update\nnightly\n'
    fish_candidates 'create --na' '--name\n'
    fish_candidates 'check DC' 'DCIM/\n'
    fish_candidates 'prune --keep-d' '--keep-daily\n'
    echo "fish: 5 lines"
else
    echo "fish: skipped, it is not installed"
fi
