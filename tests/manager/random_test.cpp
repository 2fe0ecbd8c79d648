// SPDX-License-Identifier: Apache-2.0
// Snapshots while a writer makes, writes, renames, links and deletes: each that is called whole
// must be the tree as it was after one of the writer's steps.
#include <linux/fs.h>
#include <sys/mman.h>

#include <map>

#include "tests/manager/manager_on_volume.h"

namespace {

// One step of the writer, made by one system call.
struct Step {
    enum Kind { WRITE, MAKE, MAKE_DIRECTORY, LINK_TEXT, RENAME, EXCHANGE, REMOVE } kind;
    std::string path;
    std::string other;  // the second path, the link text or the content
};

// The tree as it should be: path to "/" (a directory), "->TEXT" or ":CONTENT".
class Tree {
  public:
    bool apply(const Step& step) {
        switch (step.kind) {
            case Step::WRITE:
                return replaceExisting(step);
            case Step::MAKE:
                return add(step.path, ":" + step.other);
            case Step::MAKE_DIRECTORY:
                return add(step.path, "/");
            case Step::LINK_TEXT:
                return add(step.path, "->" + step.other);
            case Step::RENAME:
                return move(step.path, step.other);
            case Step::EXCHANGE:
                return exchange(step.path, step.other);
            default:
                return remove(step.path);
        }
    }
    // As dump() shows it.
    std::vector<std::string> lines() const {
        std::vector<std::string> lines;
        for (const auto& [path, what] : entries_) {
            lines.push_back(path + what);
        }
        std::sort(lines.begin(), lines.end());
        return lines;
    }

  private:
    bool has(const std::string& path) const {
        return entries_.count(path) != 0;
    }
    bool hasParent(const std::string& path) const {
        const size_t slash = path.find_last_of('/');
        if (slash == std::string::npos) {
            return true;
        }
        const auto parent = entries_.find(path.substr(0, slash));
        return parent != entries_.end() && parent->second == "/";
    }
    bool add(const std::string& path, const std::string& what) {
        return hasParent(path) && entries_.emplace(path, what).second;
    }
    bool replaceExisting(const Step& step) {
        const auto entry = entries_.find(step.path);
        const bool is_file = entry != entries_.end() && entry->second[0] == ':';
        if (is_file) {
            entry->second = ":" + step.other;
        }
        return is_file;
    }
    bool isEmpty(const std::string& path) const {
        const auto next = entries_.lower_bound(path + "/");
        return next == entries_.end() || next->first.rfind(path + "/", 0) != 0;
    }
    bool remove(const std::string& path) {
        return has(path) && isEmpty(path) && entries_.erase(path) == 1;
    }
    static bool isWithin(const std::string& path, const std::string& top) {
        return path == top || path.rfind(top + "/", 0) == 0;
    }
    std::map<std::string, std::string> take(const std::string& top) {
        std::map<std::string, std::string> taken;
        for (auto entry = entries_.begin(); entry != entries_.end();) {
            const bool is_taken = isWithin(entry->first, top);
            if (is_taken) {
                taken[entry->first.substr(top.size())] = entry->second;
            }
            entry = is_taken ? entries_.erase(entry) : std::next(entry);
        }
        return taken;
    }
    void put(const std::map<std::string, std::string>& taken, const std::string& top) {
        for (const auto& [rest, what] : taken) {
            entries_[top + rest] = what;
        }
    }
    bool move(const std::string& from, const std::string& to) {
        if (!has(from) || !hasParent(to) || isWithin(to, from)) {
            return false;
        }
        if (has(to)) {
            const bool are_directories = entries_[from] == "/" && entries_[to] == "/";
            const bool are_others = entries_[from] != "/" && entries_[to] != "/";
            if (!(are_others || (are_directories && isEmpty(to)))) {
                return false;
            }
        }
        const auto taken = take(from);
        entries_.erase(to);
        put(taken, to);
        return true;
    }
    bool exchange(const std::string& one, const std::string& other) {
        if (!has(one) || !has(other) || isWithin(one, other) || isWithin(other, one)) {
            return false;
        }
        const auto first = take(one);
        const auto second = take(other);
        put(first, other);
        put(second, one);
        return true;
    }

    std::map<std::string, std::string> entries_;
};

class Writer {
  public:
    explicit Writer(uint32_t seed) : random_(seed) {}

    // The same sequence for the same seed. A number makes each content and link text unique.
    Step next() {
        if (++number_ <= 10000003) {
            return {Step::MAKE_DIRECTORY, std::string(1, "xyz"[number_ % 3]), ""};
        }
        const size_t kind = random_.below(20);
        const std::string text = std::to_string(number_);
        return kind < 6    ? Step{Step::WRITE, path(), text}
               : kind < 10 ? Step{Step::MAKE, path(), text}
               : kind < 11 ? Step{Step::MAKE_DIRECTORY, path(), ""}
               : kind < 12 ? Step{Step::LINK_TEXT, path(), text}
               : kind < 16 ? Step{Step::RENAME, path(), path()}
               : kind < 18 ? Step{Step::EXCHANGE, path(), path()}
                           : Step{Step::REMOVE, path(), ""};
    }

