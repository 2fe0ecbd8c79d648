// SPDX-License-Identifier: Apache-2.0
// The Java bridge: Java strings in, the engine's result out.
#include "jni/snapshot_jni.h"

#include <iterator>
#include <string>
#include <vector>

#include "snapshot/log.h"
#include "snapshot/snapshot.h"
#include "tool/paths.h"

namespace {

constexpr char CLASS_NAME[] = "android/app/backup/ZarixSnapshotProcesser";

// A JDK's jni.h declares name and signature without const, the NDK's with it.
const JNINativeMethod METHODS[] = {
    {const_cast<char*>("native_createdirsnapshot"),
     const_cast<char*>("(Ljava/lang/String;Ljava/lang/String;)I"),
     reinterpret_cast<void*>(Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot)},
    {const_cast<char*>("native_destroydirsnapshot"), const_cast<char*>("(Ljava/lang/String;)I"),
     reinterpret_cast<void*>(Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot)},
    {const_cast<char*>("native_precreatedirsnapshot"), const_cast<char*>("(Ljava/lang/String;)I"),
     reinterpret_cast<void*>(Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot)},
};

// An exception that the VM raised stays pending: it becomes the Java error of the failed load.
bool registerNativeMethods(JNIEnv* env) {
    jclass processor = env->FindClass(CLASS_NAME);
    if (processor == nullptr) {
        LOG_ERROR("registerNativeMethods: FindClass failed for %s\n", CLASS_NAME);
        return false;
    }
    if (env->RegisterNatives(processor, METHODS, static_cast<jint>(std::size(METHODS))) < 0) {
        // The class reference is not deleted: the VM drops it when JNI_OnLoad returns.
        LOG_ERROR("registerNativeMethods: RegisterNatives failed\n");
        return false;
    }
    env->DeleteLocalRef(processor);
    return true;
}

// The VM may not be asked for the characters of a null string.
const char* charsOrNull(JNIEnv* env, jstring text) {
    return text == nullptr ? nullptr : env->GetStringUTFChars(text, nullptr);
}

}  // namespace

jint JNI_OnLoad(JavaVM* vm, void* /*reserved*/) {
    void* env = nullptr;
    if (vm->GetEnv(&env, JNI_VERSION_1_6) != JNI_OK) {
        LOG_ERROR("JNI_OnLoad: GetEnv failed\n");
        return -1;
    }
    if (env == nullptr) {
        LOG_ERROR("JNI_OnLoad: env = NULL");
        return -1;
    }
    if (!registerNativeMethods(static_cast<JNIEnv*>(env))) {
        LOG_ERROR("JNI_OnLoad: registerNativeMethods failed\n");
        return -1;
    }
    LOG_INFO("JNI_OnLoad: success");
    return JNI_VERSION_1_6;
}

jint Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot(JNIEnv* env, jstring dirpath,
                                                                jstring dstpath) {
    const char* dirpath_chars = charsOrNull(env, dirpath);
    if (dirpath_chars == nullptr) {
        LOG_ERROR("dirpath get NULL error return -1 when createdirsnapshot");
        return -1;
    }
    const char* dstpath_chars = charsOrNull(env, dstpath);
    if (dstpath_chars == nullptr) {
        LOG_ERROR("dstpath get NULL error return -1 when createdirsnapshot");
        env->ReleaseStringUTFChars(dirpath, dirpath_chars);
        return -1;
    }
    LOG_INFO("JNI native_createsnapshot for dirpath [%s] dstpath [%s]\n", dirpath_chars,
             dstpath_chars);
    std::vector<std::string> paths;
    splitDirsString(dirpath_chars, ';', paths);
    const jint ret = CreateDirSnapshot(paths, dstpath_chars);
    env->ReleaseStringUTFChars(dirpath, dirpath_chars);
    env->ReleaseStringUTFChars(dstpath, dstpath_chars);
    return ret;
}

jint Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot(JNIEnv* env, jstring dstpath) {
    const char* dstpath_chars = charsOrNull(env, dstpath);
    if (dstpath_chars == nullptr) {
        LOG_ERROR("dstpath get NULL error return -1 when destroydirsnapshot");
        return -1;
    }
    LOG_INFO("JNI native_destroydirsnapshot for dstpath [%s]\n", dstpath_chars);
    const jint ret = DestroyDirSnapshot(dstpath_chars);
    env->ReleaseStringUTFChars(dstpath, dstpath_chars);
    return ret;
}

jint Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot(JNIEnv* env, jstring dirpath) {
    const char* dirpath_chars = charsOrNull(env, dirpath);
    if (dirpath_chars == nullptr) {
        LOG_ERROR("dirpath get NULL error return -1 when precreatedirsnapshot");
        return -1;
    }
    LOG_INFO("JNI native_precreatedirsnapshot for dirpath [%s]", dirpath_chars);
    std::vector<std::string> paths;
    splitDirsString(dirpath_chars, ';', paths);
    const jint ret = PreCreateDirSnapshot(paths);
    env->ReleaseStringUTFChars(dirpath, dirpath_chars);
    return ret;
}
