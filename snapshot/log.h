// SPDX-License-Identifier: Apache-2.0
// Diagnostics: lines in the Android log under one tag.
#pragma once

#include <android/log.h>

#define LOG_TAG "f2fs_snapshot_native"

// Arguments are evaluated before the log is called, so errno can be one of them.
#define LOG_INFO(...) __android_log_print(ANDROID_LOG_INFO, LOG_TAG, __VA_ARGS__)
#define LOG_ERROR(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)
