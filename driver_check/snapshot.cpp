// SPDX-License-Identifier: Apache-2.0
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "driver_check/checks.h"

namespace driver_check::snapshot {
namespace {

const char* const SOURCES_BYTES = "the bytes that its source had";

File layeredFile(const std::string& content, const std::string& name = "source") {
    File source = newFile(name, content);
    layer(source);
    return source;
}

// A stamped file: its writer puts the next number at the start of one block after the other, always
// in the same scattered order. So at any instant the numbers of all blocks are consecutive. A
// snapshot that misses one write and has a later one shows a gap.
using Stamp = uint32_t;
constexpr Stamp BLOCKS = 64;

size_t offsetOf(Stamp stamp) {
    return stamp * 37 % BLOCKS * BLOCK;
}

std::string stampedContent() {
    std::string content(BLOCKS * BLOCK, '\0');
    for (Stamp stamp = 0; stamp < BLOCKS; ++stamp) {
        memcpy(&content[offsetOf(stamp)], &stamp, sizeof(stamp));
    }
    return content;
}

// The numbers may overflow: only their differences count.
void expectOneInstant(const std::string& content) {
    Stamp first = 0;
    memcpy(&first, content.data(), sizeof(first));
    int32_t oldest = 0;
    int32_t newest = 0;
    for (size_t offset = 0; offset < content.size(); offset += BLOCK) {
        Stamp stamp = 0;
        memcpy(&stamp, content.data() + offset, sizeof(stamp));
        oldest = std::min(oldest, static_cast<int32_t>(stamp - first));
        newest = std::max(newest, static_cast<int32_t>(stamp - first));
    }
    if (newest - oldest != static_cast<int32_t>(BLOCKS) - 1) {
        failed(
            "a state that the source had at one instant: its writer numbers one block after the "
            "other, so that the numbers of the 64 blocks follow each other without a gap",
            format("the numbers %u to %u, which are %d and not 64",
                   first + static_cast<Stamp>(oldest), first + static_cast<Stamp>(newest),
                   newest - oldest + 1));
    }
}

// Takes snapshots of "source" while the writer changes it, and judges each.
void race(const std::function<void()>& writer, const std::function<void(const File&)>& judge,
          double factor = 1) {
    did("another process writes to source all the time");
    const Process writing(writer);
    const File source("source", O_RDONLY);
    const File snapshot("snapshot", O_RDWR | O_CREAT, 0440);
    unsigned long taken = 0;
    const Race time(factor);
    do {
        createFrom(snapshot, source);
        judge(snapshot);
    } while (++taken, time.goesOn());
    note("%lu snapshots among a writer", taken);
}

}  // namespace

void sizes() {
    constexpr size_t LARGE = (24U << 20) + 123;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{100}, size_t{3000}, BLOCK - 1, BLOCK,
                              BLOCK + 1, 16 * BLOCK, LARGE}) {
        const std::string content = pattern(size);
        const File source = layeredFile(content, format("source%zu", size));
        const File snapshot = snapshotOf(source, format("snapshot%zu", size).c_str());
        expectStored(snapshot, content, SOURCES_BYTES);
        expectContent(source, content, "the bytes it had before the snapshot");
    }
}

// Data between holes, and a hole at the end.
void sparse() {
    constexpr off_t HOLE = 1 << 20;
    const File source = newFile("source", pattern(100));
    writeAt(source, pattern(BLOCK, 2), HOLE);
    resize(source, 3 * HOLE + 5);
    layer(source);
    std::string expected = pattern(100);
    expected.resize(HOLE);
    expected += pattern(BLOCK, 2);
    expected.resize(3 * HOLE + 5);
    expectStored(snapshotOf(source), expected, SOURCES_BYTES);
}

