// SPDX-License-Identifier: Apache-2.0
// Converts the manager's results to objects of the package f2fs.snapshot.
#pragma once

#include "java/jni/environment.h"
#include "manager/f2fs_snapshot_manager.h"

// Each returns a local reference for the caller of the native method.
jobject toJava(JNIEnv* env, const f2fs_snapshot_report& report);
jobject toJava(JNIEnv* env, const f2fs_snapshot_info& info);
jobject toJava(JNIEnv* env, const f2fs_snapshot_list& list);
jobject toJava(JNIEnv* env, const f2fs_snapshot_prune_result& result);

// Throws a SnapshotException.
[[noreturn]] void throwFailure(JNIEnv* env, const f2fs_snapshot_error& error);
