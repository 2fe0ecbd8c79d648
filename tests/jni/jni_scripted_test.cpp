// The Java bridge against a scripted VM: what a healthy VM never does, the order of every call,
// and many threads at once.
#include <jni.h>
#include <stdio.h>
#include <string.h>

#include <array>
#include <functional>
#include <thread>
#include <tuple>
#include <vector>

#include "../fake_kernel.h"
#include "../test_tree.h"
#include "snapshot_jni.h"

namespace {

constexpr auto create = Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot;
constexpr auto destroy = Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot;
constexpr auto prepare = Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot;

// Puts what the bridge asks of the VM into the trace of the running call.
void note(const std::string& line) {
    FakeKernel::active->trace.push_back(line);
}

// A string of the VM's; without text its characters are unavailable, as when memory has run out.
struct ScriptedString : _jstring {
    const char* name;
    const char* text;
    char* lent = nullptr;
    ScriptedString(const char* string_name, const char* string_text)
        : name(string_name), text(string_text) {}
};

using Method = std::tuple<std::string, std::string, void*>;

struct ScriptedEnv : JNIEnv_ {
    _jclass processor;
    jclass found = &processor;
    jint register_result = 0;
    std::vector<Method> methods;
    JNINativeInterface_ table = {};

    ScriptedEnv() : JNIEnv_{&table} {
        table.FindClass = [](JNIEnv* env, const char* name) {
            note(std::string("FindClass ") + name);
            return static_cast<ScriptedEnv*>(env)->found;
        };
        table.RegisterNatives = [](JNIEnv* env, jclass type, const JNINativeMethod* natives,
                                   jint count) {
            auto* self = static_cast<ScriptedEnv*>(env);
            note(type == self->found ? "RegisterNatives" : "RegisterNatives for another class");
            for (jint i = 0; i < count; ++i) {
                self->methods.emplace_back(natives[i].name, natives[i].signature, natives[i].fnPtr);
            }
            return self->register_result;
        };
        table.DeleteLocalRef = [](JNIEnv* env, jobject object) {
            note(object == static_cast<ScriptedEnv*>(env)->found ? "DeleteLocalRef" : "wrong");
        };
        // Characters end with their release, so that a later use shows.
        table.GetStringUTFChars = [](JNIEnv*, jstring object, jboolean* is_copy) {
            auto* string = static_cast<ScriptedString*>(object);
            note(std::string("get ") + string->name + (is_copy == nullptr ? "" : " with is_copy"));
            string->lent = string->text == nullptr ? nullptr : strdup(string->text);
            return const_cast<const char*>(string->lent);
        };
        table.ReleaseStringUTFChars = [](JNIEnv*, jstring object, const char* chars) {
            auto* string = static_cast<ScriptedString*>(object);
            note(std::string(chars == string->lent ? "release " : "wrong release ") + string->name);
            memset(string->lent, '#', strlen(string->lent));
            free(string->lent);
            string->lent = nullptr;
        };
    }
};

struct ScriptedVm : JavaVM_ {
    jint result;
    JNIEnv* env;
    JNIInvokeInterface_ table = {};

