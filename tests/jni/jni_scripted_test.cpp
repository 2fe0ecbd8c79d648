// SPDX-License-Identifier: Apache-2.0
// The Java bridge against a scripted VM: the order of its calls, and failures of the VM.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <jni.h>

#include <array>
#include <optional>
#include <vector>

#include "jni/snapshot_jni.h"
#include "tests/fake_kernel.h"

namespace {

constexpr auto create = Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot;
constexpr auto destroy = Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot;
constexpr auto prepare = Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot;

// Puts what the bridge asks of the VM into the trace of the running call.
void note(const std::string& line) {
    FakeKernel::active->trace.push_back("VM " + FakeKernel::active->shown(line));
}

// A string of the VM's; without text its characters are unavailable, as when memory has run out.
struct ScriptedString : _jstring {
    std::optional<std::string> text;
    std::string lent;
    explicit ScriptedString(std::optional<std::string> given) : text(std::move(given)) {}
};

const char* lend(JNIEnv* /*env*/, jstring object, jboolean* /*is_copy*/) {
    auto* string = static_cast<ScriptedString*>(object);
    string->lent = string->text.value_or("nothing");
    note("get " + string->lent);
    return string->text ? string->lent.c_str() : nullptr;
}

// Overwrites characters when they are released, so that a later use shows.
void takeBack(JNIEnv* /*env*/, jstring object, const char* chars) {
    auto* string = static_cast<ScriptedString*>(object);
    note("release " + (chars == string->lent.c_str() ? string->lent : "other characters"));
    string->lent.assign(string->lent.size(), '#');
}

_jclass processor;

struct Answers {
    jint get_env = JNI_OK;
    bool has_env = true;
    bool has_class = true;
    jint register_natives = JNI_OK;
};

struct ScriptedVm : JavaVM_, JNIEnv_ {
    Answers answers;
    FakeKernel kernel;
    JNIInvokeInterface_ invoke = {};
    JNINativeInterface_ native = {};

    explicit ScriptedVm(const Answers& given = {})
        : JavaVM_{&invoke}, JNIEnv_{&native}, answers(given), kernel("/root of the test") {
        invoke.GetEnv = [](JavaVM* vm, void** env, jint version) {
            note("GetEnv " + std::to_string(version));
            auto* self = static_cast<ScriptedVm*>(vm);
            *env = self->answers.has_env ? static_cast<JNIEnv*>(self) : nullptr;
            return self->answers.get_env;
        };
        native.FindClass = [](JNIEnv* env, const char* name) {
            note(std::string("FindClass ") + name);
            return static_cast<ScriptedVm*>(env)->answers.has_class ? &processor : nullptr;
        };
        native.RegisterNatives = [](JNIEnv* env, jclass, const JNINativeMethod* methods,
                                    jint count) {
            for (jint i = 0; i < count; ++i) {
                Dl_info function = {};
                dladdr(methods[i].fnPtr, &function);
                note(std::string("register ") + methods[i].name + methods[i].signature);
                note(std::string("  as ") +
                     (function.dli_sname != nullptr ? function.dli_sname : "?"));
            }
            return static_cast<ScriptedVm*>(env)->answers.register_natives;
        };
        native.DeleteLocalRef = [](JNIEnv*, jobject) { note("DeleteLocalRef"); };
        native.GetStringUTFChars = lend;
        native.ReleaseStringUTFChars = takeBack;
    }

