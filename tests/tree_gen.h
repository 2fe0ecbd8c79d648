// Seeded random trees with everything that a file system allows, and a canonical dump by which two
// trees are compared whole.
#pragma once

#include <fcntl.h>

#include <algorithm>
#include <random>
#include <vector>

#include "test_tree.h"

// One line per entry below top, sorted: type, path, and what the entry holds (size and content
// hash, or link text). Sorted lines, so that "is part of" is a question for std::includes.
inline std::vector<std::string> dump(const fs::path& top) {
    std::vector<std::string> lines;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(top)) {
        const std::string path = entry.path().lexically_relative(top).string();
        if (entry.is_symlink()) {
            lines.push_back("link " + path + " -> " + fs::read_symlink(entry).string());
        } else if (entry.is_directory()) {
            lines.push_back("dir " + path);
        } else if (entry.is_regular_file()) {
            uint64_t hash = 0xCBF29CE484222325;  // FNV-1a
            for (const char byte : read(entry.path())) {
                hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001B3;
            }
            lines.push_back("file " + path + " " + std::to_string(entry.file_size()) + " " +
                            std::to_string(hash));
        } else {
            lines.push_back("other " + path);
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Fills a directory. The same seed gives the same tree everywhere: the engine's numbers are fixed
// by the language, those of the library's distributions are not.
class TreeGenerator {
  public:
    explicit TreeGenerator(uint32_t seed) : random_(seed) {}

    void fill(const fs::path& top) {
        fillDirectory(top, 0);
        fs::path deep = top;
        for (size_t level = below(60); level > 0; --level) {
            deep /= "d";
        }
        fs::create_directories(deep);
        makeEntry(deep / "bottom", MAX_DEPTH);
    }

  private:
    static constexpr size_t MAX_DEPTH = 3;

    size_t below(size_t bound) {
        return random_() % bound;
    }

    void fillDirectory(const fs::path& directory, size_t depth) {
        for (size_t count = below(9); count > 0; --count) {
            const fs::path path = directory / name();
            if (!fs::exists(fs::symlink_status(path))) {
                makeEntry(path, depth);
            }
        }
    }

    void makeEntry(const fs::path& path, size_t depth) {
        const size_t kind = below(8);
        if (kind < 2 && depth < MAX_DEPTH) {
            fs::create_directory(path);
            fillDirectory(path, depth + 1);
        } else if (kind < 4) {
            const std::string texts[] = {"nowhere", path.string(), "../" + name(), "a\n\xFF ;",
                                         std::string(4095, 'x')};
            fs::create_symlink(texts[below(std::size(texts))], path);
        } else {
            makeFile(path);
        }
    }

    // Empty, small, larger than a block, or with holes around its data.
    void makeFile(const fs::path& path) {
        const size_t sizes[] = {0, 1 + below(100), 5000 + below(100000), 1 + below(1 << 20)};
        const size_t kind = below(std::size(sizes));
        std::string data(kind == 3 ? 1 : sizes[kind], '\0');
        std::generate(data.begin(), data.end(), [this] { return static_cast<char>(random_()); });
        write(path, data);
        if (kind == 3) {
            std::fstream(path).seekp(static_cast<std::streamoff>(below(sizes[kind]))) << data;
            fs::resize_file(path, sizes[kind]);
        }
    }

    std::string name() {
        const size_t kind = below(8);
        std::string text(kind == 0 ? 255 : 1 + below(12), '\0');
        const std::string odd = " \n;\xFF\x80.-*\\\"'a";
        for (char& byte : text) {
            byte = kind < 4 ? odd[below(odd.size())] : static_cast<char>('a' + below(26));
        }
        return text == "." || text == ".." ? "..." : text;
    }

    std::mt19937 random_;
};
