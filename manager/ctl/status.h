// SPDX-License-Identifier: Apache-2.0
// Exit statuses.
#pragma once

namespace ctl {

constexpr int SUCCESS = 0;
constexpr int FAILURE = 1;
constexpr int WRONG_USAGE = 2;
constexpr int FOUND_SOMETHING = 3;
// Of run, as of env(1) and timeout(1); any other status is that of the command.
constexpr int RUN_FAILED = 125;
constexpr int COMMAND_NOT_EXECUTED = 126;
constexpr int COMMAND_NOT_FOUND = 127;
// Plus the number of the signal.
constexpr int SIGNALLED = 128;

}  // namespace ctl
