// SPDX-License-Identifier: Apache-2.0
// Seeded random trees with everything that a file system allows, and a canonical dump by which two
// trees are compared whole.
#pragma once

#include <algorithm>
#include <functional>
#include <vector>

#include "tests/test_tree.h"
#include "tests/trial.h"

// A line per entry below top: folder/, link->text, file:content (a long one by size and hash).
// Sorted, so that std::includes tells whether one tree is a part of another.
inline std::vector<std::string> dump(const fs::path& top) {
    std::vector<std::string> lines;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top)) {
        std::string line = entry.path().lexically_relative(top).string();
        // Asked for as it is: a link can lead to itself, where its target's type is an error.
        const fs::file_type type = entry.symlink_status().type();
        if (type == fs::file_type::symlink) {
            line += "->" + fs::read_symlink(entry).string();
        } else if (type == fs::file_type::directory) {
            line += "/";
        } else if (type == fs::file_type::regular) {
            const std::string content = read(entry);
            line += ":" + (content.size() <= 20
                               ? content
                               : std::to_string(content.size()) + " bytes " +
                                     std::to_string(std::hash<std::string>()(content)));
        }
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// The same seed gives the same tree everywhere.
class TreeGenerator {
  public:
    explicit TreeGenerator(uint32_t seed) : random_(seed) {}

    // Fills a folder; somewhere below it is a deep one.
    void fill(const fs::path& top) {
        fillFolder(top, MAX_DEPTH);
        fs::path deep = top;
        for (size_t level = random_.below(60); level > 0; --level) {
            deep /= "D";  // no letter of name()
        }
        fs::create_directories(deep);
        makeEntry(deep / "bottom", 0);
    }

  private:
    static constexpr size_t MAX_DEPTH = 3;

    void fillFolder(const fs::path& folder, size_t depth) {
        for (size_t count = random_.below(9); count > 0; --count) {
            const fs::path path = folder / name();
            if (!fs::exists(fs::symlink_status(path))) {
                makeEntry(path, depth);
            }
        }
    }

    void makeEntry(const fs::path& path, size_t depth) {
        const size_t kind = random_.below(8);
        if (kind < 2 && depth > 0) {
            fs::create_directory(path);
            fillFolder(path, depth - 1);
        } else if (kind < 4) {
            const std::string texts[] = {"nowhere", path.string(), "../" + name(), "a\n\xFF ;",
                                         std::string(4095, 'x')};
            fs::create_symlink(texts[random_.below(std::size(texts))], path);
        } else if (kind < 7) {
            const size_t sizes[] = {0, 1 + random_.below(100), 5000 + random_.below(100000)};
            write(path, bytes(sizes[kind - 4]));
        } else {
            write(path, bytes(1));
            fs::resize_file(path, 1 + random_.below(1 << 17));  // a hole between two bytes
            std::ofstream(path, std::ios::binary | std::ios::app) << bytes(1);
        }
    }

    std::string bytes(size_t size) {
        std::string data(size, '\0');
        std::generate(data.begin(), data.end(),
                      [this] { return static_cast<char>(random_.below(256)); });
        return data;
    }

    std::string name() {
        const size_t kind = random_.below(8);
        const std::string letters = kind < 4 ? " \n;\xFF\x80.-*\\\"'a" : "abcdefghijklmnop";
        std::string text(kind == 0 ? 255 : 1 + random_.below(12), '\0');
        std::generate(text.begin(), text.end(),
                      [&] { return letters[random_.below(letters.size())]; });
        return text == "." || text == ".." ? "..." : text;
    }

    Random random_;
};
