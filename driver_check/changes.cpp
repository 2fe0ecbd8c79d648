// SPDX-License-Identifier: Apache-2.0
#include "driver_check/changes.h"

#include <linux/aio_abi.h>
#include <linux/f2fs.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <iterator>
#include <memory>
#include <utility>

#include "driver_check/io_uring.h"

namespace driver_check {
namespace {

using Change = std::function<void()>;

alignas(BLOCK) const char NEW_BLOCK[BLOCK] = {'n', 'e', 'w'};

// Records a change that was made. Skips the check if the volume or the kernel does not offer it.
void changed(ssize_t result, const char* call) {
    const int error = errno;
    if (result >= 0) {
        did("%s: %zd", call, result);
        return;
    }
    for (const int refusal : {EOPNOTSUPP, ENOTTY, ENOSYS, ENODEV}) {
        if (error == refusal) {
            skip(format("the volume refuses %s (%s)", call, nameOf(error).c_str()));
        }
    }
    callFailed(call, error);
}

Change byWrite(const File& file) {
    return [&] { changed(write(file.fd(), NEW_BLOCK, BLOCK), "write at offset 0"); };
}

Change byPwrite(const File& file) {
    return [&] { changed(pwrite(file.fd(), "x", 1, BLOCK), "pwrite of 1 byte at offset 4096"); };
}

Change byWritev(const File& file) {
    return [&] {
        const iovec parts[] = {{const_cast<char*>(NEW_BLOCK), 3}, {const_cast<char*>("x"), 1}};
        changed(writev(file.fd(), parts, 2), "writev at offset 0");
    };
}

Change byAppend(const File& file) {
    return [&] {
        const File appending(file.name(), O_WRONLY | O_APPEND);
        changed(write(appending.fd(), "x", 1), "write to an O_APPEND descriptor");
    };
}

Change byDirectIo(const File& file) {
    constexpr int FLAGS = O_WRONLY | O_DIRECT | O_CLOEXEC;
    const int trial = open(file.name(), FLAGS);
    if (trial < 0) {
        skip("the volume refuses O_DIRECT (" + nameOf(errno) + ")");
    }
    close(trial);
    return [&] {
        const File direct(file.name(), FLAGS);
        changed(pwrite(direct.fd(), NEW_BLOCK, BLOCK, 0), "pwrite of a block with O_DIRECT");
    };
}

Change byAsyncIo(const File& file) {
    aio_context_t context = 0;
    if (syscall(SYS_io_setup, 1, &context) != 0) {
        skip("the kernel has no asynchronous I/O (" + nameOf(errno) + ")");
    }
    return [&file, context] {
        iocb block = {};
        block.aio_lio_opcode = IOCB_CMD_PWRITE;
        block.aio_fildes = static_cast<uint32_t>(file.fd());
        block.aio_buf = reinterpret_cast<uintptr_t>(NEW_BLOCK);
        block.aio_nbytes = BLOCK;
        iocb* blocks[] = {&block};
        io_event event = {};
        need(syscall(SYS_io_submit, context, 1, blocks), "io_submit");
        need(syscall(SYS_io_getevents, context, 1, 1, &event, nullptr), "io_getevents");
        syscall(SYS_io_destroy, context);
        errno = static_cast<int>(-event.res);
        changed(static_cast<ssize_t>(event.res), "io_submit of IOCB_CMD_PWRITE");
    };
}

Change byIoUring(const File& file) {
    return [&] {
        const int result = writeByIoUring(file.fd(), NEW_BLOCK, BLOCK);
        errno = -result;
        changed(result, "IORING_OP_WRITE at offset 0");
    };
}

Change bySplice(const File& file) {
    return [&] {
        int ends[2];
        need(pipe(ends), "pipe");
        need(write(ends[1], NEW_BLOCK, BLOCK), "write to a pipe");
        loff_t offset = 0;
        const ssize_t moved = splice(ends[0], nullptr, file.fd(), &offset, BLOCK, 0);
        const int error = errno;
        close(ends[0]);
        close(ends[1]);
        errno = error;
        changed(moved, "splice of 4096 bytes from a pipe");
    };
}

Change bySendfile(const File& file) {
    newFile("other", pattern(BLOCK, 7));
    return [&] {
        const File other("other", O_RDONLY);
        off_t offset = 0;
        changed(sendfile(file.fd(), other.fd(), &offset, BLOCK), "sendfile of 4096 bytes");
    };
}

Change byCopyFileRange(const File& file) {
    newFile("other", pattern(BLOCK, 7));
    return [&] {
        const File other("other", O_RDONLY);
        // The raw call: bionic has a name for it from API 34 on only.
        changed(syscall(SYS_copy_file_range, other.fd(), nullptr, file.fd(), nullptr, BLOCK, 0),
                "copy_file_range of 4096 bytes");
    };
}

Change byTruncatingOpen(const File& file) {
    return [&] {
        const File truncating(file.name(), O_WRONLY | O_TRUNC);
        changed(0, "open with O_WRONLY|O_TRUNC");
    };
}

Change byTruncateDown(const File& file) {
    return [&] { changed(ftruncate(file.fd(), SMALL - 1), "ftruncate to one byte less"); };
}

Change byTruncateUp(const File& file) {
    return [&] { changed(ftruncate(file.fd(), SMALL + 1), "ftruncate to one byte more"); };
}

Change byTruncatePath(const File& file) {
    return [&] { changed(truncate(file.name(), BLOCK), "truncate (by path) to 4096 bytes"); };
}

template <int MODE, off_t OFFSET, off_t LENGTH>
Change byFallocate(const File& file) {
    return [&] {
        changed(fallocate(file.fd(), MODE, OFFSET, LENGTH),
                format("fallocate mode %#x, offset %lld, length %lld", MODE,
                       static_cast<long long>(OFFSET), static_cast<long long>(LENGTH))
                    .c_str());
    };
}

// The first store makes the page writable. If a set does not write-protect it again, the second
// store causes no fault.
Change byMappingMadeBefore(const File& file) {
    const auto mapping = std::make_shared<Mapping>(file);
    mapping->bytes()[0] = 1;
    did("store to a shared mapping of %s, which makes its page writable", file.name());
    return [mapping] {
        mapping->bytes()[0] = 2;
        did("store to the same page of the mapping");
    };
}

Change byMappingMadeAfter(const File& file) {
    const Mapping trial(file);
    return [&] {
        const Mapping mapping(file);
        mapping.bytes()[BLOCK] = 2;
        did("store to a shared mapping made after the set");
    };
}

// A process that stores to its mapping, reports by a pipe, and stores again when told to.
class Storer {
  public:
    explicit Storer(const File& file) {
        const Mapping trial(file);
        need(pipe(to_), "pipe");
        need(pipe(from_), "pipe");
        process_ = std::make_unique<Process>([&] {
            const Mapping mapping(file);
            for (unsigned char value = 1; value < 3; ++value) {
                mapping.bytes()[0] = value;
                need(write(from_[1], "", 1), "write");
                char told;
                need(read(to_[0], &told, 1), "read");
            }
        });
        await();
    }
    ~Storer() {
        for (const int fd : {to_[0], to_[1], from_[0], from_[1]}) {
            close(fd);
        }
    }
    Storer(const Storer&) = delete;
    Storer& operator=(const Storer&) = delete;
    void storeAgain() {
        need(write(to_[1], "", 1), "write to a pipe");
        await();
    }

