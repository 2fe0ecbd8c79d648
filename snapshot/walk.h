// SPDX-License-Identifier: Apache-2.0
// The directory-stream loop that prepare, create, check and destroy share.
#pragma once

#include <dirent.h>
#include <string.h>

#include <memory>
#include <string>

#include "snapshot/log.h"

// One directory entry, valid until the next one is read.
struct dir_entry {
    const std::string& path;  // the directory's path + "/" + name
    const char* name;
    unsigned char type;  // the DT_ value that the stream reports
};

// Calls onEntry(entry) for each entry of dirpath except "." and "..", in the stream's order.
// onEntry returns whether to go on: every walk has a stop rule of its own.
//
// Returns false, with a log line, if dirpath cannot be opened. A read error counts as the end.
template <typename OnEntry>
bool forEachEntry(const std::string& dirpath, OnEntry onEntry) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(dirpath.c_str()), closedir);
    if (!dir) {
        LOG_ERROR("Failed to open dir %s\n", dirpath.c_str());
        return false;
    }
    std::string path = dirpath + "/";  // one buffer serves all entries
    const size_t prefix = path.size();
    while (const dirent* entry = readdir(dir.get())) {
        if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) {
            continue;
        }
        path.replace(prefix, std::string::npos, entry->d_name);
        if (!onEntry(dir_entry{path, entry->d_name, entry->d_type})) {
            break;
        }
    }
    return true;
}
