// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace driver_check {

// Writes at the start of a file through a ring of its own. Returns the number of bytes written, or
// the negative errno value of the kernel; -ENOSYS where it has no io_uring for this user.
int writeByIoUring(int fd, const void* data, size_t size);

}  // namespace driver_check
