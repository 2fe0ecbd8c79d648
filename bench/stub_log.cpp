// SPDX-License-Identifier: Apache-2.0
// A log that discards its lines at once. Linked or preloaded, it takes the place of the log
// library, to which it can also pass the lines on.
#include <android/log.h>
#include <stdarg.h>

#include "bench/stub.h"

bool stub_log_on = false;
long stub_log_lines = 0;

extern "C" int __android_log_print(int priority, const char* tag, const char* text, ...) {
    ++stub_log_lines;
    if (!stub_log_on) {
        return 1;
    }
    va_list arguments;
    va_start(arguments, text);
    const int result = __android_log_vprint(priority, tag, text, arguments);
    va_end(arguments);
    return result;
}
