// SPDX-License-Identifier: Apache-2.0
// One instant across files: a create while writers change the sources in every way there is.
//
// A file's content shows its version. A snapshot must hold each file's version of one instant: the
// start of the last check pass.
#include <sys/mman.h>
#include <sys/statfs.h>

#include <array>
#include <atomic>
#include <cstring>

#include "snapshot/snapshot.h"
#include "tests/emulator_mount.h"
#include "tests/fake_kernel.h"

namespace {

using Version = uint64_t;

constexpr size_t WORDS = 1536;  // of a file: several pages, so that half a change shows
constexpr Version WRAP = 4096;  // where sizes start again from 0
std::string elsewhere;          // a directory of the volume, outside of the sources

bool put(const std::string& path, int flags, Version version) {
    alignas(4096) std::array<Version, WORDS> words;
    words.fill(version);
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0600);
    const bool done = ::write(fd, words.data(), sizeof words) == sizeof words;
    return close(fd) == 0 && done;
}

// Makes the file's first word the version through a mapping, which it leaves behind.
Version* store(const std::string& path, Version version) {
    const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
    void* const words = mmap(nullptr, sizeof version, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (words == MAP_FAILED) {
        return nullptr;
    }
    *static_cast<volatile Version*>(words) = version;
    return static_cast<Version*>(words);
}

// A way to change a file, in one step.
struct Writer {
    const char* name;
    enum { WHOLE, FIRST_WORD, SIZE } shows_version;
    bool is_optional;  // not every volume has it
    bool may_fail;     // a create that is snapshotting the file fails
    bool (*change)(const std::string& path, Version version);
};

const Writer WRITERS[] = {
    {"write", Writer::WHOLE, false, false,
     [](const std::string& path, Version version) { return put(path, 0, version); }},
    {"direct", Writer::WHOLE, true, false,
     [](const std::string& path, Version version) { return put(path, O_DIRECT, version); }},
    {"append", Writer::SIZE, false, false,
     [](const std::string& path, Version version) {
         const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
         const bool done = version % WRAP == 0 ? ftruncate(fd, 0) == 0 : ::write(fd, "+", 1) == 1;
         return close(fd) == 0 && done;
     }},
    {"truncate", Writer::SIZE, false, false,
     [](const std::string& path, Version version) {
         return truncate(path.c_str(), static_cast<off_t>(version % WRAP)) == 0;
     }},
    // As most programs save: a new file is renamed over the old one.
    {"replace", Writer::WHOLE, false, true,
     [](const std::string& path, Version version) {
         const std::string made = elsewhere + "/new";
         return put(made, O_CREAT | O_TRUNC, version) && rename(made.c_str(), path.c_str()) == 0;
     }},
    {"mapping", Writer::FIRST_WORD, true, false,
     [](const std::string& path, Version version) {
         Version* const words = store(path, version);
         return words != nullptr && munmap(words, sizeof version) == 0;
     }},
    {"old_mapping", Writer::FIRST_WORD, true, false,
     [](const std::string& path, Version version) {
         static std::map<std::string, Version*> mappings;
         Version*& words = mappings[path];
         words = words == nullptr ? store(path, version) : words;
         if (words != nullptr) {
             *static_cast<volatile Version*>(words) = version;
         }
         return words != nullptr;
     }},
};

class ConsistencyTest : public VolumeTest {
  protected:
    struct File {
        const Writer* writer;
        std::string path;
    };

    // Each writer has two files, in directories that are walked one after the other.
    void SetUp() override {
        VolumeTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        elsewhere = at("elsewhere");
        for (const std::string& directory : {elsewhere, source + "/d", at("other")}) {
            fs::create_directories(directory);
        }
        for (const Writer& writer : WRITERS) {
            const std::string trial = elsewhere + "/" + writer.name;
            ASSERT_TRUE(put(trial, O_CREAT, 0));
            if (!writer.change(trial, 1)) {
                ASSERT_TRUE(writer.is_optional) << writer.name << ": " << strerror(errno);
                std::cout << "left out, since the volume has none: " << writer.name << std::endl;
                continue;
            }
            for (const std::string& directory : {source, source + "/d", at("other")}) {
                files.push_back({&writer, directory + "/" + writer.name});
                write(files.back().path, "");
                ASSERT_TRUE(writer.shows_version == Writer::SIZE || put(files.back().path, 0, 0));
            }
        }
        kernel.has_driver = false;
    }
    int32_t create() {
        return kernel.run([&] { return CreateDirSnapshot({source, at("other")}, target); });
    }
    bool startsPass(const std::string& call) {
        walks = kernel.calls == 1 ? 0 : walks;
        return call == "opendir $/source" && ++walks > 1;
    }
    // The version that the snapshot of a file holds. Sizes repeat: the last one up to `latest`.
    Version held(const File& file, Version latest) const {
        const std::string content = read(target + "/snapshot" + file.path);
        if (file.writer->shows_version == Writer::SIZE) {
            return latest - (latest - content.size()) % WRAP;
        }
        std::array<Version, WORDS> words;
        EXPECT_EQ(content.size(), sizeof words) << file.path;
        memcpy(words.data(), content.data(), std::min(content.size(), sizeof words));
        const Version rest = file.writer->shows_version == Writer::WHOLE ? words[0] : 0;
        EXPECT_EQ(std::count(words.begin() + 1, words.end(), rest), WORDS - 1)
            << file.path << " is torn";
        return words[0];
    }

    std::vector<File> files;
    FakeKernel kernel{top};
    int walks = 0;
    Random random;
};

// One change for each create, of the file that a call is about: at the first or last call, at the
// start of the check pass, or at another call. The short form takes some of the other calls, the
// long one each.
TEST_F(ConsistencyTest, AChangeAtACall) {
    std::vector<Version> now(files.size());
    std::vector<Version> at_pass;
    size_t turn = 0;
    size_t pass_call = 0;
    size_t remade = 0;
    size_t left_out = 0;
    size_t next = random.below(files.size());
    kernel.before = [&](const std::string& call) {
        if (kernel.calls == turn) {
            for (size_t i = 0; i < files.size(); ++i) {
                next = call.find(kernel.shown(files[i].path)) == std::string::npos ? next : i;
            }
            EXPECT_TRUE(files[next].writer->change(files[next].path, ++now[next]));
        }
        if (startsPass(call)) {
            pass_call = kernel.calls;
            at_pass = now;
        }
    };
    ASSERT_EQ(create(), 0);
    const size_t calls = kernel.calls;
    std::vector<size_t> turns = {1, pass_call, calls};
    const auto step = static_cast<size_t>(rounds(static_cast<int>(calls / 40), 1));
    for (size_t call = 1 + random.below(step); call <= calls; call += step) {
        turns.push_back(call);
    }
    for (const size_t call : turns) {
        turn = call;
        next = (next + 1) % files.size();
        const int32_t ret = create();
        SCOPED_TRACE(files[next].path + " at call " + std::to_string(turn) + "\n" + kernel.text());
        ASSERT_TRUE(ret == 0 || (files[next].writer->may_fail && (ret == -1 || ret == -2))) << ret;
        EXPECT_EQ(fs::exists(target + "/snapshot"), ret == 0);
        for (size_t i = 0; ret == 0 && i < files.size(); ++i) {
            ASSERT_EQ(held(files[i], now[i]), at_pass[i]) << files[i].path;
        }
        remade += walks > 2 ? 1 : 0;
        left_out += ret == 0 && at_pass != now ? 1 : 0;
    }
    std::cout << remade << " creates made a file again, " << left_out << " left a change out\n";
    EXPECT_GT(remade, 0U);
    EXPECT_GT(left_out, 0U);
}

// Memory shared with the writers. One clock orders the ends of changes and the check passes.
struct Shared {
    std::atomic<Version> clock{1};
    std::atomic<bool> is_running{false};
    struct History {
        static constexpr Version KEPT = 1 << 14;
        std::atomic<Version> latest, done[KEPT];
    } files[std::size(WRITERS) * 3];
};

// Changes its files in turn until it is killed.
int writeInTurn(Shared* shared, const std::vector<std::pair<size_t, std::string>>& files,
                const Writer& writer) {
    for (size_t turn = 0;; ++turn) {
        do {
            usleep(writer.may_fail ? 30000 : shared->is_running ? 0 : 100);
        } while (!shared->is_running);
        const auto& [index, path] = files[turn % files.size()];
        Shared::History& history = shared->files[index];
        const Version version = history.latest + 1;
        history.done[version % history.KEPT] = UINT64_MAX;
        history.latest = version;
        if (!writer.change(path, version)) {
            return 1;
        }
        history.done[version % history.KEPT] = shared->clock++;
    }
}

// The writers write until some call of the create. Then they rest for a pass, so that the next pass
// can find no change. They write again when that pass is almost done.
TEST_F(ConsistencyTest, ProcessesWriteAllTheTime) {
    auto* const shared = new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                   MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
    ASSERT_EQ(create(), 0);
    const size_t calls = kernel.calls;
    std::vector<pid_t> writers;
    for (const Writer& writer : WRITERS) {
        std::vector<std::pair<size_t, std::string>> own;
        for (size_t i = 0; i < files.size(); ++i) {
            if (files[i].writer == &writer) {
                own.emplace_back(i, files[i].path);
            }
        }
        if (!own.empty()) {
            writers.push_back(startChild([&] { return writeInTurn(shared, own, writer); }));
        }
    }
    std::map<int32_t, int> results;
    int left_out = 0;
    for (int round = rounds(12, 600); round > 0 && !HasFailure(); --round) {
        const size_t turn = round == 1 ? 0 : random.below(calls * 5 / 4);
        const size_t late = files.size() - random.below(4);
        Version from = 0;  // between these two points of the clock the last pass starts
        Version until = 0;
        size_t checked = 0;
        bool has_run = false;  // since the pass before the last one
        bool had_run = true;
        kernel.before = [&](const std::string& call) {
            if (startsPass(call)) {
                checked = 0;
                had_run = std::exchange(has_run, false);
                from = shared->clock++;
            } else if (call.find("{0, 0x8}") != std::string::npos && ++checked == 1) {
                until = shared->clock++;
            }
            const bool is_late = turn > 0 && !had_run && checked >= late;
            shared->is_running = kernel.calls < turn || is_late;
            has_run = has_run || shared->is_running;
        };
        const int32_t ret = create();
        shared->is_running = false;
        ++results[ret];
        EXPECT_TRUE(ret == 0 || ret == -11 || ret == -1 || ret == -2) << ret;
        EXPECT_EQ(fs::exists(target + "/snapshot"), ret == 0);
        bool is_left_out = false;
        for (size_t i = 0; ret == 0 && i < files.size(); ++i) {
            const Shared::History& history = shared->files[i];
            const Version latest = history.latest;
            const Version version = held(files[i], latest);
            ASSERT_LE(version, latest) << files[i].path;
            ASSERT_LT(latest - version + 1, history.KEPT) << files[i].path;
            is_left_out = is_left_out || version != latest;
            EXPECT_TRUE(version == latest || history.done[(version + 1) % history.KEPT] > until)
                << files[i].path << " had changed before the last pass";
            EXPECT_LE(history.done[(version - 1) % history.KEPT], from) << files[i].path;
        }
        left_out += is_left_out ? 1 : 0;
    }
    for (const pid_t writer : writers) {
        EXPECT_EQ(endChild(writer, SIGKILL), 128 + SIGKILL) << "a writer has failed";
    }
    std::cout << results[0] << " snapshots checked, " << left_out
              << " of them left later changes out; failed: " << results[-11] << " with -11, "
              << results[-1] + results[-2] << " with -1 or -2" << std::endl;
    EXPECT_GT(results[0], 0);
}

}  // namespace
