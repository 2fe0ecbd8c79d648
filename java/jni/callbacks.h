// SPDX-License-Identifier: Apache-2.0
// A Java listener and cancel token as the manager's callbacks.
#pragma once

#include "java/jni/environment.h"
#include "manager/f2fs_snapshot_manager.h"

// For one call, on its thread. An exception of the listener stays pending: no further callback
// calls Java, and the call is cancelled.
class Callbacks {
  public:
    // Each object may be null.
    Callbacks(JNIEnv* env, jobject listener, jobject token);
    Callbacks(const Callbacks&) = delete;
    Callbacks& operator=(const Callbacks&) = delete;

    const f2fs_snapshot_callbacks* get() const {
        return &callbacks_;
    }

  private:
    static void report(void* context, const f2fs_snapshot_progress* progress);
    static int isCancelled(void* context);

    JNIEnv* env_;
    jobject listener_;
    jobject token_;
    Local<jclass> progress_class_;
    jmethodID report_;
    jmethodID is_cancelled_ = nullptr;
    f2fs_snapshot_callbacks callbacks_ = F2FS_SNAPSHOT_CALLBACKS_INIT;
};
