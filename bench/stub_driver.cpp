// SPDX-License-Identifier: Apache-2.0
// A driver that answers every request at once. Linked into a benchmark or preloaded into the tool,
// it takes the place of ioctl.
#include <stdarg.h>

#include "bench/stub.h"
#include "snapshot/f2fs_ioctl.h"

bool stub_layered = false;

extern "C" int ioctl(int /*fd*/, unsigned long code, ...) noexcept {
    va_list arguments;
    va_start(arguments, code);
    void* const record = va_arg(arguments, void*);
    va_end(arguments);
    if (code == F2FS_IOC_DEDUP_GET_FILE_INFO) {
        static_cast<dedup_file_info*>(record)->is_layered = stub_layered ? 1 : 0;
    } else if (code == F2FS_IOC_MODIFY_CHECK) {
        static_cast<modify_check_info*>(record)->flag = MODIFY_CHECK_FLAG;  // never modified
    }
    return 0;
}
