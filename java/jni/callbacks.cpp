// SPDX-License-Identifier: Apache-2.0
#include "java/jni/callbacks.h"

Callbacks::Callbacks(JNIEnv* env, jobject listener, jobject token)
    : env_(env),
      listener_(listener),
      token_(token),
      progress_class_(env, env->FindClass("f2fs/snapshot/Progress")),
      report_(env->GetStaticMethodID(progress_class_.get(), "report",
                                     "(Lf2fs/snapshot/ProgressListener;IIIJJJ)V")) {
    throwIfPending(env);
    const Local token_class(env, env->FindClass("f2fs/snapshot/CancelToken"));
    is_cancelled_ = env->GetMethodID(token_class.get(), "isCancelled", "()Z");
    throwIfPending(env);
    callbacks_.context = this;
    callbacks_.progress = report;
    callbacks_.cancel = isCancelled;
}

void Callbacks::report(void* context, const f2fs_snapshot_progress* progress) {
    const Callbacks& self = *static_cast<Callbacks*>(context);
    if (self.listener_ == nullptr || self.env_->ExceptionCheck() == JNI_TRUE) {
        return;
    }
    self.env_->CallStaticVoidMethod(
        self.progress_class_.get(), self.report_, self.listener_, progress->phase,
        static_cast<jint>(progress->attempt), static_cast<jint>(progress->pass),
        static_cast<jlong>(progress->files_done), static_cast<jlong>(progress->files_total),
        static_cast<jlong>(progress->files_again));
}

int Callbacks::isCancelled(void* context) {
    const Callbacks& self = *static_cast<Callbacks*>(context);
    if (self.env_->ExceptionCheck() == JNI_TRUE) {
        return 1;
    }
    const bool is_cancelled =
        self.token_ != nullptr &&
        self.env_->CallBooleanMethod(self.token_, self.is_cancelled_) == JNI_TRUE;
    return is_cancelled || self.env_->ExceptionCheck() == JNI_TRUE ? 1 : 0;
}
