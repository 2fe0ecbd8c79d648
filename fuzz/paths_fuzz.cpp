// SPDX-License-Identifier: Apache-2.0
// The path routines: a list is split at its delimiters, and an accepted path is made as a whole or
// not, and never elsewhere.
#include "fuzz/fuzz.h"
#include "tool/paths.h"

namespace {

// Whether something follows a "..".
bool climbs(const fs::path& path) {
    for (auto part = path.begin(); part != path.end(); ++part) {
        if (*part == ".." && std::next(part) != path.end()) {
            return true;
        }
    }
    return false;
}

// The pieces are the text between the runs of delimiters, in order.
void split(const std::string& text, char delimiter) {
    std::vector<std::string> pieces = {"kept"};
    splitDirsString(text, delimiter, pieces);
    std::string joined;
    for (size_t i = 1; i < pieces.size(); ++i) {
        REQUIRE(!pieces[i].empty() && pieces[i].find(delimiter) == std::string::npos);
        joined += pieces[i] + delimiter;
    }
    std::string squeezed;
    for (const char byte : text + delimiter) {
        if (byte != delimiter || (!squeezed.empty() && squeezed.back() != delimiter)) {
            squeezed += byte;
        }
    }
    REQUIRE(pieces[0] == "kept" && joined == squeezed);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Scratch scratch;
    const fs::path inside = scratch.path / "inside";
    fs::create_directory(inside);
    FILE* const obstacle = fopen((inside / "f").c_str(), "w");
    REQUIRE(obstacle != nullptr && fclose(obstacle) == 0);
    umask(0);

    const std::string text(data, data + size);
    split(text, text.empty() ? ';' : text.back());
    const std::string path = inside.string() + "/" + text.substr(0, text.find('\0'));
    const bool accepted = checkPathRegulate(path);
    REQUIRE(accepted == !climbs(path));
    if (accepted && path.size() < 255) {
        const int32_t ret = mkdirsLoop(path.c_str());
        struct stat path_stat = {};
        REQUIRE(ret == (stat(path.c_str(), &path_stat) == 0 ? 0 : -1));
        // One directory inside the other, and nothing beside them.
        fs::path below = scratch.path;
        for (const auto& entry : fs::recursive_directory_iterator(scratch.path)) {
            if (entry.is_directory()) {
                REQUIRE(entry.path().parent_path() == below);
                REQUIRE(below == scratch.path || (entry.status().permissions() == fs::perms(0770)));
                below = entry.path();
            }
        }
    }
    fs::remove_all(inside);
    return 0;
}
