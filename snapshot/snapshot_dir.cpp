// SPDX-License-Identifier: Apache-2.0
// The first creation: mirrors one source tree into the snapshot.
#include <errno.h>
#include <sys/stat.h>

#include "snapshot/log.h"
#include "snapshot/snapshot.h"
#include "snapshot/walk.h"

namespace {

int32_t mirrorSubdirectory(const std::string& subdirpath, const std::string& mirrordirpath,
                           const std::string& rawdstpath) {
    if (subdirpath == rawdstpath) {
        // The target lies inside the source: a snapshot must not contain itself.
        LOG_ERROR("subdirpath %s found same with rawdstpath just continue\n", subdirpath.c_str());
        return 0;
    }
    const int32_t ret = mkdir(mirrordirpath.c_str(), 0770);
    if (ret != 0) {
        LOG_ERROR("Failed to mkdir %s\n", mirrordirpath.c_str());
        return ret;
    }
    return CreateSingleDirSnapshot(subdirpath, mirrordirpath, rawdstpath);
}

int32_t mirrorFile(const std::string& srcdirpath, const std::string& filename,
                   const std::string& dstdirpath) {
    const int32_t ret = PreCreateSingleFileSnapshot(srcdirpath, filename);
    return ret != 0 ? ret : CreateSingleFileSnapshot(srcdirpath, filename, dstdirpath);
}

}  // namespace

int32_t CreateSingleDirSnapshot(std::string srcdirpath, std::string dstdirpath,
                                std::string rawdstpath) {
    int32_t ret = 0;
    const bool opened = forEachEntry(srcdirpath, [&](const dir_entry& entry) {
        switch (entry.type) {
            case DT_DIR:
                ret = mirrorSubdirectory(entry.path, dstdirpath + "/" + entry.name, rawdstpath);
                break;
            case DT_REG:
                ret = mirrorFile(srcdirpath, entry.name, dstdirpath);
                break;
            case DT_LNK:
                ret = CreateSingleFileSoftLink(srcdirpath, entry.name, dstdirpath);
                break;
            default:
                LOG_ERROR("INVALID file_type = %d return EINVAL\n", entry.type);
                ret = -EINVAL;  // -22
        }
        return ret == 0;  // any nonzero result stops every level
    });
    return opened ? ret : -2;
}
