// SPDX-License-Identifier: Apache-2.0
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "driver_check/checks.h"

namespace driver_check::mark {
namespace {

File markedFile(const char* name = "source") {
    File file = newFile(name, pattern(SMALL));
    setMark(file);
    return file;
}

// A counter in the file, at offset AT, that only the writer of a race changes.
using Value = uint64_t;
constexpr off_t AT = BLOCK;

// Between a set and a get that returns the mark, the value that a reader sees must not change. This
// finds a change that does not clear the mark, one that clears it too early (a set places it again
// before the data change), and one that clears it too late.
void race(const char* what, const std::function<void()>& writer,
          const std::function<Value()>& value) {
    did("another process repeats: %s", what);
    const Process writing(writer);
    const File file("source", O_RDWR);
    unsigned long rounds = 0;
    unsigned long held = 0;
    for (const Race time; time.goesOn(); ++rounds) {
        setMark(file);
        const Value first = value();
        const Value second = value();
        const bool is_marked = isMarked(file);
        held += is_marked ? 1 : 0;
        if (is_marked && first != second) {
            did("that was round %lu; between set and get, reads gave %llu, then %llu", rounds,
                static_cast<unsigned long long>(first), static_cast<unsigned long long>(second));
            failed("a flag without the mark, bit 0x2: the file changed between set and get",
                   "the mark");
        }
    }
    note("%lu rounds among a writer; the mark was kept in %lu", rounds, held);
}

Value valueIn(const File& file) {
    Value value = 0;
    need(pread(file.fd(), &value, sizeof(value), AT), "pread");
    return value;
}

}  // namespace

void placed() {
    const File source = newFile("source", pattern(SMALL));
    const File reader("source", O_RDONLY);
    setMark(source);
    expectMark(reader, "a set through another descriptor has returned");
}

void readOnlyDescriptor() {
    newFile("source", pattern(SMALL));
    const File source("source", O_RDONLY);
    setMark(source);
    expectMark(source, "a set through a descriptor that is open for reading only");
}

void mode0440() {
    did("open snapshot with O_RDWR|O_CREAT|O_TRUNC, mode 0440");
    const File snapshot("snapshot", O_RDWR | O_CREAT | O_TRUNC, 0440);
    setMark(snapshot);
    expectMark(snapshot, "a set on a file of mode 0440");
}

// As create sends it: one record in memory, to the source and then to the snapshot file.
void recordKept() {
    const File source = newFile("source", pattern(SMALL));
    const File snapshot = newFile("snapshot", "");
    modify_check_info info = {MODIFY_CHECK_FLAG, MODIFY_CHECK_SET};
    for (const File* const file : {&source, &snapshot}) {
        did("MODIFY_CHECK with one record, now flag %#x, mode %u, on %s", info.flag, info.mode,
            file->name());
        need(ioctl(file->fd(), F2FS_IOC_MODIFY_CHECK, &info), "MODIFY_CHECK");
    }
    if ((info.flag & MODIFY_CHECK_UNCHANGED) == 0 || info.mode != MODIFY_CHECK_SET) {
        failed("a record that is still a set of bit 0x2 after the set",
               format("flag %#x, mode %u", info.flag, info.mode));
    }
    expectMark(source, "the first set");
    expectMark(snapshot, "the second set with the same record");
}

void keptByReads() {
    const File source = markedFile();
    contentOf(source);
    const File reader("source", O_RDONLY);
    contentOf(reader);
    did("read by two descriptors");
    expectMark(source, "reading the file");
}

void keptByRename() {
    const File source = markedFile();
    need(mkdir("directory", 0755), "mkdir");
    did("rename to directory/other");
    need(rename("source", "directory/other"), "rename");
    expectMark(source, "a rename");
    expectMark(File("directory/other", O_RDONLY), "a rename, by the new name");
}

void keptByLink() {
    const File source = markedFile();
    did("link as other, then unlink of source");
    need(link("source", "other"), "link");
    expectMark(File("other", O_RDONLY), "a link was made, by the new name");
    need(unlink("source"), "unlink");
    expectMark(source, "one of two names was removed");
}

void keptBySync() {
    const File source = markedFile();
    did("fsync, fdatasync, syncfs");
    need(fsync(source.fd()), "fsync");
    need(fdatasync(source.fd()), "fdatasync");
    need(syncfs(source.fd()), "syncfs");
    expectMark(source, "its data were written back");
}

// As root, drops the inode from the cache too.
void keptByDroppedCaches() {
    {
        const File source = markedFile();
        dropPages(source);
    }
    const int drop = open("/proc/sys/vm/drop_caches", O_WRONLY | O_CLOEXEC);
    if (drop >= 0 && write(drop, "2", 1) == 1) {
        did("closed source; wrote 2 to /proc/sys/vm/drop_caches");
    } else {
        note("inodes could not be dropped (needs root); only the file's pages were");
    }
    close(drop);
    expectMark(File("source", O_RDONLY), "the caches were dropped");
}

void perInode() {
    const File first = newFile("first", pattern(SMALL));
    const File second = newFile("second", pattern(SMALL, 2));
    setMark(second);
    writeAt(second, "x", 0);
    setMark(first);
    expectNoMark(second, "a set on another file");
    setMark(second);
    need(link("first", "name"), "link");
    const File name("name", O_RDWR);
    writeAt(name, "x", 0);
    expectNoMark(first, "a write by another name of it");
    expectMark(second, "a write to another file");
}

void lostBy(const Way& way) {
    const File source = newFile("source", pattern(SMALL));
    const auto change = way.make(source);
    setMark(source);
    const std::string before = contentOf(source);
    change();
    if (contentOf(source) == before) {
        skip("read(2) shows the same data and size after this change");
    }
    expectNoMark(source, "this change, which read(2) shows");
}

void raceWrite() {
    const File source = newFile("source", pattern(SMALL));
    race(
        "pwrite of a counter to source",
        [] {
            const File own("source", O_RDWR);
            for (Value value = 0;; ++value) {
                need(pwrite(own.fd(), &value, sizeof(value), AT), "pwrite");
            }
        },
        [&] { return valueIn(source); });
}

void raceTruncate() {
    const File source = newFile("source", pattern(SMALL));
    race(
        "ftruncate to another size of source",
        [] {
            const File own("source", O_RDWR);
            for (off_t size = 0;; ++size) {
                need(ftruncate(own.fd(), size % static_cast<off_t>(SMALL)), "ftruncate");
            }
        },
        [&] { return static_cast<Value>(contentOf(source, 0, SMALL).size()); });
}

void raceMapped() {
    const File source = newFile("source", pattern(SMALL));
    const Mapping trial(source);
    race(
        "stores to a shared mapping of source",
        [] {
            const File own("source", O_RDWR);
            const Mapping mapping(own);
            auto* const counter = reinterpret_cast<volatile Value*>(mapping.bytes() + AT);
            for (Value value = 0;; ++value) {
                *counter = value;
            }
        },
        [&] { return valueIn(source); });
}

}  // namespace driver_check::mark
