// SPDX-License-Identifier: Apache-2.0
// The Java bridge's functions, for native code that calls them itself.
//
// The strings follow the environment directly: there is no receiver parameter. JNI_OnLoad registers
// the functions as native methods all the same, and the VM passes a receiver to those.
// docs/java.md says what that means for Java callers.
//
// A string's bytes are used as the VM returns them, in its modified UTF-8: a character outside the
// Basic Multilingual Plane is two three-byte surrogates, U+0000 is C0 80.
//
// Each function returns the engine's result unchanged (see snapshot.h), or -1 if a string is null
// or the VM returns no characters for it. It runs on the calling thread and throws no Java
// exception. An exception that the VM has raised (out of memory) stays pending.
#pragma once

#include <jni.h>

extern "C" {

// Mirrors the ';'-separated source directories dirpath below the target directory dstpath, which is
// never split.
JNIEXPORT jint JNICALL Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot(JNIEnv* env,
                                                                                  jstring dirpath,
                                                                                  jstring dstpath);

// Removes the snapshot root below the target directory dstpath, which is never split.
JNIEXPORT jint JNICALL Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot(JNIEnv* env,
                                                                                   jstring dstpath);

// Prepares the files of the ';'-separated source directories dirpath.
JNIEXPORT jint JNICALL
Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot(JNIEnv* env, jstring dirpath);

}  // extern "C"
