// SPDX-License-Identifier: Apache-2.0
// The leaves of a snapshot: one regular file, one symbolic link.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "snapshot/f2fs_ioctl.h"
#include "snapshot/log.h"
#include "snapshot/snapshot.h"

namespace {

constexpr size_t LINK_TEXT_SIZE = 4096;  // the longest link text, 4095 bytes, and its NUL

int32_t requestSnapshot(const std::string& srcfilepath, int source_file_fd,
                        const std::string& dstfilepath, int dst_file_fd) {
    // The source is marked before its data is taken: every later write clears the mark. The second
    // request gets the record as the kernel left it.
    modify_check_info check = {MODIFY_CHECK_FLAG, MODIFY_CHECK_SET};
    int32_t ret = ioctl(source_file_fd, F2FS_IOC_MODIFY_CHECK, &check);
    if (ret != 0) {
        LOG_ERROR("[%s] F2FS_IOC_MODIFY_CHECK failed ret = %d\n", srcfilepath.c_str(), ret);
        return ret;
    }
    ret = ioctl(dst_file_fd, F2FS_IOC_MODIFY_CHECK, &check);
    if (ret != 0) {
        LOG_ERROR("[%s] F2FS_IOC_MODIFY_CHECK failed ret = %d\n", dstfilepath.c_str(), ret);
        return ret;
    }
    snapshot_create_info create = {source_file_fd, 0};
    ret = ioctl(dst_file_fd, F2FS_IOC_SNAPSHOT_CREATE, &create);
    if (ret != 0) {
        LOG_ERROR("F2FS_IOC_SNAPSHOT_CREATE ioctl create fail ret = %d\n", ret);
        return ret;
    }
    LOG_INFO("F2FS_IOC_SNAPSHOT_CREATE ioctl create success\n");
    return 0;
}

int32_t fillDestination(const std::string& srcfilepath, int source_file_fd, int64_t source_size,
                        const std::string& dstfilepath, int dst_file_fd) {
    if (source_size != 0) {
        // The length is a 32-bit file offset on every ABI. From 2 GiB on it is negative, zero or
        // too short; the kernel refuses the first two.
        const int32_t ret = fallocate(dst_file_fd, 0, 0, static_cast<int32_t>(source_size));
        if (ret != 0) {
            LOG_ERROR("fallocate failed dstfilepath = %s dst_file_fd = %d\n", dstfilepath.c_str(),
                      dst_file_fd);
            return ret;
        }
    }
    return requestSnapshot(srcfilepath, source_file_fd, dstfilepath, dst_file_fd);
}

int32_t snapshotOpenSource(const std::string& srcfilepath, int source_file_fd,
                           const std::string& dstfilepath) {
    struct stat source_stat = {};
    const int32_t stat_ret = stat(srcfilepath.c_str(), &source_stat);
    if (stat_ret != 0) {
        LOG_ERROR("stat failed srcfilepath = %s\n", srcfilepath.c_str());
        return stat_ret;
    }
    const int dst_file_fd = open(dstfilepath.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0440);
    if (dst_file_fd < 0) {
        LOG_ERROR("open failed dstfilepath = %s dst_file_fd = %d\n", dstfilepath.c_str(),
                  dst_file_fd);
        return -2;
    }
    const int32_t ret =
        fillDestination(srcfilepath, source_file_fd, source_stat.st_size, dstfilepath, dst_file_fd);
    close(dst_file_fd);
    return ret;
}

}  // namespace

int32_t CreateSingleFileSnapshot(std::string srcdirpath, std::string filename,
                                 std::string dstdirpath) {
    const std::string srcfilepath = srcdirpath + "/" + filename;
    const std::string dstfilepath = dstdirpath + "/" + filename;
    LOG_INFO("CreateSingleFileSnapshot for [%s]\n", srcfilepath.c_str());
    const int source_file_fd = open(srcfilepath.c_str(), O_RDONLY);
    if (source_file_fd < 0) {
        LOG_ERROR("open failed srcfilepath = %s source_file_fd = %d\n", srcfilepath.c_str(),
                  source_file_fd);
        return -2;
    }
    const int32_t ret = snapshotOpenSource(srcfilepath, source_file_fd, dstfilepath);
    close(source_file_fd);
    return ret;
}

int32_t CreateSingleFileSoftLink(std::string srcdirpath, std::string filename,
                                 std::string dstdirpath) {
    char text[LINK_TEXT_SIZE] = {};
    const std::string srclinkpath = srcdirpath + "/" + filename;
    const std::string dstlinkpath = dstdirpath + "/" + filename;
    const auto length = static_cast<int32_t>(readlink(srclinkpath.c_str(), text, sizeof text));
    LOG_INFO("CreateSingleFileSoftLink readlink [%s] [%s] ret = %d\n", srclinkpath.c_str(), text,
             length);
    if (length < 0) {
        return length;
    }
    const int32_t ret = symlink(text, dstlinkpath.c_str());
    LOG_INFO("CreateSingleFileSoftLink symlink [%s] [%s] ret = %d\n", text, dstlinkpath.c_str(),
             ret);
    return ret;
}
