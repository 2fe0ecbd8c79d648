// SPDX-License-Identifier: Apache-2.0
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "driver_check/checks.h"

namespace driver_check::presence {
namespace {

// Whether the error is one that the kernel and file systems return for an unknown request.
bool isUnknown(int error) {
    return error == ENOTTY || error == EOPNOTSUPP || error == ENOSYS;
}

// Expects that the driver has a request: it succeeds, or is refused after a request that it depends
// on has failed with the error `before`.
void expectPresent(int error, const char* name, int before = 0) {
    if (isUnknown(error)) {
        failed(std::string(name) + " to be known to the driver", nameOf(error));
    }
    if (error != 0 && before == 0) {
        failed(std::string(name) + " to return 0", nameOf(error));
    }
}

File fourBytes() {
    return newFile("source", "data");
}

struct Code {
    const char* name;
    unsigned long number;
};
constexpr Code REQUESTS[] = {
    {"DEDUP_REVOKE", F2FS_IOC_DEDUP_REVOKE},
    {"DEDUP_GET_FILE_INFO", F2FS_IOC_DEDUP_GET_FILE_INFO},
    {"CLONE_FILE", F2FS_IOC_CLONE_FILE},
    {"MODIFY_CHECK", F2FS_IOC_MODIFY_CHECK},
    {"SNAPSHOT_CREATE", F2FS_IOC_SNAPSHOT_CREATE},
    {"SNAPSHOT_PREPARE", F2FS_IOC_SNAPSHOT_PREPARE},
};

int sendRaw(int fd, const Code& code, void* argument, const std::string& what) {
    did("%s (code %#lx) %s", code.name, code.number, what.c_str());
    return ioctl(fd, code.number, argument) == 0 ? 0 : errno;
}

// Memory that ends where a page without any access begins.
class EndOfMemory {
  public:
    EndOfMemory() : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
        void* const start =
            mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (start == MAP_FAILED) {
            callFailed("mmap", errno);
        }
        start_ = static_cast<char*>(start);
        need(mprotect(start_ + page_, page_, PROT_NONE), "mprotect");
    }
    ~EndOfMemory() {
        munmap(start_, 2 * page_);
    }
    EndOfMemory(const EndOfMemory&) = delete;
    EndOfMemory& operator=(const EndOfMemory&) = delete;

    char* inaccessible() const {
        return start_ + page_;
    }
    template <typename Record>
    char* put(const Record& record) const {
        memset(start_, 0xEE, page_);
        return static_cast<char*>(memcpy(inaccessible() - sizeof(record), &record, sizeof(record)));
    }
    // Whether the bytes before the record are as `put` left them.
    bool isWholeBefore(size_t record_size) const {
        for (size_t i = 0; i < page_ - record_size; ++i) {
            if (start_[i] != '\xEE') {
                return false;
            }
        }
        return true;
    }

  private:
    size_t page_;
    char* start_;
};

template <typename Record>
void sendAtTheEnd(const EndOfMemory& memory, const File& on, const Code& code,
                  const Record& record) {
    char* const argument = memory.put(record);
    const int error = sendRaw(on.fd(), code, argument,
                              format("on %s, its record of %zu bytes at the end of memory",
                                     on.described().c_str(), sizeof(record)));
    if (error != 0) {
        failed(format("0, since the record has %zu bytes and no more are to be read or written",
                      sizeof(record)),
               nameOf(error));
    }
    if (!memory.isWholeBefore(sizeof(record))) {
        failed("the bytes before the record to stay as they are", "other bytes there");
    }
}

}  // namespace

void getFileInfo() {
    dedup_file_info info;
    expectPresent(tryInfo(fourBytes(), info), "DEDUP_GET_FILE_INFO");
}

void modifyCheck() {
    const File source = fourBytes();
    expectPresent(trySet(source), "MODIFY_CHECK (mode 4, set)");
    uint32_t flag = 0;
    expectPresent(tryGet(source, flag), "MODIFY_CHECK (mode 8, get)");
}

void cloneFile() {
    const File source = fourBytes();
    const File clone = unnamedFile();
    expectPresent(tryClone(clone, source.fd(), source.name()), "CLONE_FILE");
}

void snapshotPrepare() {
    const File source = fourBytes();
    const File clone = unnamedFile();
    const int cloned = tryClone(clone, source.fd(), source.name());
    expectPresent(tryPrepare(source, clone.fd(), clone.name()), "SNAPSHOT_PREPARE", cloned);
}

void snapshotCreate() {
    const File source = fourBytes();
    int before = 0;
    {
        const File clone = unnamedFile();
        before = tryClone(clone, source.fd(), source.name());
        before = before != 0 ? before : tryPrepare(source, clone.fd(), clone.name());
    }
    const File snapshot = newFile("snapshot", "");
    expectPresent(tryCreate(snapshot, source.fd(), source.name()), "SNAPSHOT_CREATE", before);
}

void dedupRevoke() {
    expectPresent(tryRevoke(fourBytes()), "DEDUP_REVOKE");
}

