// SPDX-License-Identifier: Apache-2.0
#include "snapshot/f2fs_ioctl.h"

#include "snapshot/log.h"

int32_t revokeDedupFile(int32_t file_handle) {
    if (file_handle < 0) {
        LOG_ERROR("invalid file_handle = %d return\n", file_handle);
        return -1;
    }
    uint32_t word = 0;
    const int32_t ret = ioctl(file_handle, F2FS_IOC_DEDUP_REVOKE, &word);
    LOG_INFO("revoke file_handle = %d ret = %d\n", file_handle, ret);
    return ret;
}