  private:
    void await() {
        char stored;
        need(read(from_[0], &stored, 1), "read of a pipe");
    }
    int to_[2];
    int from_[2];
    std::unique_ptr<Process> process_;
};

Change byMappingOfAnotherProcess(const File& file) {
    const auto storer = std::make_shared<Storer>(file);
    did("another process stores to its shared mapping of %s", file.name());
    return [storer] {
        storer->storeAgain();
        did("the other process stores to the same page again");
    };
}

Change byAnotherProcess(const File& file) {
    return [&] {
        Process writer([&] {
            const File own(file.name(), O_WRONLY);
            need(pwrite(own.fd(), "x", 1, 0), "pwrite");
        });
        errno = EIO;
        changed(writer.join() ? 1 : -1, "pwrite of 1 byte by another process");
    };
}

Change byCloneFile(const File& file) {
    newFile("other", pattern(BLOCK, 7));
    return [&] { cloneFrom(file, File("other", O_RDONLY)); };
}

Change bySnapshotCreate(const File& file) {
    layer(newFile("other", pattern(BLOCK, 7)));
    return [&] { createFrom(file, File("other", O_RDONLY)); };
}

Change byReflink(const File& file) {
    newFile("other", pattern(BLOCK, 7));
    return [&] {
        const File other("other", O_RDONLY);
        changed(ioctl(file.fd(), FICLONE, other.fd()), "FICLONE into the file");
    };
}

Change byMoveRangeInto(const File& file) {
    newFile("other", pattern(SMALL, 7));
    return [&] {
        const File other("other", O_RDWR);
        f2fs_move_range range = {static_cast<uint32_t>(file.fd()), 0, 0, BLOCK};
        changed(ioctl(other.fd(), F2FS_IOC_MOVE_RANGE, &range),
                "F2FS_IOC_MOVE_RANGE into the file");
    };
}

Change byMoveRangeOut(const File& file) {
    newFile("other", pattern(SMALL, 7));
    return [&] {
        const File other("other", O_RDWR);
        f2fs_move_range range = {static_cast<uint32_t>(other.fd()), 0, 0, BLOCK};
        changed(ioctl(file.fd(), F2FS_IOC_MOVE_RANGE, &range),
                "F2FS_IOC_MOVE_RANGE out of the file");
    };
}

void writeAtomically(const File& file) {
    changed(ioctl(file.fd(), F2FS_IOC_START_ATOMIC_WRITE), "F2FS_IOC_START_ATOMIC_WRITE");
    changed(pwrite(file.fd(), NEW_BLOCK, BLOCK, 0), "pwrite at offset 0");
}

Change byAtomicWrite(const File& file) {
    return [&] {
        writeAtomically(file);
        changed(ioctl(file.fd(), F2FS_IOC_COMMIT_ATOMIC_WRITE), "F2FS_IOC_COMMIT_ATOMIC_WRITE");
    };
}

// Where readers see data that are not committed yet, aborting is a change too.
Change byAtomicAbort(const File& file) {
    writeAtomically(file);
    return [&] {
        changed(ioctl(file.fd(), F2FS_IOC_ABORT_ATOMIC_WRITE), "F2FS_IOC_ABORT_ATOMIC_WRITE");
    };
}

Change bySecureTrim(const File& file) {
    return [&] {
        f2fs_sectrim_range range = {0, BLOCK, F2FS_TRIM_FILE_ZEROOUT};
        changed(ioctl(file.fd(), F2FS_IOC_SEC_TRIM_FILE, &range), "F2FS_IOC_SEC_TRIM_FILE");
    };
}

constexpr int KEEP = FALLOC_FL_KEEP_SIZE;

}  // namespace

const Way CHANGES[] = {
    {"write", byWrite, NOTHING},
    {"pwrite", byPwrite, NOTHING},
    {"writev", byWritev, NOTHING},
    {"append", byAppend, NOTHING},
    {"direct-io", byDirectIo, NOTHING},
    {"async-io", byAsyncIo, NOTHING},
    {"io-uring", byIoUring, NOTHING},
    {"splice", bySplice, NOTHING},
    {"sendfile", bySendfile, NOTHING},
    {"copy-file-range", byCopyFileRange, NOTHING},
    {"another-process", byAnotherProcess, NOTHING},
    {"truncating-open", byTruncatingOpen, NOTHING},
    {"truncate-down", byTruncateDown, NOTHING},
    {"truncate-up", byTruncateUp, NOTHING},
    {"truncate-path", byTruncatePath, NOTHING},
    {"fallocate", byFallocate<0, SMALL, BLOCK>, NOTHING},
    {"punch-hole", byFallocate<FALLOC_FL_PUNCH_HOLE | KEEP, 0, BLOCK>, NOTHING},
    {"zero-range", byFallocate<FALLOC_FL_ZERO_RANGE, 0, BLOCK>, NOTHING},
    {"collapse-range", byFallocate<FALLOC_FL_COLLAPSE_RANGE, 0, BLOCK>, NOTHING},
    {"insert-range", byFallocate<FALLOC_FL_INSERT_RANGE, 0, BLOCK>, NOTHING},
    {"mapping-before", byMappingMadeBefore, NOTHING},
    {"mapping-after", byMappingMadeAfter, NOTHING},
    {"mapping-of-another-process", byMappingOfAnotherProcess, NOTHING},
    {"clone-file", byCloneFile, CLONE},
    {"snapshot-create", bySnapshotCreate, SNAPSHOT},
    {"reflink", byReflink, NOTHING},
    {"move-range-into", byMoveRangeInto, NOTHING},
    {"move-range-out", byMoveRangeOut, NOTHING},
    {"atomic-write", byAtomicWrite, NOTHING},
    {"atomic-abort", byAtomicAbort, NOTHING},
    {"secure-trim", bySecureTrim, NOTHING},
};
const size_t CHANGE_COUNT = std::size(CHANGES);

Mapping::Mapping(const File& file) : size_(static_cast<size_t>(sizeOf(file))) {
    void* const start = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, file.fd(), 0);
    if (start == MAP_FAILED) {
        skip("the volume refuses shared mappings (" + nameOf(errno) + "), which is safe");
    }
    bytes_ = static_cast<volatile unsigned char*>(start);
}

Mapping::Mapping(Mapping&& from) noexcept
    : bytes_(std::exchange(from.bytes_, nullptr)), size_(from.size_) {}

Mapping::~Mapping() {
    if (bytes_ != nullptr) {
        munmap(const_cast<unsigned char*>(bytes_), size_);
    }
}

}  // namespace driver_check
