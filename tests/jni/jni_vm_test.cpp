// The Java bridge called with the strings of a Java VM that runs in this process, on a mounted
// volume.
#include <jni.h>

#include <string>
#include <utility>
#include <vector>

#include "../emulator_mount.h"
#include "../test_tree.h"
#include "snapshot_jni.h"

namespace {

constexpr auto create = Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot;
constexpr auto destroy = Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot;
constexpr auto prepare = Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot;

JNIEnv* startVm() {
    JavaVMOption options[] = {{const_cast<char*>("-Xcheck:jni"), nullptr}};
    JavaVMInitArgs arguments = {JNI_VERSION_1_6, std::size(options), options, JNI_FALSE};
    JavaVM* vm = nullptr;
    void* env = nullptr;
    const jint started = JNI_CreateJavaVM(&vm, &env, &arguments);
    return started == JNI_OK ? static_cast<JNIEnv*>(env) : nullptr;
}

// A java.lang.String of ASCII characters and then of UTF-16 ones.
jstring java(JNIEnv* env, const std::string& ascii, const std::u16string& rest) {
    std::vector<jchar> units(ascii.begin(), ascii.end());
    units.insert(units.end(), rest.begin(), rest.end());
    return env->NewString(units.data(), static_cast<jsize>(units.size()));
}

using JniCalls = EmulatedVolume;

// Names with characters of every kind, and their bytes.
TEST_F(JniCalls, PathsAreModifiedUtf8) {
    const std::pair<std::u16string, std::string> names[] = {
        {u"plain", "plain"},
        {u"\u00E9", "\xC3\xA9"},
        {u"\U0001F4F7", "\xED\xA0\xBD\xED\xB3\xB7"},
        {{u'x', 0, u'y'}, "x\xC0\x80y"},
    };
    JNIEnv* const env = startVm();
    ASSERT_NE(env, nullptr);
    fs::create_directory(at("other"));
    for (const auto& [name, bytes] : names) {
        const std::string source = at("source-" + bytes);
        const std::string target = at("one;target-" + bytes);
        jstring sources = java(env, ";" + at("other") + ";;" + at("source-"), name);
        jstring java_target = java(env, at("one;target-"), name);
        fs::create_directories(source);
        write(source + "/file", bytes);
        EXPECT_EQ(prepare(env, sources), 0) << bytes;
        EXPECT_EQ(create(env, sources, java_target), 0) << bytes;
        EXPECT_EQ(read(target + "/snapshot" + source + "/file"), bytes);
        EXPECT_TRUE(fs::is_directory(target + "/snapshot" + at("other")));
        EXPECT_EQ(destroy(env, java_target), 0) << bytes;
        EXPECT_TRUE(fs::is_empty(target)) << bytes;
    }
    EXPECT_EQ(prepare(env, nullptr), -1);
}

}  // namespace