// The library preallocates the low 32 bits of the size. Where the driver copies holes as data, the
// file would fill the volume.
void over4GiB() {
    constexpr off_t SIZE = (off_t{1} << 32) + 3 * BLOCK;
    {
        const File trial = newFile("trial", "");
        resize(trial, 16 << 20);
        layer(trial);
        struct stat attributes;
        need(fstat(snapshotOf(trial, "trial_snapshot").fd(), &attributes), "fstat");
        if (attributes.st_blocks > 8 << 11 && !is_long) {
            skip("the driver fills holes, so that 4 GiB would be written; --long does it");
        }
    }
    const File source = newFile("source", pattern(100));
    if (ftruncate(source.fd(), SIZE) != 0) {
        skip("the volume refuses a file of over 4 GiB (" + nameOf(errno) + ")");
    }
    writeAt(source, pattern(100, 2), SIZE - 100);
    layer(source);
    const File snapshot("snapshot", O_RDWR | O_CREAT | O_TRUNC, 0440);
    need(fallocate(snapshot.fd(), 0, 0, SIZE - (off_t{1} << 32)), "fallocate");
    createFrom(snapshot, source);
    if (sizeOf(snapshot) != SIZE) {
        failed(format("a size of %lld bytes", static_cast<long long>(SIZE)),
               format("%lld bytes", static_cast<long long>(sizeOf(snapshot))));
    }
    if (contentOf(snapshot, 0, 100) != pattern(100) ||
        contentOf(snapshot, SIZE - 100, 100) != pattern(100, 2)) {
        failed("the source's first and last 100 bytes", "others");
    }
}

// Pages of the snapshot file that are in memory before the request must not outlive it.
void cachedData() {
    const File source = layeredFile(pattern(SMALL));
    const File snapshot = newFile("snapshot", pattern(SMALL, 5));
    const File reader("snapshot", O_RDONLY);
    void* const mapping = mmap(nullptr, SMALL, PROT_READ, MAP_PRIVATE, reader.fd(), 0);
    const bool is_mapped = mapping != MAP_FAILED;
    std::string seen = is_mapped ? std::string(static_cast<char*>(mapping), SMALL) : "";
    expectContent(reader, pattern(SMALL, 5), "what was written to it");
    did("snapshot's pages are in memory: dirty, read%s", is_mapped ? " and mapped" : "");
    createFrom(snapshot, source);
    expectContent(reader, pattern(SMALL), SOURCES_BYTES);
    if (is_mapped && memcmp(mapping, pattern(SMALL).data(), SMALL) != 0) {
        failed("the source's bytes in a mapping of snapshot made before", "others");
    }
    expectStored(snapshot, pattern(SMALL), SOURCES_BYTES);
}

void mappedData() {
    const File source = layeredFile(pattern(SMALL));
    const Mapping mapping(source);
    std::string expected = pattern(SMALL);
    for (size_t block = 0; block < SMALL / BLOCK; ++block) {
        expected[block * BLOCK] = static_cast<char>('A' + block);
        mapping.bytes()[block * BLOCK] = static_cast<unsigned char>('A' + block);
    }
    did("stores to each page of a shared mapping of source");
    const File snapshot = snapshotOf(source);
    mapping.bytes()[0] = 'z';
    did("a store to the mapping after SNAPSHOT_CREATE");
    expectStored(snapshot, expected, "what was stored before SNAPSHOT_CREATE");
}

void preallocation() {
    const File source = layeredFile(pattern(SMALL));
    for (const off_t length :
         {off_t{0}, off_t{1}, off_t{SMALL - 1}, off_t{SMALL + 1}, off_t{9 * SMALL}}) {
        const File snapshot("snapshot", O_RDWR | O_CREAT | O_TRUNC);
        if (length > 0) {
            did("fallocate of snapshot, mode 0, to %lld bytes", static_cast<long long>(length));
            need(fallocate(snapshot.fd(), 0, 0, length), "fallocate");
        }
        createFrom(snapshot, source);
        expectStored(snapshot, pattern(SMALL), SOURCES_BYTES);
    }
}

void sourceLater() {
    const File source = layeredFile(pattern(SMALL));
    const File snapshot = snapshotOf(source);
    writeAt(source, "new", 0);
    writeAt(source, pattern(BLOCK, 3), BLOCK);
    expectStored(snapshot, pattern(SMALL), "the bytes its source had before later writes");
    resize(source, 1);
    resize(source, SMALL);
    expectStored(snapshot, pattern(SMALL), "the bytes its source had before it was truncated");
    did("unlink of source");
    need(unlink("source"), "unlink");
    expectStored(snapshot, pattern(SMALL), "the bytes of its source, which was deleted");
}

