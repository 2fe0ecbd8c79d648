// SPDX-License-Identifier: Apache-2.0
#include "manager/failure.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

namespace manager {

namespace {

// The length of the UTF-8 sequence at text, 0 if there is none.
size_t sequenceLength(const char* text, size_t size) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const size_t length = byte(0) < 0x80                       ? 1
                          : byte(0) >= 0xC2 && byte(0) < 0xE0  ? 2
                          : byte(0) >= 0xE0 && byte(0) < 0xF0  ? 3
                          : byte(0) >= 0xF0 && byte(0) <= 0xF4 ? 4
                                                               : 0;
    if (length == 0 || length > size) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    // Overlong forms, surrogates, and values beyond the last code point.
    const bool is_bad = (byte(0) == 0xE0 && byte(1) < 0xA0) ||
                        (byte(0) == 0xED && byte(1) > 0x9F) ||
                        (byte(0) == 0xF0 && byte(1) < 0x90) || (byte(0) == 0xF4 && byte(1) > 0x8F);
    return is_bad ? 0 : length;
}

}  // namespace

void failSystem(const char* doing, const std::string& path, int error) {
    throw Failure(F2FS_SNAPSHOT_ERROR_SYSTEM, path,
                  std::string("cannot ") + doing + " " + shown(path) + ": " + reasonOf(error),
                  error);
}

void failSystem(const char* doing, const std::string& path) {
    failSystem(doing, path, errno);
}

size_t plainLength(const std::string& text, size_t offset) {
    const auto byte = static_cast<unsigned char>(text[offset]);
    return byte < 0x20 || byte == 0x7F ? 0 : sequenceLength(&text[offset], text.size() - offset);
}

std::string shown(const std::string& path) {
    std::string text;
    for (size_t i = 0; i < path.size();) {
        const size_t length = path[i] == '\\' ? 0 : plainLength(path, i);
        if (length > 0) {
            text.append(path, i, length);
            i += length;
            continue;
        }
        char escape[5];
        snprintf(escape, sizeof escape, "\\%03o", static_cast<unsigned char>(path[i]));
        text += path[i] == '\\' ? "\\\\" : path[i] == '\n' ? "\\n" : escape;
        ++i;
    }
    return text;
}

std::string reasonOf(int error) {
    return std::generic_category().message(error);
}

}  // namespace manager
