// SPDX-License-Identifier: Apache-2.0
// Prepare: readies source files in the kernel, ahead of a snapshot or as its first step.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "snapshot/f2fs_ioctl.h"
#include "snapshot/log.h"
#include "snapshot/snapshot.h"
#include "snapshot/walk.h"
#include "tool/paths.h"

namespace {

// Marks the source, clones its data into the temporary file, and layers the source over the clone.
int32_t layerOverClone(int source_file_fd, int clone_fd) {
    modify_check_info check = {MODIFY_CHECK_FLAG, MODIFY_CHECK_SET};
    int32_t ret = ioctl(source_file_fd, F2FS_IOC_MODIFY_CHECK, &check);
    if (ret != 0) {
        LOG_ERROR("F2FS_IOC_MODIFY_CHECK set source_file_fd failed ret = %d\n", ret);
        return ret;
    }
    clone_file_info clone = {source_file_fd, CLONE_FLAGS};
    ret = ioctl(clone_fd, F2FS_IOC_CLONE_FILE, &clone);
    if (ret != 0) {
        LOG_ERROR("F2FS_IOC_CLONE_FILE failed ret = %d\n", ret);
        return ret;
    }
    int32_t clone_word = clone_fd;
    ret = ioctl(source_file_fd, F2FS_IOC_SNAPSHOT_PREPARE, &clone_word);
    if (ret != 0) {
        LOG_ERROR("F2FS_IOC_SNAPSHOT_PREPARE ioctl create fail ret = %d\n", ret);
    }
    return ret;
}

int32_t prepareOpenFile(const std::string& srcdirpath, const std::string& srcfilepath,
                        int source_file_fd) {
    dedup_file_info info = {};
    const int32_t ret = ioctl(source_file_fd, F2FS_IOC_DEDUP_GET_FILE_INFO, &info);
    if (ret != 0) {
        LOG_ERROR("F2FS_IOC_DEDUP_GET_FILE_INFO src failed\n");
        return ret;
    }
    LOG_INFO("[%s] is_deduped = %d is_layered = %d\n", srcfilepath.c_str(), info.is_deduped,
             info.is_layered);
    if (info.is_deduped != 0 && info.is_layered == 0) {
        LOG_INFO("srcdirpath = %s deduped but not layered, error condition still to prepare\n",
                 srcdirpath.c_str());
    }
    if (info.is_layered != 0) {
        return 0;
    }

    LOG_INFO("ready to open srcdirpath = %s\n", srcdirpath.c_str());
    const int clone_fd = open(srcdirpath.c_str(), O_RDWR | O_TMPFILE, 0770);
    if (clone_fd < 0) {
        LOG_ERROR("open failed srcdirpath = %s source_dir_fd = %d\n", srcdirpath.c_str(), clone_fd);
        return -2;
    }
    const int32_t layered = layerOverClone(source_file_fd, clone_fd);
    close(clone_fd);
    return layered;
}

int32_t openAndPrepare(const std::string& srcdirpath, const std::string& srcfilepath) {
    const int source_file_fd = open(srcfilepath.c_str(), O_RDWR);
    if (source_file_fd < 0) {
        LOG_ERROR("open srcfilepath = %s failed source_file_fd = %d errno = %d\n",
                  srcfilepath.c_str(), source_file_fd, errno);
        return -2;
    }
    const int32_t ret = prepareOpenFile(srcdirpath, srcfilepath, source_file_fd);
    close(source_file_fd);
    return ret;
}

}  // namespace

int32_t PreCreateSingleFileSnapshot(std::string srcdirpath, std::string filename) {
    const std::string srcfilepath = srcdirpath + "/" + filename;
    LOG_INFO("PreCreateSingleFileSnapshot for file [%s]\n", srcfilepath.c_str());
    const int32_t ret = openAndPrepare(srcdirpath, srcfilepath);
    LOG_INFO("PreCreateSingleFileSnapshot done ret = %d\n", ret);
    return ret;
}

int32_t PreCreateSingleDirSnapshot(std::string dirpath) {
    int32_t ret = 0;
    const bool opened = forEachEntry(dirpath, [&](const dir_entry& entry) {
        // A file stops the walk on any failure, a subdirectory only on a negative one.
        switch (entry.type) {
            case DT_REG:
                ret = PreCreateSingleFileSnapshot(dirpath, entry.name);
                return ret == 0;
            case DT_DIR:
                ret = PreCreateSingleDirSnapshot(entry.path);
                return ret >= 0;
            default:
                return true;
        }
    });
    return opened ? ret : -2;
}

int32_t PreCreateDirSnapshot(const std::vector<std::string>& dirpath) {
    LOG_INFO("------PreCreateDirSnapshot entry------\n");
    int32_t ret = 0;
    for (const std::string& path : dirpath) {
        if (!checkPathRegulate(path)) {
            return -1;
        }
        ret = PreCreateSingleDirSnapshot(path);
        if (ret < 0) {
            LOG_ERROR("fail to PreCreateSingleDirSnapshot ret = %d\n", ret);
            return ret;
        }
    }
    return ret;
}
