// SPDX-License-Identifier: Apache-2.0
// How the manager's own code reports failures: by exception, turned into the C interface's error
// structure at one point (abi.cpp).
#pragma once

#include <exception>
#include <string>

#include "manager/f2fs_snapshot_manager.h"

namespace manager {

class Failure : public std::exception {
  public:
    // message  one sentence without a full stop: what failed, why, and what to do
    Failure(f2fs_snapshot_code failed_code, std::string failed_path, std::string sentence,
            int error = 0)
        : code(failed_code),
          path(std::move(failed_path)),
          message(std::move(sentence)),
          os_error(error) {}

    const char* what() const noexcept override {
        return message.c_str();
    }

    f2fs_snapshot_code code;
    std::string path;
    std::string message;
    int os_error;
};

// Throws ERROR_SYSTEM with "cannot DOING PATH: REASON". The reason is that of errno, or of `error`.
[[noreturn]] void failSystem(const char* doing, const std::string& path);
[[noreturn]] void failSystem(const char* doing, const std::string& path, int error);

// A path as it stands in messages: control characters, backslashes and bytes that are not UTF-8
// are escaped as in C.
std::string shown(const std::string& path);

// The length of the printable UTF-8 sequence at an offset of text; 0: there is none.
size_t plainLength(const std::string& text, size_t offset);

// The text of an errno value.
std::string reasonOf(int error);

}  // namespace manager