    ScriptedVm(jint get_env_result, JNIEnv* the_env)
        : JavaVM_{&table}, result(get_env_result), env(the_env) {
        table.GetEnv = [](JavaVM* vm, void** env_out, jint version) {
            char line[32];
            snprintf(line, sizeof line, "GetEnv %#x", static_cast<unsigned>(version));
            note(line);
            *env_out = static_cast<ScriptedVm*>(vm)->env;
            return static_cast<ScriptedVm*>(vm)->result;
        };
    }
};

TEST(JniOnLoad, RegistersOrSaysWhatFailed) {
    const std::string asked = "GetEnv 0x10006\n";
    const std::string found = asked + "FindClass android/app/backup/ZarixSnapshotProcesser\n";
    const std::string success = found + "RegisterNatives\nDeleteLocalRef\nI JNI_OnLoad: success\n";
    const std::string refused = asked + "E JNI_OnLoad: GetEnv failed\\n\n";
    const std::string failed = "E JNI_OnLoad: registerNativeMethods failed\\n\n";
    // The class reference stays.
    const std::string not_registered =
        found + "RegisterNatives\nE registerNativeMethods: RegisterNatives failed\\n\n" + failed;
    const struct {
        jint get_env_result;
        bool has_env;
        bool has_class;
        jint register_result;
        jint result;
        std::string trace;
    } cases[] = {
        {0, true, true, 0, 0x10006, success},
        {0, true, true, 1, 0x10006, success},
        {JNI_EVERSION, true, true, 0, -1, refused},
        {1, true, true, 0, -1, refused},
        {0, false, true, 0, -1, asked + "E JNI_OnLoad: env = NULL\n"},
        {0, true, false, 0, -1,
         found + "E registerNativeMethods: FindClass failed for " +
             "android/app/backup/ZarixSnapshotProcesser\\n\n" + failed},
        {0, true, true, -1, -1, not_registered},
        {0, true, true, -7, -1, not_registered},
    };
    const std::vector<Method> methods = {
        {"native_createdirsnapshot", "(Ljava/lang/String;Ljava/lang/String;)I",
         reinterpret_cast<void*>(create)},
        {"native_destroydirsnapshot", "(Ljava/lang/String;)I", reinterpret_cast<void*>(destroy)},
        {"native_precreatedirsnapshot", "(Ljava/lang/String;)I", reinterpret_cast<void*>(prepare)},
    };
    for (const auto& row : cases) {
        ScriptedEnv env;
        env.found = row.has_class ? env.found : nullptr;
        env.register_result = row.register_result;
        ScriptedVm vm(row.get_env_result, row.has_env ? &env : nullptr);
        FakeKernel kernel("/root of the test");
        EXPECT_EQ(kernel.run([&] { return JNI_OnLoad(&vm, nullptr); }), row.result);
        EXPECT_EQ(kernel.text(), row.trace);
        EXPECT_TRUE(row.result < 0 || env.methods == methods);
    }
}

// One call after the other, with their results and all that they did.
struct Call {
    std::function<jint()> make;
    jint result;
    std::string trace;
};

void expectCalls(const std::vector<Call>& calls) {
    for (const Call& call : calls) {
        FakeKernel kernel("/root of the test");
        EXPECT_EQ(kernel.run(call.make), call.result);
        EXPECT_EQ(kernel.text(), call.trace);
    }
}

TEST(JniEntries, StringsWithoutCharacters) {
    ScriptedEnv env;
    ScriptedString given("given", "/a");
    ScriptedString none("none", nullptr);
    for (jstring missing : std::array<jstring, 2>{nullptr, &none}) {
        const auto refused = [&](const std::string& what, const std::string& operation) {
            return std::string(missing == nullptr ? "" : "get none\n") + "E " + what +
                   " get NULL error return -1 when " + operation + "\n";
        };
        expectCalls({
            {[&] { return create(&env, missing, &given); }, -1,
             refused("dirpath", "createdirsnapshot")},
            {[&] { return create(&env, &given, missing); }, -1,
             "get given\n" + refused("dstpath", "createdirsnapshot") + "release given\n"},
            {[&] { return destroy(&env, missing); }, -1, refused("dstpath", "destroydirsnapshot")},
            {[&] { return prepare(&env, missing); }, -1,
             refused("dirpath", "precreatedirsnapshot")},
        });
    }
}

TEST(JniEntries, CharactersAreHeldWhileTheEngineWorks) {
    ScriptedString dirpath("dirpath", ";/no/a;;/../b;");
    ScriptedString dstpath("dstpath", "/no;/t");
    ScriptedEnv env;
    expectCalls({
        {[&] { return create(&env, &dirpath, &dstpath); }, -1, R"(get dirpath
get dstpath
I JNI native_createsnapshot for dirpath [;/no/a;;/../b;] dstpath [/no;/t]\n
I ------CreateDirSnapshot for dstpath [/no;/t] entry------\n
E checkPathRegulate path /../b failed\n
release dirpath
release dstpath
)"},
        {[&] { return destroy(&env, &dstpath); }, -2, R"(get dstpath
I JNI native_destroydirsnapshot for dstpath [/no;/t]\n
I ------DestroyDirSnapshot for dstpath [/no;/t] entry------\n
I DestroyDirSnapshotInter for dstpath [/no;/t/snapshot] enter\n
opendir /no;/t/snapshot = -1
E Failed to open dir /no;/t/snapshot\n
release dstpath
)"},
        {[&] { return prepare(&env, &dirpath); }, -2, R"(get dirpath
I JNI native_precreatedirsnapshot for dirpath [;/no/a;;/../b;]
I ------PreCreateDirSnapshot entry------\n
opendir /no/a = -1
E Failed to open dir /no/a\n
E fail to PreCreateSingleDirSnapshot ret = -2\n
release dirpath
)"},
    });
}

class JniThreads : public TestTree {
  protected:
    // Calls the bridge with paths of the caller's own. Returns all that it saw.
    std::string run(size_t caller) const {
        const std::string source_path = at("source" + std::to_string(caller));
        const std::string target_path = at("target" + std::to_string(caller));
        const std::string copy = target_path + "/snapshot" + source_path + "/d/file";
        fs::create_directories(source_path + "/d");
        write(source_path + "/d/file", "content");
        ScriptedEnv env;
        ScriptedString source("source", source_path.c_str());
        ScriptedString target("target", target_path.c_str());
        FakeKernel kernel(root);
        int round = 0;
        kernel.before = [&](const std::string& call) {
            // Out of date at once, so that each create lists the file and makes it again.
            if (call.rfind("SNAPSHOT_CREATE", 0) == 0 && kernel.text({"SNAPSHOT_CREATE"}).empty()) {
                write(source_path + "/d/file", "content " + std::to_string(round));
            }
        };
        std::string seen;
        const auto tell = [&](jint result) {
            const std::string made = fs::exists(copy) ? read(copy) : "nothing";
            seen += kernel.text({"I ", "E ", "get ", "release "}) + "result " +
                    std::to_string(result) + ", " + made + "\n";
        };
        for (; round < 10; ++round) {
            tell(kernel.run([&] { return prepare(&env, &source); }));
            tell(kernel.run([&] { return create(&env, &source, &target); }));
            tell(kernel.run([&] { return destroy(&env, &target); }));
        }
        return seen;
    }
};

TEST_F(JniThreads, CallsOnDifferentTargetsDoNotMeet) {
    std::array<std::string, 8> seen;
    std::vector<std::thread> threads;
    threads.reserve(seen.size());
    for (size_t caller = 0; caller < seen.size(); ++caller) {
        threads.emplace_back([&, caller] { seen[caller] = run(caller); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    // Each thread saw what one alone sees: in the second round the file is layered already.
    for (size_t caller = 0; caller < seen.size(); ++caller) {
        fs::remove_all(at("source" + std::to_string(caller)));
        const std::string alone = run(caller);
        EXPECT_EQ(seen[caller], alone);
        EXPECT_NE(alone.find("result 0, content 9\n"), std::string::npos) << alone;
    }
}

}  // namespace
