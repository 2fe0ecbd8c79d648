// SPDX-License-Identifier: Apache-2.0
// By raw system calls: liburing is not on every device, and one write is all there is to submit.
#include "driver_check/io_uring.h"

#include <linux/io_uring.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace driver_check {
namespace {

// The three memory areas that the kernel shares with the owner of a ring.
struct Areas {
    size_t submission_size;
    size_t completion_size;
    char* submission;
    char* completion;
    io_uring_sqe* entry;
};

void* mapArea(int ring, size_t size, off_t offset) {
    return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, ring, offset);
}

uint32_t& wordAt(char* area, uint32_t offset) {
    return *reinterpret_cast<uint32_t*>(area + offset);
}

int submitOne(int ring, const io_uring_params& params, const Areas& areas) {
    wordAt(areas.submission, params.sq_off.array) = 0;
    __atomic_store_n(&wordAt(areas.submission, params.sq_off.tail), 1U, __ATOMIC_RELEASE);
    if (syscall(__NR_io_uring_enter, ring, 1, 1, IORING_ENTER_GETEVENTS, nullptr, 0) < 0) {
        return -errno;
    }
    return reinterpret_cast<io_uring_cqe*>(areas.completion + params.cq_off.cqes)->res;
}

int writeThrough(int ring, const io_uring_params& params, const io_uring_sqe& request) {
    Areas areas = {};
    areas.submission_size = params.sq_off.array + params.sq_entries * sizeof(uint32_t);
    areas.completion_size = params.cq_off.cqes + params.cq_entries * sizeof(io_uring_cqe);
    void* const submission = mapArea(ring, areas.submission_size, IORING_OFF_SQ_RING);
    void* const completion = mapArea(ring, areas.completion_size, IORING_OFF_CQ_RING);
    void* const entries = mapArea(ring, sizeof(request), IORING_OFF_SQES);
    int result = -ENOMEM;
    if (submission != MAP_FAILED && completion != MAP_FAILED && entries != MAP_FAILED) {
        areas.submission = static_cast<char*>(submission);
        areas.completion = static_cast<char*>(completion);
        *static_cast<io_uring_sqe*>(entries) = request;
        result = submitOne(ring, params, areas);
    }
    munmap(submission, areas.submission_size);
    munmap(completion, areas.completion_size);
    munmap(entries, sizeof(request));
    return result;
}

}  // namespace

int writeByIoUring(int fd, const void* data, size_t size) {
    io_uring_params params = {};
    const auto ring = static_cast<int>(syscall(__NR_io_uring_setup, 1, &params));
    if (ring < 0) {
        return -ENOSYS;
    }
    io_uring_sqe request = {};
    request.opcode = IORING_OP_WRITE;
    request.fd = fd;
    request.addr = reinterpret_cast<uintptr_t>(data);
    request.len = static_cast<uint32_t>(size);
    const int result = writeThrough(ring, params, request);
    close(ring);
    return result;
}

}  // namespace driver_check
