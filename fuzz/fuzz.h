// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

namespace fs = std::filesystem;

// Reports an input that breaks a promise, as a crash is reported.
#define REQUIRE(promise)                                                                  \
    do {                                                                                  \
        if (!(promise)) {                                                                 \
            fprintf(stderr, "%s:%d: broken promise: %s\n", __FILE__, __LINE__, #promise); \
            abort();                                                                      \
        }                                                                                 \
    } while (false)

// A directory that is removed with the object.
struct Scratch {
    Scratch() {
        std::string name = fs::temp_directory_path() / "f2fs_snapshot_fuzz.XXXXXX";
        REQUIRE(mkdtemp(name.data()) != nullptr);
        path = name;
    }
    ~Scratch() {
        fs::remove_all(path);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    fs::path path;
};

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
