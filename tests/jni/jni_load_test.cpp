// The Java bridge loaded by a Java program.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../process.h"

namespace {

// Runs the Java program that loads the library and may call a method.
Outcome runJava(const std::string& class_path, const std::string& method = "") {
    return runProcess({JAVA_COMMAND, "-Xcheck:jni", "-Xlog:jni+resolve=debug",
                       "-XX:-CreateCoredumpOnCrash", "-cp", class_path, "LoadLibrary", LIBRARY,
                       method});
}

void expectInOrder(const std::string& output, const std::vector<std::string>& texts) {
    size_t at = 0;
    for (const std::string& text : texts) {
        at = output.find(text, at);
        ASSERT_NE(at, std::string::npos) << "missing or out of order: " << text << "\n" << output;
        at += text.size();
    }
}

TEST(JniLoad, TheVmRegistersTheThreeMethods) {
    const std::string method =
        "[Registering JNI native method android.app.backup.ZarixSnapshotProcesser.native_";
    const Outcome java = runJava(LOADER_JAR ":" CLASS_JAR);
    EXPECT_EQ(java.status, 0);
    expectInOrder(java.out, {method + "createdirsnapshot]\n", method + "destroydirsnapshot]\n",
                             method + "precreatedirsnapshot]\n", "loaded\n"});
    expectInOrder(java.err, {" I ", "JNI_OnLoad: success\n"});
    EXPECT_EQ((java.out + java.err).find("in native method"), std::string::npos) << java.out;
}

TEST(JniLoad, FailsWithoutTheClass) {
    const std::string name = "android/app/backup/ZarixSnapshotProcesser\n";
    const Outcome java = runJava(LOADER_JAR);
    EXPECT_EQ(java.status, 1);
    expectInOrder(java.err, {" E ", "registerNativeMethods: FindClass failed for " + name, " E ",
                             "JNI_OnLoad: registerNativeMethods failed\n",
                             "java.lang.NoClassDefFoundError: " + name});
    EXPECT_EQ((java.out + java.err).find("in native method"), std::string::npos) << java.out;
}

// The receiver of a Java call stands where the functions read their first string; a checking VM
// ends the process over it.
TEST(JniLoad, RegisteredMethodsReadTheReceiver) {
    for (const std::string method : {"create", "destroy", "precreate"}) {
        const Outcome java = runJava(LOADER_JAR ":" CLASS_JAR, method);
        EXPECT_NE(java.status, 0);
        expectInOrder(java.out,
                      {"loaded\n",
                       "FATAL ERROR in native method: JNI string operation received a non-string\n",
                       "ZarixSnapshotProcesser.native_" + method + "dirsnapshot(Native Method)\n"});
    }
}

}  // namespace
