// SPDX-License-Identifier: Apache-2.0
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>

#include "driver_check/checks.h"

namespace driver_check::file_system {

void tmpfile() {
    need(mkdir("directory", 0755), "mkdir");
    did("open directory with O_RDWR|O_TMPFILE, mode 0770");
    const File file("directory", O_RDWR | O_TMPFILE, 0770);
    writeAt(file, pattern(SMALL), 0);
    expectContent(file, pattern(SMALL), "what was written to it");
    struct stat attributes;
    need(fstat(file.fd(), &attributes), "fstat");
    if (attributes.st_nlink != 0) {
        failed("an unnamed file to have no link",
               format("%ju links", static_cast<uintmax_t>(attributes.st_nlink)));
    }
}

void entryTypes() {
    newFile("file", "");
    need(mkdir("directory", 0755), "mkdir");
    need(symlink("file", "link"), "symlink");
    need(mkfifo("pipe", 0644), "mkfifo");
    std::map<std::string, int> expected = {
        {"file", DT_REG}, {"directory", DT_DIR}, {"link", DT_LNK}, {"pipe", DT_FIFO}};
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir("."), closedir);
    if (stream == nullptr) {
        callFailed("opendir", errno);
    }
    did("readdir of a file, a directory, a symbolic link and a pipe");
    while (const dirent* const entry = readdir(stream.get())) {
        const auto known = expected.find(entry->d_name);
        if (known == expected.end()) {
            continue;
        }
        if (entry->d_type != known->second) {
            failed(
                format("d_type %d for %s", known->second, entry->d_name),
                format("%d%s", entry->d_type, entry->d_type == DT_UNKNOWN ? " (DT_UNKNOWN)" : ""));
        }
        expected.erase(known);
    }
    if (!expected.empty()) {
        failed("an entry for " + expected.begin()->first, "none");
    }
}

void mode0440() {
    did("open file with O_RDWR|O_CREAT|O_TRUNC, mode 0440");
    const File file("file", O_RDWR | O_CREAT | O_TRUNC, 0440);
    did("fallocate of file, mode 0, to %zu bytes", SMALL);
    need(fallocate(file.fd(), 0, 0, SMALL), "fallocate");
    expectContent(file, std::string(SMALL, '\0'), "zeros");
    writeAt(file, pattern(SMALL), 0);
    expectContent(file, pattern(SMALL), "what was written to it");
}

}  // namespace driver_check::file_system
