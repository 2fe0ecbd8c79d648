// SPDX-License-Identifier: Apache-2.0
// The part of Android's log interface that this project uses, for systems without liblog. Lines go
// to standard error, or to the logger that the program sets.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ANDROID_LOG_INFO = 4,
    ANDROID_LOG_ERROR = 6,
};

// One line, as a logger gets it.
struct __android_log_message {
    size_t struct_size;
    int32_t buffer_id;  // always 0, the main buffer
    int32_t priority;
    const char* tag;
    const char* file;  // always NULL: not known
    uint32_t line;
    const char* message;
};
typedef void (*__android_logger_function)(const struct __android_log_message* log_message);

// Logs one line. Text beyond 1023 bytes is cut. Returns 1.
int __android_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int __android_log_vprint(int priority, const char* tag, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// Passes a message to the logger.
void __android_log_write_log_message(struct __android_log_message* log_message);

// Sets the function that gets all later lines, instead of standard error.
void __android_log_set_logger(__android_logger_function logger);

#ifdef __cplusplus
}
#endif
