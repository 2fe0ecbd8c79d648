// SPDX-License-Identifier: Apache-2.0
// What must outlive a reboot. `before` leaves files and a record of them in the working directory;
// the other checks compare them in a later run of the program.
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "driver_check/checks.h"

namespace driver_check::persistence {
namespace {

const char* const RECORD = "record.json";
constexpr int VERSION = 1;

std::string bootId() {
    const File file("/proc/sys/kernel/random/boot_id", O_RDONLY);
    return contentOf(file, 0, 36);
}

// The entries of the record's files.
nlohmann::json recordedFiles() {
    const File file(RECORD, O_RDONLY);
    nlohmann::json record = nlohmann::json::parse(contentOf(file), nullptr, false);
    if (record.is_discarded() || record.value("version", 0) != VERSION) {
        failed(std::string(RECORD) + " as --stage=before wrote it", "something else");
    }
    if (record.value("boot_id", "") == bootId()) {
        note("the machine was not booted since --stage=before");
    }
    return record["files"];
}

std::string patternOf(const nlohmann::json& entry) {
    return pattern(entry.value("size", size_t{0}), entry.value("seed", 0U));
}

}  // namespace

void before() {
    nlohmann::json files = nlohmann::json::array();
    for (const size_t size : {size_t{1}, size_t{100}, BLOCK + 1, size_t{2} << 20}) {
        const std::string name = format("source%zu", size);
        const File source = newFile(name, pattern(size));
        layer(source);
        snapshotOf(source, ("snapshot_of_" + name).c_str());
        writeAt(source, pattern(size, 2), 0);
        files.push_back({{"name", "snapshot_of_" + name}, {"size", size}, {"seed", 1}});
        files.push_back({{"name", name}, {"size", size}, {"seed", 2}, {"is_source", true}});
    }
    const File marked = newFile("marked", pattern(SMALL));
    setMark(marked);
    need(fsync(marked.fd()), "fsync");
    writeAt(marked, pattern(SMALL, 2), 0);
    files.push_back({{"name", "marked"}, {"size", SMALL}, {"seed", 2}, {"is_changed", true}});
    const nlohmann::json record = {
        {"version", VERSION}, {"boot_id", bootId()}, {"files", std::move(files)}};
    const File file = newFile(RECORD, record.dump(2) + "\n");
    need(syncfs(file.fd()), "syncfs");
}

void data() {
    for (const auto& entry : recordedFiles()) {
        const File file(entry.value("name", ""), O_RDONLY);
        did("%s is read, which --stage=before wrote", file.name());
        expectContent(file, patternOf(entry), "what it held before the reboot");
    }
}

void layered() {
    for (const auto& entry : recordedFiles()) {
        if (!entry.value("is_source", false)) {
            continue;
        }
        const File source(entry.value("name", ""), O_RDWR);
        if (!isLayered(source)) {
            layer(source);
        }
        expectStored(snapshotOf(source, "snapshot_after"), patternOf(entry),
                     "the bytes of its source");
        need(unlink("snapshot_after"), "unlink");
    }
}

void marks() {
    for (const auto& entry : recordedFiles()) {
        if (entry.value("is_changed", false)) {
            expectNoMark(File(entry.value("name", ""), O_RDONLY),
                         "a set, a write and the reboot, in this order");
        }
    }
}

}  // namespace driver_check::persistence
