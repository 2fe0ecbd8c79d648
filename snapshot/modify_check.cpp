// SPDX-License-Identifier: Apache-2.0
// The modification check: finds the files whose snapshot is missing or out of date.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "snapshot/f2fs_ioctl.h"
#include "snapshot/log.h"
#include "snapshot/snapshot.h"
#include "snapshot/walk.h"

namespace {

// Reads the file's mark. A file whose mark cannot be read counts as changed: making its snapshot
// again either succeeds or fails for a reason of its own.
bool isUnchanged(const std::string& sourcefilefullpath) {
    const int path_fd = open(sourcefilefullpath.c_str(), O_RDONLY);
    if (path_fd < 0) {
        LOG_ERROR("path_fd [%s] open failed errno = %d\n", sourcefilefullpath.c_str(), errno);
        return false;
    }
    modify_check_info check = {0, MODIFY_CHECK_GET};
    const int32_t ret = ioctl(path_fd, F2FS_IOC_MODIFY_CHECK, &check);
    if (ret != 0) {
        LOG_ERROR("F2FS_IOC_MODIFY_CHECK:get %s failed\n", sourcefilefullpath.c_str());
    }
    close(path_fd);
    return ret == 0 && (check.flag & MODIFY_CHECK_UNCHANGED) != 0;
}

bool needsSnapshot(const std::string& sourcefilefullpath, const std::string& rawdstpath) {
    const std::string dstsnapshotfilepath = rawdstpath + sourcefilefullpath;
    LOG_INFO("ready to check modify flag for sourcefilefullpath = %s dstsnapshotfilepath = %s\n",
             sourcefilefullpath.c_str(), dstsnapshotfilepath.c_str());
    const bool unchanged = isUnchanged(sourcefilefullpath);
    struct stat snapshot_stat = {};
    if (stat(dstsnapshotfilepath.c_str(), &snapshot_stat) != 0) {
        LOG_INFO("dstsnapshotfile already not exist, add to modifyfilelist\n");
        return true;
    }
    return !unchanged;
}

int32_t checkSubdirectory(const std::string& subdirpath, std::vector<file_info>& modifyfilelist,
                          const std::string& rawdstpath) {
    if (subdirpath == rawdstpath) {
        LOG_ERROR("subdirpath %s found same with rawdstpath just continue\n", subdirpath.c_str());
        return 0;
    }
    return checkModifyFiles(subdirpath, modifyfilelist, rawdstpath);
}

}  // namespace

int32_t checkModifyFiles(std::string srcdirpath, std::vector<file_info>& modifyfilelist,
                         std::string rawdstpath) {
    int32_t ret = 0;
    const bool opened = forEachEntry(srcdirpath, [&](const dir_entry& entry) {
        if (entry.type == DT_DIR) {
            ret = checkSubdirectory(entry.path, modifyfilelist, rawdstpath);
        } else if (entry.type == DT_REG && needsSnapshot(entry.path, rawdstpath)) {
            modifyfilelist.push_back({srcdirpath, entry.name});
        }
        return ret >= 0;  // only a directory that cannot be opened stops the check
    });
    return opened ? ret : -2;
}
