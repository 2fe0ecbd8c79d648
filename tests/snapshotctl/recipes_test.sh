#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the recipes of docs/backup.md, taken from the page, on an emulated volume, while writers change
# it, and checks the results. A recipe whose programs are not installed is left out.
#
# usage: recipes_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail
page=$(realpath -- "$1/docs/backup.md")
build=$(realpath -- "$2")

work=$(mktemp -d "${TMPDIR:-/tmp}/recipes_test.XXXXXX")
volume=$work/volume
writer=

cleanup() {
    stop_writer
    ! mountpoint -q "$volume" || fusermount3 -u "$volume" || fusermount3 -uz "$volume"
    rm -rf --one-file-system "$work"
}

stop_writer() {
    [[ -n $writer ]] || return 0
    kill "$writer" 2>/dev/null || true
    wait "$writer" 2>/dev/null || true
    writer=
}
trap cleanup EXIT

# The nth code block of a kind below a heading, with the paths of this test.
recipe() {
    awk -v heading="$1" -v start="\`\`\`$2" -v wanted="$3" '
        /^#+ / { here = ($0 == heading) }
        here && $0 == start { inside = (++block == wanted); next }
        /^```/ { inside = 0 }
        inside' "$page" | sed "s,/data/media/0,$volume,g; s,/mnt/backup,$work/backup,g" >"$work/recipe"
    [[ -s $work/recipe ]] || { echo "no block $3 of $2 below \"$1\"" && return 1; }
    cat "$work/recipe"
}

# Executes the nth shell block below a heading.
follow() {
    recipe "$1" sh "$2" >/dev/null
    echo "== $1"
    insist "$1"
}

# Executes the recipe; tries again while the writer does not rest long enough for a snapshot.
insist() {
    local attempt
    for attempt in {1..30}; do
        if bash -eu "$work/recipe" 2>"$work/errors"; then
            return
        fi
        grep -q "kept changing" "$work/errors" || break
    done
    cat "$work/errors" >&2
    fail "attempt $attempt of $1"
}

has() {
    local program
    for program; do
        hash "$program" 2>/dev/null || { echo "skipped: $program is not installed" && return 1; }
    done
}

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# One writer appends the same number to two files, one after the other: in a state of one instant they
# are equal, or the first is ahead by one.
write_pairs() {
    local number=0
    while :; do
        number=$((number + 1))
        echo "$number" >>"$volume/DCIM/first"
        echo "$number" >>"$volume/DCIM/Camera/second"
        ((number % 20 > 0)) || sleep 0.3
    done
}

expect_one_instant() {
    local first second
    first=$(wc -l <"$1/first")
    second=$(wc -l <"$1/Camera/second")
    ((first - second == 0 || first - second == 1)) || fail "$1 has $first and $second numbers"
    ((first > 0)) || fail "$1 is empty"
    cmp "$1/photo.jpg" "$volume/DCIM/photo.jpg"
}

if [[ ! -w /dev/fuse ]] || ! { ((EUID != 0)) || unshare --mount true; }; then
    echo "skipped: volumes cannot be mounted here"
    exit 77
fi
mkdir "$work"/{backing,volume,backup,bin}
ln -s "$build/manager/f2fs_snapshotctl" "$work/bin/"
# A directory stands for the machine that ssh connects to.
cat >"$work/bin/ssh" <<END
#!/bin/sh
shift && cd "$work/backup" && exec sh -c "\$*"
END
chmod +x "$work/bin/ssh"
export PATH=$work/bin:$PATH
"$build/emulator/f2fs_emulator" "$work/backing" "$volume"
mkdir -p "$volume/DCIM/Camera" "$volume/notes"
head -c 300000 /dev/urandom >"$volume/DCIM/photo.jpg"
chmod 640 "$volume/DCIM/photo.jpg"
touch -d 2020-02-02T02:02:02Z "$volume/DCIM/photo.jpg"
export F2FS_SNAPSHOT_STORE=$volume/.snapshots
write_pairs &
writer=$!

follow "# Backup recipes" 1

if has bsdtar; then
    follow "## Stream with tar" 1
    mkdir "$work/tar"
    tar -x -p -C "$work/tar" -f "$work/backup/dcim.tar"
    expect_one_instant "$work/tar$volume/DCIM"
    [[ $(stat -c '%a %Y' "$work/tar$volume/DCIM/photo.jpg") == "640 1580608922" ]] || fail "mode or time"
fi

if has rsync; then
    follow "## Copy with rsync" 1
    expect_one_instant "$work/backup/dcim"
fi

if has restic; then
    export RESTIC_REPOSITORY=$work/backup/restic RESTIC_PASSWORD_FILE=$work/backup/password
    echo secret >"$RESTIC_PASSWORD_FILE"
    restic init --quiet
    follow "## Back up with restic" 1
    follow "## Back up with restic" 1
    [[ $(restic snapshots --json | tr ',' '\n' | grep -c '"parent"') == 1 ]] || fail "the last backup was not found"
    restic restore --quiet latest --target "$work/restic"
    expect_one_instant "$work/restic$F2FS_SNAPSHOT_STORE/restic/snapshot$volume/DCIM"
fi

echo "== units"
heading="## Keep a history, every night"
recipe "$heading" ini 1 | sed "s,/usr/bin/,$work/bin/," >"$work/f2fs-snapshot.service"
recipe "$heading" ini 2 >"$work/f2fs-snapshot.timer"
if has systemd-analyze; then
    systemd-analyze verify "$work/f2fs-snapshot.service" "$work/f2fs-snapshot.timer" 2>&1 |
        tee "$work/said"
    ! grep "$work" "$work/said" || fail "systemd complains about a unit"
fi
# Three nights.
sed -n 's/^ExecStart=//p' "$work/f2fs-snapshot.service" >"$work/recipe"
[[ $(wc -l <"$work/recipe") == 2 ]] || fail "the service has other commands"
for night in 1 2 3; do
    insist "night $night"
done
# The last two, and the oldest, which rules keep that find fewer snapshots than they may keep.
[[ $(f2fs_snapshotctl --quiet list | wc -l) == 3 ]] || fail "prune kept another number"
follow "$heading" 1
newest=$(f2fs_snapshotctl --quiet list | tail -n 1)
diff -r "$volume/back$volume/DCIM/Camera" "$F2FS_SNAPSHOT_STORE/$newest/snapshot$volume/DCIM/Camera"
[[ $(ls "$volume/back$volume/DCIM") == Camera ]] || fail "more was restored than asked for"
stop_writer

# Two tables that each transaction changes together; the log is checkpointed often.
write_transactions() {
    local number=0
    while :; do
        number=$((number + 1))
        echo "BEGIN; INSERT INTO one VALUES ($number, hex(randomblob(2000)));
            INSERT INTO other VALUES ($number); COMMIT;"
        ((number % 20 > 0)) || sleep 0.3
    done
}
if has sqlite3; then
    { echo "PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=20;
        CREATE TABLE one (number, filler); CREATE TABLE other (number);" && write_transactions; } |
        sqlite3 "$volume/notes/notes.db" >/dev/null &
    writer=$!
    before=0
    until [[ -s $volume/notes/notes.db-wal ]]; do sleep 0.05; done
    for _ in {1..8}; do
        rm -rf "$work/backup/notes"
        follow "## Capture a database" 1 | tee "$work/said"
        grep -qx ok "$work/said" || fail "the database is damaged"
        IFS='|' read -r one other < <(sqlite3 "$work/backup/notes/notes.db" \
            'SELECT (SELECT count(*) FROM one), (SELECT count(*) FROM other)')
        ((one == other && one >= before)) || fail "the tables have $one and $other rows, $before before"
        before=$one
    done
    ((before > 0)) || fail "nothing was written"
    stop_writer
fi
