// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <array>

#include "driver_check/checks.h"

namespace driver_check::preparing {
namespace {

// The library does not prepare a layered file again, so SNAPSHOT_CREATE must accept it.
void expectAcceptedIfLayered(const File& source, const char* when) {
    if (!isLayered(source)) {
        return;
    }
    const File snapshot("trial", O_RDWR | O_CREAT | O_TRUNC);
    const int error = tryCreate(snapshot, source.fd(), source.name());
    if (error != 0) {
        failed(format("SNAPSHOT_CREATE to accept %s %s, since it is reported as layered",
                      source.name(), when),
               nameOf(error));
    }
}

// Bytes of the volume that are still in use after a file was prepared and removed `rounds` times.
// The median of several tries: meanwhile, other programs may fill the volume or free space.
long long spaceLost(size_t size, int rounds) {
    std::array<long long, 3> lost;
    for (long long& bytes : lost) {
        const long long before = freeBytes();
        for (int round = 0; round < rounds; ++round) {
            const File source = newFile("source", pattern(size));
            layer(source);
            cloneFrom(unnamedFile(), source);
            need(unlink("source"), "unlink");
        }
        bytes = before - freeBytes();
    }
    std::sort(lost.begin(), lost.end());
    return lost[lost.size() / 2];
}

}  // namespace

void cloneData() {
    for (const size_t size : {size_t{0}, size_t{1}, BLOCK - 1, BLOCK, BLOCK + 1, 64 * BLOCK}) {
        const std::string name = format("source%zu", size);
        const File source = newFile(name, pattern(size));
        const File clone = unnamedFile();
        cloneFrom(clone, source);
        expectStored(clone, pattern(size), "the bytes of its source");
    }
}

void sourceUnchanged() {
    for (const size_t size : {size_t{1}, BLOCK + 1, 64 * BLOCK}) {
        const std::string name = format("source%zu", size);
        const File source = newFile(name, pattern(size));
        layer(source);
        did("the clone is closed");
        expectStored(source, pattern(size), "the bytes it had before it was prepared");
        writeAt(source, "new", 0);
        std::string changed = pattern(size).replace(0, 3, "new");
        expectStored(source, changed, "what was written after it was prepared");
    }
}

void writeBetween() {
    const File source = newFile("source", pattern(SMALL));
    const File clone = unnamedFile();
    cloneFrom(clone, source);
    const std::string data = pattern(100, 9);
    writeAt(source, data, BLOCK);
    writeAt(source, data, SMALL);
    prepare(source, clone);
    const std::string expected = pattern(SMALL).replace(BLOCK, data.size(), data) + data;
    expectStored(source, expected, "what was written between CLONE_FILE and SNAPSHOT_PREPARE");
    expectStored(snapshotOf(source), expected, "the bytes of its source");
}

void layered() {
    const File source = newFile("source", pattern(SMALL));
    expectAcceptedIfLayered(source, "before it is prepared");
    {
        const File clone = unnamedFile();
        cloneFrom(clone, source);
        expectAcceptedIfLayered(source, "after CLONE_FILE alone");
        expectAcceptedIfLayered(clone, "(a clone)");
        prepare(source, clone);
    }
    if (!isLayered(source)) {
        failed("is_layered other than 0 after SNAPSHOT_PREPARE", "0");
    }
    expectAcceptedIfLayered(source, "after it was prepared");
    writeAt(source, "new", 0);
    expectAcceptedIfLayered(source, "after a write");
    resize(source, 0);
    expectAcceptedIfLayered(source, "after it was truncated");
    expectAcceptedIfLayered(newFile("other", pattern(SMALL)), "(a file that was never prepared)");
}

void stranger() {
    const File source = newFile("source", pattern(SMALL));
    const File other = newFile("other", pattern(SMALL, 2));
    const File clone = unnamedFile();
    cloneFrom(clone, other);
    const File empty = unnamedFile();
    for (const File* const file : {&other, &clone, &empty, &source}) {
        const bool is_clone = file == &clone;
        expectRefused(tryPrepare(source, file->fd(), is_clone ? "a clone of other" : file->name()),
                      "SNAPSHOT_PREPARE of source with a file that is no clone of it");
    }
    expectStored(source, pattern(SMALL), "its bytes, since every request was refused");
    expectStored(other, pattern(SMALL, 2), "its bytes, since every request was refused");
}

void space() {
    constexpr size_t SIZE = 1 << 20;
    constexpr int ROUNDS = 24;
    const long long lost = spaceLost(SIZE, ROUNDS);
    did("%d times: a file of 1 MiB is prepared, cloned once more and removed", ROUNDS);
    if (2 * lost > static_cast<long long>(SIZE) * ROUNDS) {
        failed("the volume to have as much free space as before", format("%lld bytes less", lost));
    }
}

void revoke() {
    const File source = newFile("source", pattern(SMALL));
    layer(source);
    const File snapshot = snapshotOf(source);
    for (const File* const file : {&source, &snapshot}) {
        const int error = tryRevoke(*file);
        dedup_file_info info = {};
        if (error != 0 || tryInfo(*file, info) != 0 || info.is_layered != 0 ||
            info.is_deduped != 0) {
            failed("is_deduped 0 and is_layered 0 after DEDUP_REVOKE",
                   error != 0
                       ? nameOf(error)
                       : format("is_deduped %d, is_layered %d", info.is_deduped, info.is_layered));
        }
        expectStored(*file, pattern(SMALL), "its bytes after DEDUP_REVOKE");
    }
    layer(source);
    expectStored(snapshotOf(source, "second"), pattern(SMALL), "the bytes of its source");
}

}  // namespace driver_check::preparing
