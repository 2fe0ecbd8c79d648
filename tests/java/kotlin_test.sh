#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compiles and runs examples/java/FirstSnapshot.kt, which docs/java.md shows.
#
# usage: kotlin_test.sh KOTLINC JAVA SOURCE_DIR API_JAR LIBRARY_DIR
set -euo pipefail
kotlinc=$1 java=$2 source=$3 api=$4 library=$5
work=$(mktemp -d)
trap 'rm -rf "$work" "$F2FS_SNAPSHOT_TEST_VOLUME"/kotlin' EXIT

example=$source/examples/java/FirstSnapshot.kt
diff <(sed '1d' "$example") <(sed -n '/^\x60\{3\}kotlin$/,/^\x60\{3\}$/{/^\x60/d; p}' "$source/docs/java.md")
kotlin=/usr/share/java/kotlin-stdlib.jar:/usr/share/java/kotlin-stdlib-jdk7.jar
"$kotlinc" -cp "$api:$kotlin" "$example" -d "$work/first.jar"
mkdir -p "$F2FS_SNAPSHOT_TEST_VOLUME/kotlin/photos"
cd "$F2FS_SNAPSHOT_TEST_VOLUME/kotlin"
echo sunset >photos/1.jpg
"$java" -Djava.library.path="$library" -cp "$work/first.jar:$api:$kotlin" \
    FirstSnapshotKt photos store | grep '/photos/1.jpg$'
[[ -z $(ls -A store) ]]