void directories() {
    need(mkdir("directory", 0755), "mkdir");
    need(mkfifo("pipe", 0644), "mkfifo");
    const File source = fourBytes();
    const File directory("directory", O_RDONLY | O_DIRECTORY);
    const File fifo("pipe", O_RDWR);
    for (const File* const file : {&directory, &fifo}) {
        for (const Code& code : REQUESTS) {
            uint64_t record = static_cast<uint32_t>(source.fd());
            expectRefused(sendRaw(file->fd(), code, &record, "on the " + std::string(file->name())),
                          std::string(code.name) + " on a " + file->name());
        }
    }
}

// Codes of no request: those of the table with another size, and an unused number. No other number
// is sent, since a driver may have requests of its own there.
void unknownRequests() {
    const File source = newFile("source", pattern(SMALL));
    for (const Code& known : REQUESTS) {
        constexpr unsigned long SIZE_MASK = 0x3FFFUL << 16;
        const unsigned long size = 64UL << 16;
        const Code other = {known.name, (known.number & ~SIZE_MASK) | size};
        char record[64] = {};
        expectRefused(sendRaw(source.fd(), other, record, "with a record size of 64 bytes"),
                      format("code %#lx", other.number));
    }
    const Code unused = {"number 0xfe", _IOW(F2FS_IOC_MAGIC, 0xFE, uint32_t)};
    uint32_t word = 0;
    expectRefused(sendRaw(source.fd(), unused, &word, "on source"), "an unused number");
    expectContent(source, pattern(SMALL), "its bytes, since every request was refused");
}

// Sends descriptors that are not readable files of the volume, to each request that takes one.
void badDescriptors() {
    const File source = newFile("source", pattern(SMALL));
    layer(source);
    const File target = newFile("target", pattern(BLOCK, 2));
    const File writing("source", O_WRONLY);
    const File elsewhere("/proc/self/exe", O_RDONLY);
    const File directory(".", O_RDONLY | O_DIRECTORY);
    int ends[2];
    need(pipe(ends), "pipe");
    const struct {
        int fd;
        const char* name;
    } bad[] = {{-1, "no descriptor"},
               {1000000, "a closed descriptor"},
               {ends[0], "a pipe"},
               {elsewhere.fd(), "a file of another file system"},
               {directory.fd(), "a directory"},
               {writing.fd(), "source, open for writing only"}};
    for (const auto& descriptor : bad) {
        expectRefused(tryClone(target, descriptor.fd, descriptor.name),
                      std::string("CLONE_FILE from ") + descriptor.name);
        expectRefused(tryCreate(target, descriptor.fd, descriptor.name),
                      std::string("SNAPSHOT_CREATE from ") + descriptor.name);
        if (descriptor.fd != writing.fd()) {
            expectRefused(tryPrepare(target, descriptor.fd, descriptor.name),
                          std::string("SNAPSHOT_PREPARE with ") + descriptor.name);
        }
    }
    close(ends[0]);
    close(ends[1]);
    expectContent(target, pattern(BLOCK, 2), "its bytes, since every request was refused");
}

void readOnlyTarget() {
    const File source = newFile("source", pattern(SMALL));
    layer(source);
    newFile("target", pattern(BLOCK, 2));
    const File target("target", O_RDONLY);
    expectRefused(tryClone(target, source.fd(), source.name()),
                  "CLONE_FILE on a descriptor that is open for reading only");
    expectRefused(tryCreate(target, source.fd(), source.name()),
                  "SNAPSHOT_CREATE on a descriptor that is open for reading only");
    expectContent(target, pattern(BLOCK, 2), "its bytes, since every request was refused");
}

void badMemory() {
    const File source = newFile("source", pattern(SMALL));
    const EndOfMemory memory;
    for (const Code& code : REQUESTS) {
        for (char* const argument :
             {static_cast<char*>(nullptr), memory.inaccessible(), memory.inaccessible() - 2}) {
            expectRefused(sendRaw(source.fd(), code, argument,
                                  format("on source, its record at %p, which cannot be read",
                                         static_cast<void*>(argument))),
                          std::string(code.name) + " with a record that cannot be read");
        }
    }
    expectContent(source, pattern(SMALL), "its bytes, since every request was refused");
}

void recordBounds() {
    const File source = newFile("source", pattern(SMALL));
    const File clone = unnamedFile();
    const File snapshot = newFile("snapshot", "");
    const EndOfMemory memory;
    sendAtTheEnd(memory, source, REQUESTS[1], dedup_file_info());
    sendAtTheEnd(memory, source, REQUESTS[3],
                 modify_check_info{MODIFY_CHECK_FLAG, MODIFY_CHECK_SET});
    sendAtTheEnd(memory, source, REQUESTS[3], modify_check_info{0, MODIFY_CHECK_GET});
    sendAtTheEnd(memory, clone, REQUESTS[2], clone_file_info{source.fd(), CLONE_FLAGS});
    sendAtTheEnd(memory, source, REQUESTS[5], clone.fd());
    sendAtTheEnd(memory, snapshot, REQUESTS[4], snapshot_create_info{source.fd(), 0});
    expectContent(snapshot, pattern(SMALL), "the bytes of its source");
}

}  // namespace driver_check::presence
