// The Java bridge called with the strings of a Java VM that runs in this process, on a mounted
// volume.
#include <fcntl.h>
#include <jni.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "../emulator_mount.h"
#include "../test_tree.h"
#include "f2fs_ioctl.h"
#include "snapshot_jni.h"

namespace {

constexpr auto create = Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot;
constexpr auto destroy = Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot;
constexpr auto prepare = Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot;

// The VM of this process, started when a test first needs it: listing the tests starts none.
JNIEnv* vmEnvironment() {
    static JNIEnv* const environment = [] {
        JavaVMOption options[] = {{const_cast<char*>("-Xcheck:jni"), nullptr}};
        JavaVMInitArgs arguments = {JNI_VERSION_1_6, std::size(options), options, JNI_FALSE};
        JavaVM* vm = nullptr;
        void* env = nullptr;
        const jint started = JNI_CreateJavaVM(&vm, &env, &arguments);
        return started == JNI_OK ? static_cast<JNIEnv*>(env) : nullptr;
    }();
    return environment;
}

class JniCalls : public EmulatedVolume {
  protected:
    void SetUp() override {
        EmulatedVolume::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        env = vmEnvironment();
        ASSERT_NE(env, nullptr);
        ASSERT_EQ(env->PushLocalFrame(32), JNI_OK);
    }
    void TearDown() override {
        if (env != nullptr) {
            env->PopLocalFrame(nullptr);
        }
        EmulatedVolume::TearDown();
    }
    // A java.lang.String of ASCII characters and then of UTF-16 ones.
    jstring java(const std::string& ascii, const std::u16string& rest = u"") {
        std::vector<jchar> units(ascii.begin(), ascii.end());
        units.insert(units.end(), rest.begin(), rest.end());
        return env->NewString(units.data(), static_cast<jsize>(units.size()));
    }
    JNIEnv* env = nullptr;
};

bool isLayered(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY);
    dedup_file_info info = {};
    EXPECT_EQ(ioctl(fd, F2FS_IOC_DEDUP_GET_FILE_INFO, &info), 0) << path;
    close(fd);
    return info.is_layered != 0;
}

std::string mirror(const std::string& target, const std::string& path) {
    return target + "/snapshot" + path;
}

TEST_F(JniCalls, PrepareCreateDestroy) {
    fs::create_directories(at("a"));
    fs::create_directories(at("b/sub"));
    write(at("a/file"), "first");
    write(at("b/sub/file"), "second");
    fs::create_symlink("file", at("b/sub/link"));
    const std::string sources = ";" + at("a") + ";;" + at("b") + ";";
    const std::string target = at("one;target");

    EXPECT_EQ(prepare(env, java(sources)), 0);
    EXPECT_TRUE(isLayered(at("a/file")));
    EXPECT_TRUE(isLayered(at("b/sub/file")));

    EXPECT_EQ(create(env, java(sources), java(target)), 0);
    write(at("a/file"), "written later");
    EXPECT_EQ(read(mirror(target, at("a/file"))), "first");
    EXPECT_EQ(read(mirror(target, at("b/sub/file"))), "second");
    EXPECT_EQ(fs::read_symlink(mirror(target, at("b/sub/link"))), "file");

    EXPECT_EQ(destroy(env, java(target)), 0);
    EXPECT_TRUE(fs::is_empty(target));
    EXPECT_EQ(read(at("a/file")), "written later");
}

TEST_F(JniCalls, ResultsAreTheEngines) {
    fs::create_directories(at("pipes"));
    ASSERT_EQ(mkfifo(at("pipes/pipe").c_str(), 0600), 0);
    EXPECT_EQ(prepare(env, java(";;")), 0);
    EXPECT_EQ(create(env, java(""), java(at("target"))), 0);
    EXPECT_FALSE(fs::exists(at("target")));
    EXPECT_EQ(prepare(env, java(at("missing"))), -2);
    EXPECT_EQ(prepare(env, java(at("pipes/../pipes"))), -1);
    EXPECT_EQ(create(env, java(at("pipes")), java(at("target"))), -22);
    EXPECT_TRUE(fs::is_empty(at("target")));
    EXPECT_EQ(destroy(env, java(at("target"))), -2);
    EXPECT_EQ(prepare(env, nullptr), -1);
}

TEST_F(JniCalls, PathsAreModifiedUtf8) {
    const std::pair<std::u16string, std::string> names[] = {
        {u"\u00E9", "\xC3\xA9"},
        {u"\U0001F4F7", "\xED\xA0\xBD\xED\xB3\xB7"},
        {{u'x', 0, u'y'}, "x\xC0\x80y"},
    };
    for (const auto& [name, bytes] : names) {
        const std::string source = at("source-" + bytes);
        const std::string target = at("target-" + bytes);
        jstring java_source = java(at("source-"), name);
        jstring java_target = java(at("target-"), name);
        fs::create_directories(source);
        write(source + "/file", bytes);
        EXPECT_EQ(prepare(env, java_source), 0) << bytes;
        EXPECT_EQ(create(env, java_source, java_target), 0) << bytes;
        EXPECT_EQ(read(mirror(target, source + "/file")), bytes);
        EXPECT_EQ(destroy(env, java_target), 0) << bytes;
        EXPECT_TRUE(fs::is_empty(target)) << bytes;
    }
}

}  // namespace
