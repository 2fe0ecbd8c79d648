// Random trees on the mounted emulator: the snapshot is the source, entry by entry.
#include <functional>

#include "emulator_mount.h"
#include "snapshot.h"
#include "tree_gen.h"

namespace {

using TreeTest = EmulatedVolume;
using TreeDump = TestTree;

TEST_F(TreeTest, SnapshotsOfRandomTreesEqualTheirSources) {
    const char* given = getenv("F2FS_SNAPSHOT_SEED");
    const auto first = static_cast<uint32_t>(given != nullptr ? std::stoul(given) : 1);
    size_t entries = 0;
    for (uint32_t seed = first; seed < first + 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const std::string source = at(std::to_string(seed));
        fs::create_directory(source);
        TreeGenerator(seed).fill(source);
        const std::vector<std::string> before = dump(source);
        entries += before.size();
        ASSERT_EQ(CreateDirSnapshot({source}, at("t")), 0);
        EXPECT_EQ(dump(at("t/snapshot") + source), before);
        EXPECT_EQ(dump(source), before);
        ASSERT_EQ(DestroyDirSnapshot(at("t")), 0);
        EXPECT_TRUE(fs::is_empty(at("t")));
        fs::remove_all(source);
    }
    printf("seeds %u to %u, %zu entries\n", first, first + 99, entries);
}

// A dump that overlooked something would make every comparison by it worthless.
TEST_F(TreeDump, NoticesEveryChange) {
    const auto replace = [](const fs::path& path, const fs::path& by) {
        fs::remove(path);
        fs::copy(by, path);
    };
    const std::pair<const char*, std::function<void(const fs::path&)>> changes[] = {
        {"a byte", [](const auto& top) { write(top / "d/f", "Content"); }},
        {"a size", [](const auto& top) { fs::resize_file(top / "d/f", 8); }},
        {"a link text", [](const auto& top) { fs::rename(top / "other", top / "l"); }},
        {"a link for a file", [&](const auto& top) { replace(top / "l", top / "d/f"); }},
        {"a file for a folder", [&](const auto& top) { replace(top / "empty", top / "d/e"); }},
        {"a missing file", [](const auto& top) { fs::remove(top / "d/e"); }},
        {"a missing folder", [](const auto& top) { fs::remove(top / "empty"); }},
        {"a new file", [](const auto& top) { write(top / "empty/new", ""); }},
        {"a name", [](const auto& top) { fs::rename(top / "d/e", top / "d/E"); }},
        {"a place", [](const auto& top) { fs::rename(top / "d/e", top / "e"); }},
    };
    const auto dumpAfter = [&](const auto& change) {
        const fs::path top = root / "tree";
        fs::remove_all(top);
        fs::create_directories(top / "d");
        fs::create_directory(top / "empty");
        write(top / "d/f", "content");
        write(top / "d/e", "");
        fs::create_symlink("d/f", top / "l");
        fs::create_symlink("d/e", top / "other");
        change(top);
        return dump(top);
    };
    const std::vector<std::string> original = dumpAfter([](const fs::path&) {});
    EXPECT_EQ(original, dumpAfter([](const fs::path&) {}));
    EXPECT_EQ(original.size(), 6U);
    for (const auto& [what, change] : changes) {
        EXPECT_NE(dumpAfter(change), original) << what;
    }
}

}  // namespace
