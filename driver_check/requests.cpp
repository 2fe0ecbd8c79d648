// SPDX-License-Identifier: Apache-2.0
#include "driver_check/requests.h"

#include <sys/ioctl.h>

namespace driver_check {
namespace {

// Returns 0 or an errno value. The library takes a positive result as a failure, too.
int send(const File& file, unsigned long number, const void* record) {
    const int result = ioctl(file.fd(), number, record);
    return result == 0 ? 0 : result < 0 ? errno : EIO;
}

// Records the request before sending it, so that one that blocks is the last step recorded.
int sendStep(const File& file, unsigned long number, void* record, const std::string& step) {
    did("%s", step.c_str());
    const int error = send(file, number, record);
    if (evidence != nullptr) {
        --evidence->steps;
        did("%s: %s", step.c_str(), nameOf(error).c_str());
    }
    return error;
}

void succeed(int error, const std::string& request) {
    if (error == ENOSPC || error == EDQUOT) {
        callFailed(request, error);
    }
    if (error != 0) {
        failed(request + " to return 0", nameOf(error));
    }
}

}  // namespace

int trySet(const File& file) {
    modify_check_info info = {MODIFY_CHECK_FLAG, MODIFY_CHECK_SET};
    return sendStep(file, F2FS_IOC_MODIFY_CHECK, &info,
                    "MODIFY_CHECK set (flag 0x82, mode 4) on " + file.described());
}

int tryGet(const File& file, uint32_t& flag) {
    modify_check_info info = {0, MODIFY_CHECK_GET};
    const std::string step = "MODIFY_CHECK get (flag 0, mode 8) on " + file.described();
    const int error = sendStep(file, F2FS_IOC_MODIFY_CHECK, &info, step);
    flag = info.flag;
    if (error == 0 && evidence != nullptr) {
        --evidence->steps;
        did("%s: flag %#x", step.c_str(), flag);
    }
    return error;
}

int tryInfo(const File& file, dedup_file_info& info) {
    info = {};
    const std::string step = "DEDUP_GET_FILE_INFO on " + file.described();
    const int error = sendStep(file, F2FS_IOC_DEDUP_GET_FILE_INFO, &info, step);
    if (error == 0 && evidence != nullptr) {
        --evidence->steps;
        did("%s: is_deduped %d, is_layered %d", step.c_str(), info.is_deduped, info.is_layered);
    }
    return error;
}

int tryClone(const File& clone, int32_t source_fd, const char* source_name) {
    clone_file_info info = {source_fd, CLONE_FLAGS};
    return sendStep(clone, F2FS_IOC_CLONE_FILE, &info,
                    format("CLONE_FILE (source_fd %d: %s, flags 0x160) on %s", source_fd,
                           source_name, clone.described().c_str()));
}

int tryPrepare(const File& source, int32_t clone_fd, const char* clone_name) {
    return sendStep(source, F2FS_IOC_SNAPSHOT_PREPARE, &clone_fd,
                    format("SNAPSHOT_PREPARE (word %d: %s) on %s", clone_fd, clone_name,
                           source.described().c_str()));
}

int tryCreate(const File& snapshot, int32_t source_fd, const char* source_name) {
    snapshot_create_info info = {source_fd, 0};
    return sendStep(snapshot, F2FS_IOC_SNAPSHOT_CREATE, &info,
                    format("SNAPSHOT_CREATE (source_fd %d: %s, flags 0) on %s", source_fd,
                           source_name, snapshot.described().c_str()));
}

int tryRevoke(const File& file) {
    uint32_t word = 0;
    return sendStep(file, F2FS_IOC_DEDUP_REVOKE, &word,
                    "DEDUP_REVOKE (word 0) on " + file.described());
}

void setMark(const File& file) {
    succeed(trySet(file), "MODIFY_CHECK set");
}

uint32_t flagOf(const File& file) {
    uint32_t flag = 0;
    succeed(tryGet(file, flag), "MODIFY_CHECK get");
    return flag;
}

bool isMarked(const File& file) {
    return (flagOf(file) & MODIFY_CHECK_UNCHANGED) != 0;
}

bool isLayered(const File& file) {
    dedup_file_info info;
    succeed(tryInfo(file, info), "DEDUP_GET_FILE_INFO");
    return info.is_layered != 0;
}

void cloneFrom(const File& clone, const File& source) {
    succeed(tryClone(clone, source.fd(), source.name()), "CLONE_FILE");
}

void prepare(const File& source, const File& clone) {
    succeed(tryPrepare(source, clone.fd(), clone.name()), "SNAPSHOT_PREPARE");
}

void createFrom(const File& snapshot, const File& source) {
    succeed(tryCreate(snapshot, source.fd(), source.name()), "SNAPSHOT_CREATE");
}

void layer(const File& source) {
    const File clone = unnamedFile();
    cloneFrom(clone, source);
    prepare(source, clone);
}

File snapshotOf(const File& source, const char* name) {
    did("open %s with O_RDWR|O_CREAT|O_TRUNC, mode 0440", name);
    File snapshot(name, O_RDWR | O_CREAT | O_TRUNC, 0440);
    if (const off_t size = sizeOf(source)) {
        did("fallocate of %s, mode 0, to %lld bytes", name, static_cast<long long>(size));
        need(fallocate(snapshot.fd(), 0, 0, size), "fallocate");
    }
    const File reader(source.name(), O_RDONLY);
    createFrom(snapshot, reader);
    return snapshot;
}

void expectMark(const File& file, const std::string& after) {
    const uint32_t flag = flagOf(file);
    if ((flag & MODIFY_CHECK_UNCHANGED) == 0) {
        failed(format("a flag of %s with the mark, bit 0x2, after ", file.name()) + after,
               format("flag %#x", flag));
    }
}

void expectNoMark(const File& file, const std::string& after) {
    const uint32_t flag = flagOf(file);
    if ((flag & MODIFY_CHECK_UNCHANGED) != 0) {
        failed(format("a flag of %s without the mark, bit 0x2, after ", file.name()) + after,
               format("flag %#x: the file counts as unchanged", flag));
    }
}

void expectRefused(int error, const std::string& request) {
    if (error == 0) {
        failed(request + " to be refused", "0: it was accepted");
    }
}

}  // namespace driver_check
