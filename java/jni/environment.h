// SPDX-License-Identifier: Apache-2.0
// Converts Java values to C++ values and back. Functions throw JavaException if a Java exception is
// pending.
#pragma once

#include <jni.h>

#include <string>
#include <vector>

// A Java exception is pending. Until the native method returns, only references may be released.
struct JavaException {};

inline void throwIfPending(JNIEnv* env) {
    if (env->ExceptionCheck() == JNI_TRUE) {
        throw JavaException();
    }
}

// A local reference, deleted with this object: a long list would exceed the capacity of a frame.
template <typename Reference>
class Local {
  public:
    // `reference` has just been returned by a function of `env`.
    Local(JNIEnv* env, Reference reference) : env_(env), reference_(reference) {
        throwIfPending(env);
    }
    ~Local() {
        env_->DeleteLocalRef(reference_);
    }
    Local(const Local&) = delete;
    Local& operator=(const Local&) = delete;
    Local(Local&& other) noexcept : env_(other.env_), reference_(other.release()) {}
    Local& operator=(Local&&) = delete;

    Reference get() const {
        return reference_;
    }
    Reference release() {
        const Reference reference = reference_;
        reference_ = nullptr;
        return reference;
    }

  private:
    JNIEnv* env_;
    Reference reference_;
};

// `array` may be null: "".
std::string stringOf(JNIEnv* env, jbyteArray array);
// `arrays` may be null: no strings.
std::vector<std::string> stringsOf(JNIEnv* env, jobjectArray arrays);
// Valid as long as `strings` is.
std::vector<const char*> pointersTo(const std::vector<std::string>& strings);

Local<jbyteArray> newBytes(JNIEnv* env, const char* text);