    // Does a step with one system call that changes something. An impossible step changes nothing.
    static void act(int top, const Step& step) {
        const char* path = step.path.c_str();
        switch (step.kind) {
            case Step::WRITE:
                overwrite(openat(top, path, O_WRONLY | O_NOFOLLOW | O_CLOEXEC), step.other);
                break;
            case Step::MAKE:
                makeFile(top, step);
                break;
            case Step::MAKE_DIRECTORY:
                mkdirat(top, path, 0700);
                break;
            case Step::LINK_TEXT: {
                [[maybe_unused]] const int ret = symlinkat(step.other.c_str(), top, path);
                break;
            }
            case Step::RENAME:
                renameat(top, path, top, step.other.c_str());
                break;
            case Step::EXCHANGE:
                syscall(SYS_renameat2, top, path, top, step.other.c_str(), RENAME_EXCHANGE);
                break;
            default:
                if (unlinkat(top, path, 0) != 0) {
                    unlinkat(top, path, AT_REMOVEDIR);
                }
        }
    }

  private:
    static void overwrite(int fd, const std::string& text) {
        if (fd >= 0) {
            EXPECT_EQ(pwrite(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
            close(fd);
        }
    }
    // Written before it gets a name, so that it is never seen empty.
    static void makeFile(int top, const Step& step) {
        const int fd = openat(top, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(pwrite(fd, step.other.data(), step.other.size(), 0), 8);
        [[maybe_unused]] const int ret =
            linkat(AT_FDCWD, ("/proc/self/fd/" + std::to_string(fd)).c_str(), top,
                   step.path.c_str(), AT_SYMLINK_FOLLOW);
        close(fd);
    }
    std::string path() {
        const std::string name(1, "abc"[random_.below(3)]);
        const std::string directory(1, "xyz"[random_.below(3)]);
        const size_t kind = random_.below(6);
        return kind < 2 ? name : kind < 3 ? directory : directory + "/" + name;
    }

    Random random_;
    int number_ = 10000000;  // eight digits
};

using RandomTest = ManagerOnVolume;

TEST_F(RandomTest, WholeIsTheTreeAfterOneStep) {
    const size_t max_steps = 3000000;
    struct Shared {
        volatile size_t steps;
        volatile size_t creates;  // begun
    };
    auto* const shared = static_cast<Shared*>(
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    Random random;
    const auto seed = static_cast<uint32_t>(random.below(1U << 31));
    const pid_t writer = startChild([&] {
        const int directory = open(source.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        Writer steps(seed);
        Random pauses(seed + 1);
        while (shared->steps < max_steps) {
            Writer::act(directory, steps.next());
            shared->steps = shared->steps + 1;
            // Bursts, and rests in which a create can succeed. Some rests last for a whole create,
            // however slow the machine is.
            usleep(static_cast<useconds_t>(pauses.below(10) == 0 ? pauses.below(100000)
                                                                 : pauses.below(1000)));
            const size_t enough = shared->creates + (pauses.below(100) == 0 ? 2 : 0);
            while (shared->creates < enough) {
                usleep(1000);
            }
        }
        return 0;
    });
    Writer steps(seed);
    Tree tree;
    size_t done = 0;
    int whole = 0;
    int disturbed = 0;
    int named = 0;
    const int wanted = rounds(20, 400);
    for (int i = 0; i < wanted && !HasFailure(); ++i) {
        const size_t begin = shared->steps;
        shared->creates = shared->creates + 1;
        const auto made = create("a", 1 + static_cast<uint32_t>(random.below(3)));
        const size_t end = shared->steps;
        if (made.code != F2FS_SNAPSHOT_OK) {
            // Files kept changing or vanished: the library failed.
            EXPECT_EQ(made.code, F2FS_SNAPSHOT_ERROR_LIBRARY) << made.error.message;
            continue;
        }
        named += made.value->whole == 0 ? 1 : 0;
        EXPECT_EQ(made.value->finding_count == 0, made.value->whole == 1);
        if (made.value->whole == 1) {
            ++whole;
            disturbed += end > begin ? 1 : 0;
            const std::vector<std::string> snapshot = dump(mirror("a"));
            for (; done < begin; ++done) {
                tree.apply(steps.next());
            }
            bool is_found = tree.lines() == snapshot;
            for (; done <= end && !is_found; ++done) {
                is_found = tree.apply(steps.next()) && tree.lines() == snapshot;
            }
            EXPECT_TRUE(is_found) << "steps " << begin << " to " << end << ": "
                                  << testing::PrintToString(snapshot);
        }
        expectIntact("a");
        EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_OK);
    }
    endChild(writer, SIGKILL);
    munmap(shared, sizeof(Shared));
    EXPECT_GT(whole, 0);
    std::cout << whole << " whole snapshots, " << disturbed << " of them among changes; " << named
              << " with changes named, of " << wanted << std::endl;
}

}  // namespace