    // Calls the bridge. Returns what it asks of the VM, what it logs, and its result.
    template <typename Function, typename... Arguments>
    std::string call(Function function, Arguments... arguments) {
        const jint result = kernel.run([&] { return function(this, arguments...); });
        return kernel.text({"VM ", "I ", "E ", "? "}) + "= " + std::to_string(result) + "\n";
    }
};

TEST(JniOnLoad, RegistersOrSaysWhatFailed) {
    const std::string asked = "VM GetEnv 65542\n";
    const std::string found = asked + "VM FindClass android/app/backup/ZarixSnapshotProcesser\n";
    const std::string registered =
        found + R"(VM register native_createdirsnapshot(Ljava/lang/String;Ljava/lang/String;)I
VM   as Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot
VM register native_destroydirsnapshot(Ljava/lang/String;)I
VM   as Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot
VM register native_precreatedirsnapshot(Ljava/lang/String;)I
VM   as Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot
)";
    const std::string success = registered + "VM DeleteLocalRef\nI JNI_OnLoad: success\n= 65542\n";
    const std::string failed = "E JNI_OnLoad: registerNativeMethods failed\\n\n= -1\n";
    const std::pair<Answers, std::string> table[] = {
        {{}, success},
        {{JNI_OK, true, true, 1}, success},
        {{1, true, true, JNI_OK}, asked + "E JNI_OnLoad: GetEnv failed\\n\n= -1\n"},
        {{JNI_OK, false, true, JNI_OK}, asked + "E JNI_OnLoad: env = NULL\n= -1\n"},
        {{JNI_OK, true, false, JNI_OK},
         found + "E registerNativeMethods: FindClass failed for " +
             "android/app/backup/ZarixSnapshotProcesser\\n\n" + failed},
        // The class reference stays.
        {{JNI_OK, true, true, -7},
         registered + "E registerNativeMethods: RegisterNatives failed\\n\n" + failed},
    };
    for (const auto& [answers, trace] : table) {
        EXPECT_EQ(ScriptedVm(answers).call(JNI_OnLoad, nullptr), trace);
    }
}

TEST(JniEntries, StringsWithoutCharacters) {
    ScriptedVm vm;
    ScriptedString given("/a");
    ScriptedString none(std::nullopt);
    for (jstring missing : std::array<jstring, 2>{nullptr, &none}) {
        const auto refused = [&](const std::string& what) {
            return (missing == nullptr ? "E " : "VM get nothing\nE ") + what + "dirsnapshot\n";
        };
        EXPECT_EQ(vm.call(create, missing, &given),
                  refused("dirpath get NULL error return -1 when create") + "= -1\n");
        EXPECT_EQ(vm.call(create, &given, missing),
                  "VM get /a\n" + refused("dstpath get NULL error return -1 when create") +
                      "VM release /a\n= -1\n");
        EXPECT_EQ(vm.call(destroy, missing),
                  refused("dstpath get NULL error return -1 when destroy") + "= -1\n");
        EXPECT_EQ(vm.call(prepare, missing),
                  refused("dirpath get NULL error return -1 when precreate") + "= -1\n");
    }
}

TEST(JniEntries, CharactersAreHeldWhileTheEngineWorks) {
    ScriptedVm vm;
    ScriptedString dirpath(";/no/a;;/../b;");
    ScriptedString dstpath("/no;/t");
    EXPECT_EQ(vm.call(create, &dirpath, &dstpath), R"(VM get ;/no/a;;/../b;
VM get /no;/t
I JNI native_createsnapshot for dirpath [;/no/a;;/../b;] dstpath [/no;/t]\n
I ------CreateDirSnapshot for dstpath [/no;/t] entry------\n
E checkPathRegulate path /../b failed\n
VM release ;/no/a;;/../b;
VM release /no;/t
= -1
)");
    EXPECT_EQ(vm.call(destroy, &dstpath), R"(VM get /no;/t
I JNI native_destroydirsnapshot for dstpath [/no;/t]\n
I ------DestroyDirSnapshot for dstpath [/no;/t] entry------\n
I DestroyDirSnapshotInter for dstpath [/no;/t/snapshot] enter\n
E Failed to open dir /no;/t/snapshot\n
VM release /no;/t
= -2
)");
    EXPECT_EQ(vm.call(prepare, &dirpath), R"(VM get ;/no/a;;/../b;
I JNI native_precreatedirsnapshot for dirpath [;/no/a;;/../b;]
I ------PreCreateDirSnapshot entry------\n
E Failed to open dir /no/a\n
E fail to PreCreateSingleDirSnapshot ret = -2\n
VM release ;/no/a;;/../b;
= -2
)");
}

}  // namespace
