// SPDX-License-Identifier: Apache-2.0
#include <android/log.h>
#include <stdio.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace {

// As long as liblog's: longer texts are cut there too.
constexpr size_t TEXT_SIZE = 1024;

// One write per line, so that lines of several threads or processes do not mix.
void writeToStderr(const __android_log_message* line) {
    const time_t now = time(nullptr);
    tm local = {};
    char when[32] = "";
    strftime(when, sizeof when, "%m-%d %H:%M:%S", localtime_r(&now, &local));
    char text[TEXT_SIZE + 256];
    const char kind = line->priority == ANDROID_LOG_ERROR ? 'E' : 'I';
    const int length =
        snprintf(text, sizeof text, "%.64s %c %s %5d %5ld %s\n", line->tag, kind, when,
                 static_cast<int>(getpid()), syscall(SYS_gettid), line->message);
    if (length > 0 && write(STDERR_FILENO, text, static_cast<size_t>(length)) < 0) {
        return;  // there is nowhere else to report it
    }
}

std::atomic<__android_logger_function> current_logger = {writeToStderr};

}  // namespace

void __android_log_set_logger(__android_logger_function logger) {
    current_logger = logger;
}

void __android_log_write_log_message(__android_log_message* log_message) {
    current_logger.load()(log_message);
}

int __android_log_vprint(int priority, const char* tag, const char* format, va_list arguments) {
    char text[TEXT_SIZE];
    vsnprintf(text, sizeof text, format, arguments);
    __android_log_message line = {sizeof line, 0, priority, tag, nullptr, 0, text};
    __android_log_write_log_message(&line);
    return 1;
}

int __android_log_print(int priority, const char* tag, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = __android_log_vprint(priority, tag, format, arguments);
    va_end(arguments);
    return result;
}
