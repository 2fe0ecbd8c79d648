// Random trees on the mounted emulator: the snapshot is the source, entry by entry.
#include "emulator_mount.h"
#include "snapshot.h"
#include "tree_gen.h"

namespace {

using TreeTest = EmulatedVolume;

TEST_F(TreeTest, SnapshotsOfRandomTreesEqualTheirSources) {
    const char* first = getenv("F2FS_SNAPSHOT_SEED");
    const uint32_t from = first != nullptr ? static_cast<uint32_t>(std::stoul(first)) : 1;
    size_t entries = 0;
    for (uint32_t seed = from; seed < from + 100; ++seed) {
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
    printf("seeds %u to %u, %zu entries\n", from, from + 99, entries);
}

// A dump that overlooked something would make every comparison by it worthless.
TEST(TreeDump, NoticesEveryChange) {
    std::string name = fs::temp_directory_path() / "f2fs_snapshot.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    const fs::path root = name;
    const std::pair<const char*, std::function<void(const fs::path&)>> changes[] = {
        {"a byte", [](const fs::path& top) { write(top / "d/f", "Content"); }},
        {"the size", [](const fs::path& top) { fs::resize_file(top / "d/f", 8); }},
        {"a link text",
         [](const fs::path& top) {
             fs::remove(top / "l");
             fs::create_symlink("D/f", top / "l");
         }},
        {"a type",
         [](const fs::path& top) {
             fs::remove(top / "l");
             fs::copy(top / "d/f", top / "l");
         }},
        {"a type without content",
         [](const fs::path& top) {
             fs::remove(top / "d/e");
             fs::create_directory(top / "d/e");
         }},
        {"a missing file", [](const fs::path& top) { fs::remove(top / "d/e"); }},
        {"a missing folder", [](const fs::path& top) { fs::remove(top / "empty"); }},
        {"a new file", [](const fs::path& top) { write(top / "empty/new", ""); }},
        {"a name", [](const fs::path& top) { fs::rename(top / "d/e", top / "d/E"); }},
        {"a place", [](const fs::path& top) { fs::rename(top / "d/e", top / "e"); }},
    };
    const auto fill = [&](const fs::path& top) {
        fs::create_directories(top / "d");
        fs::create_directory(top / "empty");
        write(top / "d/f", "content");
        write(top / "d/e", "");
        fs::create_symlink("d/f", top / "l");
        return dump(top);
    };
    const std::vector<std::string> original = fill(root / "original");
    EXPECT_EQ(original.size(), 5U);
    for (const auto& [what, change] : changes) {
        const fs::path copy = root / what;
        EXPECT_EQ(fill(copy), original);
        change(copy);
        EXPECT_NE(dump(copy), original) << what;
    }
    fs::remove_all(root);
}

}  // namespace
