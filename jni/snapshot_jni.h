// SPDX-License-Identifier: Apache-2.0
// The Java bridge's functions, for native code that calls them itself.
//
// They take the environment of the calling thread and the strings directly after it: there is no
// receiver parameter, although JNI_OnLoad registers them as native methods and the VM passes a
// receiver to those. docs/java.md says what that means for Java callers.
//
// A string's bytes are used as the VM gives them, in its modified UTF-8: a character outside the
// Basic Multilingual Plane is two three-byte surrogates, U+0000 is C0 80.
//
// Each function returns the engine's result unchanged (see snapshot.h), or -1 when a string is
// null or the VM has no characters for it. It runs wholly on the calling thread, throws no Java
// exception, and leaves one that the VM has raised (out of memory) pending.
#pragma once

#include <jni.h>

extern "C" {

// Mirrors the ';'-separated source directories dirpath below the target directory dstpath, which
// is one path whatever it holds.
JNIEXPORT jint JNICALL Java_com_storage_f2fs_libsnapshot_native_createdirsnapshot(JNIEnv* env,
                                                                                  jstring dirpath,
                                                                                  jstring dstpath);

// Removes the snapshot root below the target directory dstpath, one path whatever it holds.
JNIEXPORT jint JNICALL Java_com_storage_f2fs_libsnapshot_native_destroydirsnapshot(JNIEnv* env,
                                                                                   jstring dstpath);

// Prepares the files of the ';'-separated source directories dirpath.
JNIEXPORT jint JNICALL
Java_com_storage_f2fs_libsnapshot_native_precreatedirsnapshot(JNIEnv* env, jstring dirpath);

}  // extern "C"
