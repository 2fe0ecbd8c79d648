// SPDX-License-Identifier: Apache-2.0
// The real tool and library on a real or emulated volume.
#include "snapshot/snapshot.h"
#include "tests/emulator_mount.h"

namespace {

using EndToEndTest = VolumeTest;

TEST_F(EndToEndTest, PreCreateDestroy) {
    write(source + "/file", "content");
    fs::permissions(source + "/file", fs::perms{0751});
    const Dump before = dump(source);
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(run("pre"), 0) << log;
        ASSERT_EQ(run("create"), 0) << log;
        EXPECT_EQ(dump(source), before);
        EXPECT_EQ(modeOf(mirror() + "/file"), 0440) << "only data is carried over";
    }
    fs::remove(source + "/file");
    write(source + "/file 2", "later");
    EXPECT_EQ(dump(mirror()), before) << "the snapshot does not follow the source";
    expectDestroy();
    EXPECT_EQ(run("destroy"), 254);
    target = source + "/target";
    ASSERT_EQ(run("create"), 0) << log;
    EXPECT_EQ(dump(mirror()), (Dump{"file 2:later", "target/"})) << "a target inside its source";
}

// Fills directories with everything that a file system allows; the same for the same seed.
class TreeGenerator {
  public:
    explicit TreeGenerator(uint32_t seed) : random_(seed) {}

    void fill(const fs::path& directory, size_t depth = 3) {
        for (size_t count = random_.below(9); count > 0; --count) {
            const fs::path path = directory / name();
            if (!fs::exists(fs::symlink_status(path))) {
                makeEntry(path, depth);
            }
        }
    }

  private:
    void makeEntry(const fs::path& path, size_t depth) {
        const size_t kind = random_.below(8);
        if (kind < 2 && depth > 0) {
            fs::create_directory(path);
            fill(path, depth - 1);
        } else if (kind < 4) {
            const std::string texts[] = {"nowhere", path.string(), "../" + name(), "a\n\xFF ;",
                                         std::string(4095, 'x')};
            fs::create_symlink(texts[random_.below(std::size(texts))], path);
        } else {
            const size_t sizes[] = {0, 1 + random_.below(100), 5000 + random_.below(100000), 1};
            write(path, bytes(sizes[kind - 4]));
        }
        if (kind == 7) {
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

TEST_F(EndToEndTest, SnapshotsOfRandomTreesEqualTheirSources) {
    size_t entries = 0;
    const auto last = static_cast<uint32_t>(rounds(10, 200));
    for (uint32_t seed = 1; seed <= last; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        fs::remove_all(source);
        fs::path deep = source;
        for (uint32_t level = 0; level < seed * 7 % 60; ++level) {
            deep /= "D";  // no letter of a random name
        }
        fs::create_directories(deep);
        TreeGenerator(seed).fill(source);
        write(deep / "Bottom", "content");
        const Dump before = dump(source);
        entries += before.size();
        ASSERT_EQ(CreateDirSnapshot({source}, target), 0);
        EXPECT_EQ(dump(mirror()), before);
        EXPECT_EQ(dump(source), before);
    }
    std::cout << entries << " entries" << std::endl;
}

// How often the command $0 makes each system call for each of 120 files. Left out are the log's own
// calls and those that come once for many files.
constexpr char COUNT_CALLS[] = R"(
    strace -o calls -f -c -Ucalls,name \
        -e'!write,writev,getpid,gettid,brk,mmap,munmap,clock_gettime,getdents64' $0 >&2
    awk '$1 + 0 >= 120 && $2 != "total" { sub(/.*stat.*/, "stat", $2); print int($1 / 120), $2 }' \
        calls | sort -k 2)";

TEST_F(EndToEndTest, NoCallMoreThanNamed) {
#ifdef F2FS_SNAPSHOT_SANITIZED
    GTEST_SKIP() << "a sanitizer makes calls of its own";
#endif
    fs::current_path(volume.root());
    const std::string refusal = shell("strace -o calls true");
    if (!refusal.empty()) {
        GTEST_SKIP() << refusal;
    }
    for (int i = 0; i < 120; ++i) {
        write(source + "/" + std::to_string(i), "x");
    }
    // One after the other. Of the create, prepared already: 3 calls, the snapshot: 9, the check: 4.
    const std::pair<std::string, const char*> table[] = {
        {"pre " + source, "2 close\n4 ioctl\n2 openat\n"},
        {"pre " + source, "1 close\n1 ioctl\n1 openat\n"},
        {"create " + source + " " + target, "4 close\n1 fallocate\n5 ioctl\n4 openat\n2 stat\n"},
        {"destroy " + target, "1 unlink\n"},
    };
    for (const auto& [arguments, calls] : table) {
        const std::string command = F2FS_SNAPSHOT_TOOL_PATH " " + arguments;
        EXPECT_EQ(runProcess({"sh", "-c", COUNT_CALLS, command}).out, calls) << command;
    }
}

}  // namespace
