// SPDX-License-Identifier: Apache-2.0
// Create: builds a snapshot root and repeats check passes until nothing changed meanwhile.
#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "snapshot/destroy.h"
#include "snapshot/log.h"
#include "snapshot/snapshot.h"
#include "tool/paths.h"

namespace {

constexpr int32_t MAX_LOOP_COUNT = 10;  // the last pass counter; counting starts at 0

int32_t makeSnapshotRoot(const std::string& snapshotroot) {
    struct stat root_stat = {};
    if (stat(snapshotroot.c_str(), &root_stat) != 0) {
        const int32_t ret = mkdirsLoop(snapshotroot.c_str());
        if (ret != 0) {
            LOG_ERROR("dstpath [%s] not exist and mkdirsLoop fail ret = %d and return\n",
                      snapshotroot.c_str(), ret);
        }
        return ret;
    }
    LOG_INFO("dstpath [%s] already exist need destroy first\n", snapshotroot.c_str());
    int32_t ret = DestroyDirSnapshotInter(snapshotroot);
    if (ret != 0) {
        LOG_ERROR("dstpath [%s] destroy fail and return\n", snapshotroot.c_str());
        return ret;
    }
    ret = mkdirsLoop(snapshotroot.c_str());
    if (ret != 0) {
        LOG_ERROR("mkdirsLoop fail ret = %d even after DestroyDirSnapshot\n", ret);
    }
    return ret;
}

int32_t mirrorSources(const std::vector<std::string>& dirpath, const std::string& snapshotroot) {
    for (const std::string& srcdirpath : dirpath) {
        const std::string mirrordirpath = snapshotroot + srcdirpath;
        LOG_INFO("prepare dstpath [%s] dir first\n", mirrordirpath.c_str());
        int32_t ret = mkdirsLoop(mirrordirpath.c_str());
        if (ret != 0) {
            // Deliberately left on disk, the mirrors of earlier sources included.
            LOG_ERROR("Failed to mkdirsLoop %s\n", mirrordirpath.c_str());
            return ret;
        }
        ret = CreateSingleDirSnapshot(srcdirpath, mirrordirpath, snapshotroot);
        if (ret != 0) {
            const int32_t ret1 = DestroyDirSnapshotInter(snapshotroot);
            LOG_ERROR("[%s] snapshot first create fail ret = %d destroy ret1 = %d\n",
                      snapshotroot.c_str(), ret, ret1);
            return ret;
        }
    }
    return 0;
}

std::vector<file_info> listModifiedFiles(const std::vector<std::string>& dirpath,
                                         const std::string& snapshotroot) {
    std::vector<file_info> modifyfilelist;
    for (const std::string& srcdirpath : dirpath) {
        const int32_t ret = checkModifyFiles(srcdirpath, modifyfilelist, snapshotroot);
        if (ret < 0) {
            // Ends this pass's checks but never the call: the files listed so far are redone.
            LOG_ERROR("fail to checkModifyFiles ret = %d\n", ret);
            break;
        }
    }
    return modifyfilelist;
}

int32_t recreateFile(const file_info& file, const std::string& snapshotroot) {
    const std::string dstdirpath = snapshotroot + "/" + file.srcdirpath;
    const std::string dstfilepath = dstdirpath + "/" + file.filename;
    int32_t ret = unlink(dstfilepath.c_str());
    const int unlink_errno = errno;  // before the log call can change it
    LOG_INFO("[%s] unlink ret = %d errno = %d and ready to recreate snapshot\n",
             dstfilepath.c_str(), ret, unlink_errno);
    if (ret != 0 && unlink_errno != ENOENT) {
        return ret;
    }
    ret = PreCreateSingleFileSnapshot(file.srcdirpath, file.filename);
    if (ret != 0) {
        return ret;
    }
    return CreateSingleFileSnapshot(file.srcdirpath, file.filename, dstdirpath);
}

int32_t recreateFiles(const std::vector<file_info>& modifyfilelist,
                      const std::string& snapshotroot) {
    for (const file_info& file : modifyfilelist) {
        const int32_t ret = recreateFile(file, snapshotroot);
        if (ret != 0) {
            return ret;
        }
    }
    return 0;
}

int32_t runCheckPasses(const std::vector<std::string>& dirpath, const std::string& snapshotroot) {
    for (int32_t pass = 0; pass <= MAX_LOOP_COUNT; ++pass) {
        const std::vector<file_info> modifyfilelist = listModifiedFiles(dirpath, snapshotroot);
        if (modifyfilelist.empty()) {
            LOG_INFO("ALL file not modified, success return\n");
            return 0;
        }
        const int32_t ret = recreateFiles(modifyfilelist, snapshotroot);
        if (ret != 0) {
            return ret;
        }
    }
    LOG_ERROR("reach MAX_LOOP_COUNT=%d and exit\n", MAX_LOOP_COUNT);
    return -EAGAIN;  // -11
}

}  // namespace

int32_t CreateDirSnapshot(const std::vector<std::string>& dirpath, std::string dstpath) {
    LOG_INFO("------CreateDirSnapshot for dstpath [%s] entry------\n", dstpath.c_str());
    if (dirpath.empty()) {
        LOG_ERROR("empty dirpath size just return 0\n");
        return 0;
    }
    if (!std::all_of(dirpath.begin(), dirpath.end(), checkPathRegulate) ||
        !checkPathRegulate(dstpath)) {
        return -1;
    }
    dstpath += "/snapshot";
    int32_t ret = makeSnapshotRoot(dstpath);
    if (ret != 0) {
        return ret;
    }
    ret = mirrorSources(dirpath, dstpath);
    if (ret != 0) {
        return ret;
    }
    ret = runCheckPasses(dirpath, dstpath);
    if (ret != 0) {
        const int32_t ret1 = DestroyDirSnapshotInter(dstpath);
        LOG_ERROR("[%s] snapshot create fail ret = %d destroy ret1 = %d\n", dstpath.c_str(), ret,
                  ret1);
    }
    return ret;
}
