#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Compares the dynamic symbols that the library defines with the list below: they must be the same.
#
# usage: exports.sh LIBRARY [jni]     jni: built with the Java bridge
set -euo pipefail

expected='CreateDirSnapshot(std::vector<std::string> const&, std::string)
CreateSingleDirSnapshot(std::string, std::string, std::string)
CreateSingleFileSnapshot(std::string, std::string, std::string)
CreateSingleFileSoftLink(std::string, std::string, std::string)
DestroyDirSnapshot(std::string)
JNI_OnLoad
Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot
Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot
Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot
PreCreateDirSnapshot(std::vector<std::string> const&)
PreCreateSingleDirSnapshot(std::string)
PreCreateSingleFileSnapshot(std::string, std::string)
checkModifyFiles(std::string, std::vector<file_info>&, std::string)
default_testcase
main
revokeDedupFile
splitDirsString(std::string const&, char, std::vector<std::string>&)'

[[ ${2-} == jni ]] || expected=$(grep -v '^JNI_\|^Java_' <<<"$expected")

# Spelled without the C++ library's inline namespace and default arguments.
plain='s/std::(__cxx11|__1)::/std::/g
s/std::basic_string<char, std::char_traits<char>, std::allocator<char> ?>/std::string/g
s/std::vector<([^<>,]+), std::allocator<[^<>]+> ?>/std::vector<\1>/g'

exported=$(nm -D --defined-only "$1" | sed 's/^[^ ]* \(T \)\?//' | c++filt | sed -E "$plain" |
    LC_ALL=C sort)
diff <(printf '%s\n' "$expected") <(printf '%s\n' "$exported")
