// SPDX-License-Identifier: Apache-2.0
// Random trees.
#pragma once

#include "tests/helpers.h"

// Fills a directory with random entries of all kinds, the same ones for the same seed. Returns the
// directories, itself included.
inline std::vector<fs::path> fillTree(const fs::path& top, uint32_t seed) {
    Random random(seed);
    std::vector<fs::path> directories = {top};
    const auto text = [&](const std::string& letters, size_t size) {
        std::string made(size, ' ');
        std::generate(made.begin(), made.end(),
                      [&] { return letters[random.below(letters.size())]; });
        return made;
    };
    for (size_t count = 5 + random.below(60); count > 0; --count) {
        const fs::path name =
            text("\n;\xFF\x80-*\\\"'ab", 1 + random.below(8)) + std::to_string(count);
        const fs::path path = directories[random.below(directories.size())] / name;
        const size_t kind = random.below(8);
        if (kind < 3) {
            fs::create_directory(path);
            directories.push_back(path);
        } else if (kind < 4) {
            fs::create_symlink(text("./\n\xFFx", 1 + random.below(200)), path);
        } else {
            write(path, text("content", kind < 5 ? 0 : random.below(9000)));
        }
        if (kind == 7) {
            fs::resize_file(path, random.below(1 << 17));  // a hole at the end
        }
    }
    // More levels than the manager keeps open.
    fs::path deep = top / "deep";
    for (size_t level = random.below(60); level > 0; --level) {
        deep /= "D";
    }
    fs::create_directories(deep);
    write(deep / "bottom", "bottom");
    return directories;
}
