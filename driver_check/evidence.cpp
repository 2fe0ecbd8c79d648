// SPDX-License-Identifier: Apache-2.0
#include "driver_check/evidence.h"

#include <stdarg.h>
#include <stdio.h>

#include <cerrno>
#include <cstring>
#include <iterator>

namespace driver_check {
namespace {

template <size_t SIZE>
void store(char (&text)[SIZE], const std::string& value) {
    text[value.copy(text, SIZE - 1)] = '\0';
}

constexpr struct {
    int error;
    const char* name;
} NAMES[] = {{0, "0"},
             {EACCES, "EACCES"},
             {EAGAIN, "EAGAIN"},
             {EBADF, "EBADF"},
             {EBUSY, "EBUSY"},
             {EDQUOT, "EDQUOT"},
             {EEXIST, "EEXIST"},
             {EFAULT, "EFAULT"},
             {EFBIG, "EFBIG"},
             {EINTR, "EINTR"},
             {EINVAL, "EINVAL"},
             {EIO, "EIO"},
             {EISDIR, "EISDIR"},
             {EMFILE, "EMFILE"},
             {ENFILE, "ENFILE"},
             {ENODATA, "ENODATA"},
             {ENODEV, "ENODEV"},
             {ENOENT, "ENOENT"},
             {ENOKEY, "ENOKEY"},
             {ENOMEM, "ENOMEM"},
             {ENOSPC, "ENOSPC"},
             {ENOSYS, "ENOSYS"},
             {ENOTDIR, "ENOTDIR"},
             {ENOTTY, "ENOTTY"},
             {EOPNOTSUPP, "EOPNOTSUPP"},
             {EPERM, "EPERM"},
             {EROFS, "EROFS"},
             {ESRCH, "ESRCH"},
             {ETXTBSY, "ETXTBSY"},
             {EXDEV, "EXDEV"}};

std::string formatList(const char* text, va_list arguments) {
    char line[Evidence::LINE];
    // Every caller starts the list, which the analyzer does not see.
    vsnprintf(line, sizeof(line), text, arguments);  // NOLINT(clang-analyzer-valist.Uninitialized)
    return line;
}

}  // namespace

Evidence* evidence = nullptr;

std::string format(const char* text, ...) {
    va_list arguments;
    va_start(arguments, text);
    std::string line = formatList(text, arguments);
    va_end(arguments);
    return line;
}

void did(const char* text, ...) {
    if (evidence == nullptr) {
        return;
    }
    va_list arguments;
    va_start(arguments, text);
    store(evidence->step[evidence->steps % Evidence::STEPS], formatList(text, arguments));
    va_end(arguments);
    ++evidence->steps;
}

void note(const char* text, ...) {
    if (evidence == nullptr || evidence->notes == Evidence::STEPS) {
        return;
    }
    va_list arguments;
    va_start(arguments, text);
    store(evidence->note[evidence->notes], formatList(text, arguments));
    va_end(arguments);
    ++evidence->notes;
}

void failed(const std::string& expected, const std::string& saw) {
    if (evidence != nullptr) {
        store(evidence->expected, expected);
        store(evidence->saw, saw);
        evidence->verdict = Verdict::failed;
    }
    throw Stop();
}

void skip(const std::string& reason) {
    if (evidence != nullptr) {
        store(evidence->reason, reason);
        evidence->verdict = Verdict::skipped;
    }
    throw Stop();
}

void callFailed(const std::string& call, int error) {
    for (const int lacking : {ENOSPC, EDQUOT, EMFILE, ENFILE, ENOMEM}) {
        if (error == lacking && evidence != nullptr) {
            store(evidence->reason, call + ": " + nameOf(error));
            evidence->verdict = Verdict::unable;
            throw Stop();
        }
    }
    did("%s: %s", call.c_str(), nameOf(error).c_str());
    failed(call + " to succeed", nameOf(error));
}

std::string nameOf(int error) {
    for (const auto& known : NAMES) {
        if (known.error == error) {
            return known.name;
        }
    }
    return format("errno %d (%s)", error, strerror(error));
}

}  // namespace driver_check
