// SPDX-License-Identifier: Apache-2.0
// What f2fs_snapshot_helper reports to the call that started it.
//
//     f2fs_snapshot_helper PARENT FIRST TARGET SOURCE...
//
// PARENT is the process ID of the caller. The helper writes its messages to descriptor 3: a header
// each, then `length` bytes of text. Descriptors 4 to FIRST - 1 are locks, which last as long as
// the helper.
#pragma once

#include <cstdint>

namespace manager {

constexpr int REPORT_FD = 3;

struct Message {
    enum Type : uint32_t {
        LINKS = 1,   // value: 1 if symbolic links are not followed, else 0; the first message
        LOG = 2,     // value: the priority of a line of the library's log
        READY = 3,   // value: 1 if LOG messages follow, 0 if the log cannot be captured
        RESULT = 4,  // value: what CreateDirSnapshot returned; the last message
        UNSURE = 5,  // without LOG messages: one more check pass did not confirm the last one
    };
    uint32_t type;
    int32_t value;
    int64_t time;  // nanoseconds since the epoch
    uint32_t length;
    uint32_t reserved;
};
static_assert(sizeof(Message) == 24);

}  // namespace manager