void snapshotLater() {
    const File source = layeredFile(pattern(SMALL));
    const File snapshot = snapshotOf(source);
    const File second = snapshotOf(source, "second");
    writeAt(snapshot, "new", 0);
    writeAt(snapshot, pattern(BLOCK, 3), BLOCK);
    expectStored(source, pattern(SMALL), "its own bytes after writes to its snapshot");
    resize(snapshot, 1);
    expectStored(source, pattern(SMALL), "its own bytes after its snapshot was truncated");
    did("unlink of snapshot");
    need(unlink("snapshot"), "unlink");
    expectStored(source, pattern(SMALL), "its own bytes after its snapshot was deleted");
    expectStored(second, pattern(SMALL), "its bytes after another snapshot was changed");
}

void keepsMark() {
    const File source = layeredFile(pattern(SMALL));
    setMark(source);
    const File snapshot = snapshotOf(source);
    expectMark(source, "SNAPSHOT_CREATE from it");
    dropPages(source);
    expectMark(source, "SNAPSHOT_CREATE from it and writeback");
}

void again() {
    const File source = layeredFile(pattern(SMALL));
    const File snapshot = snapshotOf(source);
    for (const size_t size : {SMALL + 100, BLOCK, size_t{10}}) {
        resize(source, 0);
        writeAt(source, pattern(size, 4), 0);
        createFrom(snapshot, source);
        expectStored(snapshot, pattern(size, 4), "the bytes of its source at the second request");
    }
}

void ofSnapshot() {
    const File source = layeredFile(pattern(SMALL));
    {
        const File snapshot = snapshotOf(source);
        if (!isLayered(snapshot)) {
            layer(snapshot);
        }
        expectStored(snapshot, pattern(SMALL), "its bytes after it was prepared");
    }
    expectStored(snapshotOf(File("snapshot", O_RDONLY), "second"), pattern(SMALL),
                 "the bytes of the snapshot that it was made from");
}

void oneInstant() {
    layeredFile(stampedContent());
    race(
        [] {
            const File own("source", O_RDWR);
            for (Stamp stamp = BLOCKS;; ++stamp) {
                need(pwrite(own.fd(), &stamp, sizeof(stamp), static_cast<off_t>(offsetOf(stamp))),
                     "pwrite");
            }
        },
        [](const File& snapshot) { expectOneInstant(contentOf(snapshot)); });
}

// The writer appends one block after the other with one stamp, truncates, and begins with the
// next. So whatever the size is, all blocks have one stamp.
void oneSize() {
    layeredFile("");
    race(
        [] {
            const File own("source", O_RDWR);
            for (Stamp stamp = 1;; ++stamp) {
                need(ftruncate(own.fd(), 0), "ftruncate");
                const std::string block(BLOCK, static_cast<char>(stamp % 255 + 1));
                for (off_t i = 0; i < 16; ++i) {
                    need(pwrite(own.fd(), block.data(), BLOCK, i * static_cast<off_t>(BLOCK)),
                         "pwrite");
                }
            }
        },
        [](const File& snapshot) {
            const std::string content = contentOf(snapshot);
            const size_t other =
                content.empty() ? std::string::npos : content.find_first_not_of(content[0]);
            if (other != std::string::npos || content.size() % BLOCK != 0) {
                failed(
                    "whole blocks that hold one and the same byte: the writer appends such "
                    "blocks, and truncates to 0 before it takes the next byte",
                    format("%zu bytes, 0x%02x first and another one at offset %zu", content.size(),
                           static_cast<unsigned char>(content[0]), other));
            }
        });
}

void oneInstantMapped() {
    const File source = layeredFile(stampedContent());
    const Mapping trial(source);
    race(
        [] {
            const File own("source", O_RDWR);
            const Mapping mapping(own);
            auto* const bytes = const_cast<unsigned char*>(mapping.bytes());
            for (Stamp stamp = BLOCKS;; ++stamp) {
                __atomic_store_n(reinterpret_cast<Stamp*>(bytes + offsetOf(stamp)), stamp,
                                 __ATOMIC_SEQ_CST);
            }
        },
        [](const File& snapshot) { expectOneInstant(contentOf(snapshot)); }, 2);
}

}  // namespace driver_check::snapshot
