// SPDX-License-Identifier: Apache-2.0
// The verdict on one check and its evidence: the steps taken, what was expected and what was seen.
// A check records these with the functions below; the Runner reads the record.
#pragma once

#include <string>

namespace driver_check {

enum class Verdict : int {
    unfinished,  // the check neither returned nor stated anything
    passed,
    failed,
    skipped,  // not possible on this volume, for this user or without a missing request
    unable    // the machine is out of something (space, descriptors): no verdict on the driver
};

// Plain memory, shared between the process of the check and the one that waits for it, so that the
// steps of a check that is killed are known too.
struct Evidence {
    static constexpr unsigned STEPS = 12;
    static constexpr size_t LINE = 240;

    Verdict verdict;
    unsigned steps;  // taken in all; the last STEPS of them are kept
    unsigned notes;
    char step[STEPS][LINE];
    char expected[2 * LINE];
    char saw[2 * LINE];
    char reason[2 * LINE];  // of a skip, or why the check was unable
    char note[STEPS][LINE];
};

// The record of this process. nullptr in helper processes of a check, which record nothing.
extern Evidence* evidence;

// Thrown by the functions below that do not return; never leaves the process of the check.
struct Stop {};

// Records a step, before or after it is taken.
__attribute__((format(printf, 1, 2))) void did(const char* text, ...);
// Records a measured value, which is reported whatever the verdict.
__attribute__((format(printf, 1, 2))) void note(const char* text, ...);
// End the check. `expected` and `saw` complete the sentences "expected ..." and "saw ...".
[[noreturn]] void failed(const std::string& expected, const std::string& saw);
[[noreturn]] void skip(const std::string& reason);

// An errno value as driver authors write it, "0" for 0.
std::string nameOf(int error);
std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));

// Ends the check because a call failed that works on every file system: unable if the machine is
// out of space, descriptors or memory, else failed.
[[noreturn]] void callFailed(const std::string& call, int error);
// The result of a system call; a negative one ends the check as above.
template <typename Result>
Result need(Result result, const char* call);

}  // namespace driver_check

#include <cerrno>

template <typename Result>
Result driver_check::need(Result result, const char* call) {
    if (result < 0) {
        callFailed(call, errno);
    }
    return result;
}
