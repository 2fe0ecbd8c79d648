// Seeded random trees with everything that a file system allows, and a canonical dump by which two
// trees are compared whole.
#pragma once

#include <algorithm>
#include <functional>
#include <random>
#include <vector>

#include "test_tree.h"

// A line per entry below top: type, path, and what it holds (size and content hash, or link text).
// Sorted, so that std::includes tells whether one tree is a part of another.
inline std::vector<std::string> dump(const fs::path& top) {
    std::vector<std::string> lines;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top)) {
        const std::string path = entry.path().lexically_relative(top).string();
        // Asked for as it is: a link can lead to itself, where its target's type is an error.
        const fs::file_type type = entry.symlink_status().type();
        if (type == fs::file_type::symlink) {
            lines.push_back("link " + path + " -> " + fs::read_symlink(entry).string());
        } else if (type == fs::file_type::directory) {
            lines.push_back("dir " + path);
        } else if (type == fs::file_type::regular) {
            const std::string content = read(entry);
            lines.push_back("file " + path + " " + std::to_string(content.size()) + " " +
                            std::to_string(std::hash<std::string>()(content)));
        } else {
            lines.push_back("other " + path);
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// The same seed gives the same tree everywhere: the numbers of the engine are fixed by the
// language, those of the library's distributions are not.
class TreeGenerator {
  public:
    explicit TreeGenerator(uint32_t seed) : random_(seed) {}

    // Fills a folder; somewhere below it is a deep one.
    void fill(const fs::path& top) {
        fillFolder(top, MAX_DEPTH);
        fs::path deep = top;
        for (size_t level = below(60); level > 0; --level) {
            deep /= "D";  // no letter of name()
        }
        fs::create_directories(deep);
        makeEntry(deep / "bottom", 0);
    }

  private:
    static constexpr size_t MAX_DEPTH = 3;

    size_t below(size_t bound) {
        return random_() % bound;
    }

    void fillFolder(const fs::path& folder, size_t depth) {
        for (size_t count = below(9); count > 0; --count) {
            const fs::path path = folder / name();
            if (!fs::exists(fs::symlink_status(path))) {
                makeEntry(path, depth);
            }
        }
    }

    void makeEntry(const fs::path& path, size_t depth) {
        const size_t kind = below(8);
        if (kind < 2 && depth > 0) {
            fs::create_directory(path);
            fillFolder(path, depth - 1);
        } else if (kind < 4) {
            const std::string texts[] = {"nowhere", path.string(), "../" + name(), "a\n\xFF ;",
                                         std::string(4095, 'x')};
            fs::create_symlink(texts[below(std::size(texts))], path);
        } else if (kind < 7) {
            const size_t sizes[] = {0, 1 + below(100), 5000 + below(100000)};
            write(path, bytes(sizes[kind - 4]));
        } else {
            write(path, bytes(1));
            fs::resize_file(path, 1 + below(1 << 17));  // a hole between two bytes
            std::ofstream(path, std::ios::binary | std::ios::app) << bytes(1);
        }
    }

    std::string bytes(size_t size) {
        std::string data(size, '\0');
        std::generate(data.begin(), data.end(), [this] { return static_cast<char>(random_()); });
        return data;
    }

    std::string name() {
        const size_t kind = below(8);
        const std::string letters = kind < 4 ? " \n;\xFF\x80.-*\\\"'a" : "abcdefghijklmnop";
        std::string text(kind == 0 ? 255 : 1 + below(12), '\0');
        std::generate(text.begin(), text.end(), [&] { return letters[below(letters.size())]; });
        return text == "." || text == ".." ? "..." : text;
    }

    std::mt19937 random_;
};
