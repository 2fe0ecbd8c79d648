// SPDX-License-Identifier: Apache-2.0
// A temporary folder for a test, and short words for what tests do with files.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace fs = std::filesystem;

inline void write(const fs::path& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    ASSERT_TRUE(file.flush()) << path;
}

inline std::string read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Where a path does not exist: -1.
inline int modeOf(const fs::path& path) {
    struct stat path_stat = {};
    return lstat(path.c_str(), &path_stat) == 0 ? static_cast<int>(path_stat.st_mode & 07777) : -1;
}

// The test's folder by a path that is the same in every run.
const std::string HERE = "/proc/self/cwd";

// A test in a folder of its own, which is the working directory.
class TestTree : public testing::Test {
  protected:
    void SetUp() override {
        const char* given = getenv("F2FS_SNAPSHOT_TEST_VOLUME");
        const fs::path parent = given != nullptr ? fs::path(given) : fs::temp_directory_path();
        std::string name = parent / "f2fs_snapshot.XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        root = fs::canonical(name);
        fs::current_path(root);
        umask_ = umask(0);
    }
    void TearDown() override {
        umask(umask_);
        fs::current_path("/");
        fs::remove_all(root);
    }
    std::string at(const std::string& path) const {
        return root.string() + "/" + path;
    }

    fs::path root;

  private:
    mode_t umask_ = 0;
};
