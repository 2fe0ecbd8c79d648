// SPDX-License-Identifier: Apache-2.0
// The Java bridge called with the strings of a Java VM that runs in this process, on a mounted
// volume.
#include <jni.h>

#include <vector>

#include "jni/snapshot_jni.h"
#include "tests/emulator_mount.h"
#include "tests/test_tree.h"

namespace {

JNIEnv* startVm() {
    JavaVMOption options[] = {{const_cast<char*>("-Xcheck:jni"), nullptr}};
    JavaVMInitArgs arguments = {JNI_VERSION_1_6, std::size(options), options, JNI_FALSE};
    JavaVM* vm = nullptr;
    void* env = nullptr;
    const jint started = JNI_CreateJavaVM(&vm, &env, &arguments);
    return started == JNI_OK ? static_cast<JNIEnv*>(env) : nullptr;
}

jstring java(JNIEnv* env, const std::u16string& text) {
    const std::vector<jchar> units(text.begin(), text.end());
    return env->NewString(units.data(), static_cast<jsize>(units.size()));
}

using JniCalls = EmulatedVolume;

TEST_F(JniCalls, PathsAreModifiedUtf8) {
    const std::u16string name = {u'x', u'\u00E9', 0xD83D, 0xDCF7, 0, u'y'};
    const std::string bytes = "x\xC3\xA9\xED\xA0\xBD\xED\xB3\xB7\xC0\x80y";
    const std::string source = at("source-" + bytes);
    const std::string target = at("a;target-" + bytes);
    fs::create_directory(source);
    write(source + "/file", "content");
    JNIEnv* const env = startVm();
    ASSERT_NE(env, nullptr);
    jstring from = java(env, u";;" + fs::path(at("source-")).u16string() + name + u";");
    jstring to = java(env, fs::path(at("a;target-")).u16string() + name);

    EXPECT_EQ(Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot(env, from), 0);
    EXPECT_EQ(Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot(env, from, to), 0);
    EXPECT_EQ(read(target + "/snapshot" + source + "/file"), "content");
    EXPECT_EQ(Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot(env, to), 0);
    EXPECT_TRUE(fs::is_empty(target));
}

}  // namespace
