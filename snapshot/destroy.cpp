// SPDX-License-Identifier: Apache-2.0
// Destroy: removes a snapshot root.
#include "snapshot/destroy.h"

#include <unistd.h>

#include "snapshot/log.h"
#include "snapshot/snapshot.h"
#include "snapshot/walk.h"
#include "tool/paths.h"

namespace {

bool unlinkEntry(const std::string& path) {
    const int32_t ret = unlink(path.c_str());
    if (ret != 0) {
        LOG_ERROR("unlink [%s] fail ret = %d\n", path.c_str(), ret);
    }
    return ret == 0;
}

}  // namespace

int32_t DestroyDirSnapshotInter(std::string dstpath) {
    LOG_INFO("DestroyDirSnapshotInter for dstpath [%s] enter\n", dstpath.c_str());
    const bool opened = forEachEntry(dstpath, [](const dir_entry& entry) {
        // A failed unlink stops on any result, a subdirectory only on a negative one.
        switch (entry.type) {
            case DT_DIR:
                return DestroyDirSnapshotInter(entry.path) >= 0;
            case DT_REG:
            case DT_LNK:
                return unlinkEntry(entry.path);
            default:
                LOG_ERROR("INVALID file_type = %d found and continue\n", entry.type);
                return true;
        }
    });
    if (!opened) {
        return -2;
    }
    // Tried after a failure too: it then fails on the rest, which reports the failure upwards.
    const int32_t ret = rmdir(dstpath.c_str());
    LOG_INFO("DestroyDirSnapshotInter for dstpath [%s] leave ret = %d\n", dstpath.c_str(), ret);
    return ret;
}

int32_t DestroyDirSnapshot(std::string dstpath) {
    LOG_INFO("------DestroyDirSnapshot for dstpath [%s] entry------\n", dstpath.c_str());
    if (!checkPathRegulate(dstpath)) {
        return -1;
    }
    return DestroyDirSnapshotInter(dstpath + "/snapshot");
}
