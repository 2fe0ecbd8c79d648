/* SPDX-License-Identifier: Apache-2.0 */
#include "tests/manager/plain_c.h"

#include "manager/f2fs_snapshot_manager.h"

int snapshotFromC(const char* store_path, const char* source, const char* name) {
    f2fs_snapshot_callbacks callbacks = F2FS_SNAPSHOT_CALLBACKS_INIT;
    f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    f2fs_snapshot_error error = F2FS_SNAPSHOT_ERROR_INIT;
    f2fs_snapshot_store* store = NULL;
    if (f2fs_snapshot_store_open(store_path, 0, &store, &error) != F2FS_SNAPSHOT_OK) {
        return error.code;
    }
    options.callbacks = &callbacks;
    options.name = name;
    const int32_t code = f2fs_snapshot_create(store, &source, 1, &options, NULL, &error);
    f2fs_snapshot_store_close(store);
    return code;
}
