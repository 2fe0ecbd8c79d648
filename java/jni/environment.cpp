// SPDX-License-Identifier: Apache-2.0
#include "java/jni/environment.h"

#include <cstring>

std::string stringOf(JNIEnv* env, jbyteArray array) {
    if (array == nullptr) {
        return {};
    }
    std::string bytes(static_cast<size_t>(env->GetArrayLength(array)), '\0');
    env->GetByteArrayRegion(array, 0, static_cast<jsize>(bytes.size()),
                            reinterpret_cast<jbyte*>(bytes.data()));
    throwIfPending(env);
    return bytes;
}

std::vector<std::string> stringsOf(JNIEnv* env, jobjectArray arrays) {
    std::vector<std::string> strings;
    const jsize count = arrays == nullptr ? 0 : env->GetArrayLength(arrays);
    for (jsize i = 0; i < count; ++i) {
        const Local element(env, env->GetObjectArrayElement(arrays, i));
        strings.push_back(stringOf(env, static_cast<jbyteArray>(element.get())));
    }
    return strings;
}

std::vector<const char*> pointersTo(const std::vector<std::string>& strings) {
    std::vector<const char*> pointers;
    pointers.reserve(strings.size());
    for (const std::string& string : strings) {
        pointers.push_back(string.c_str());
    }
    return pointers;
}

Local<jbyteArray> newBytes(JNIEnv* env, const char* text) {
    const auto length = static_cast<jsize>(strlen(text));
    Local bytes(env, env->NewByteArray(length));
    env->SetByteArrayRegion(bytes.get(), 0, length, reinterpret_cast<const jbyte*>(text));
    throwIfPending(env);
    return bytes;
}
