// SPDX-License-Identifier: Apache-2.0
// Something goes wrong at every call: each system call of prepare, create, destroy and of the
// cleanup in a failed create fails in its turn, once or from then on, or the directories are
// changed before it. The result must be a promised one, nothing stays open, the disk is left as
// promised, and the next destroy and create succeed.
//
// The short form gives each call one of the errnos and one of the disturbances, the long one each.
#include "snapshot/snapshot.h"
#include "tests/fake_kernel.h"
#include "tests/helpers.h"

namespace {

enum class Event { FAILURE, FAILURE_FROM_THEN_ON, DISTURBANCE };
constexpr int ERRNOS[] = {EIO, ENOSPC, EMFILE, EACCES, EROFS, EINTR, ENOENT};

// Changes of s/1/b/c, or of its snapshot, where that still exists; made in its directory.
bool (*const DISTURBANCES[])() = {
    [] { return unlink("c") == 0; },
    [] { return rename("c", "d") == 0; },
    [] { return rename("c", "../a") == 0; },
    [] { return unlink("c") == 0 && mkdir("c", 0700) == 0; },
    [] { return unlink("c") == 0 && symlink("../a", "c") == 0; },
    [] { return rename("../b", "../aside") == 0 && symlink("aside", "../b") == 0; },
};

const std::vector<std::string> SOURCES = {HERE + "/s/1", HERE + "/s/2"};
const std::string TARGET = HERE + "/t";
const std::string MIRROR = TARGET + "/snapshot" + HERE + "/s";

int32_t create() {
    return CreateDirSnapshot(SOURCES, TARGET);
}
int32_t destroy() {
    return DestroyDirSnapshot(TARGET);
}

struct Scenario {
    const char* name;
    int32_t (*operation)();
    int32_t result = 0;      // without an event
    bool old_root = false;   // a snapshot exists already
    bool writer = false;     // changes a file after its snapshot was made
    bool odd_entry = false;  // the last entry is of a type that cannot be mirrored
};

const Scenario SCENARIOS[] = {
    {"Prepare", [] { return PreCreateDirSnapshot(SOURCES); }},
    {"CreateOverAnOldRoot", create, 0, true},
    {"CreateWithFilesMadeAgain", create, 0, false, true},
    {"CreateThatCleansUp", create, -22, false, false, true},
    {"Destroy", destroy, 0, true},
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

class FaultSweep : public TestTree, public testing::WithParamInterface<Scenario> {
  protected:
    void reset() const {
        fs::remove_all("t");
        fs::remove_all("s");
        fs::create_directories("s/1/b/empty");
        fs::create_directories("s/2");
        fs::create_directory("t");
        write("s/1/a", "before");
        write("s/1/b/c", "content");
        fs::create_symlink("b/c", "s/1/l");
        write("s/2/z", "");
        if (scenario.old_root) {
            fs::create_directories(MIRROR);
            fs::copy("s", MIRROR, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        }
    }

    void disturb(size_t variant) {
        if (chdir(((scenario.operation == destroy ? MIRROR : "s") + "/1/b").c_str()) == 0) {
            happened += DISTURBANCES[variant % std::size(DISTURBANCES)]() ? 1 : 0;
            fs::current_path(root);
        }
    }

    // Runs the operation with the event at its nth call. Returns false if it has fewer calls.
    bool run(size_t nth, size_t variant) {
        reset();
        before = dump("s");
        FakeKernel kernel(HERE);
        if (scenario.odd_entry) {
            kernel.types["z"] = DT_FIFO;
        }
        if (event != Event::DISTURBANCE) {
            kernel.fault = {nth, event == Event::FAILURE_FROM_THEN_ON,
                            ERRNOS[variant % std::size(ERRNOS)]};
        }
        std::string hit;
        bool in_cleanup = false;
        kernel.before = [&](const std::string& call) {
            if (scenario.writer && call == "opendir $/s/1/b") {
                write("s/1/a", "after");
            }
            if (kernel.calls == nth) {
                hit = call;
                in_cleanup = !kernel.text({"E INVALID"}).empty();
                if (event == Event::DISTURBANCE) {
                    disturb(variant);
                }
            }
        };
        const int32_t ret = kernel.run(scenario.operation);
        SCOPED_TRACE(hit + " " + std::to_string(kernel.fault.error) + "\n" + kernel.text());
        happened += kernel.faults;
        EXPECT_EQ(kernel.openDescriptors(), 0U);
        EXPECT_TRUE(ret == 0 || ret == -1 || ret == -2 || ret == scenario.result) << ret;
        EXPECT_TRUE(ret == scenario.result || !(hit.empty() || in_cleanup)) << ret;
        if (event != Event::DISTURBANCE) {
            checkTrees(ret, event == Event::FAILURE_FROM_THEN_ON || hit == "readdir" ||
                                hit.rfind("opendir", 0) == 0);
        }
        checkRoot(ret, kernel.text({"E "}));
        checkNextRound(kernel);
        return !hit.empty();
    }

    // A walk that ended early made too little or left an older state, but never a wrong one.
    void checkTrees(int32_t ret, bool ended_early) const {
        const Dump now = dump("s");
        Dump right = before;
        right.insert(right.end(), now.begin(), now.end());
        std::sort(right.begin(), right.end());
        const Dump made = fs::exists(MIRROR) ? dump(MIRROR) : Dump();
        const bool is_part = std::includes(right.begin(), right.end(), made.begin(), made.end());
        const bool is_whole = made == (scenario.operation == create ? now : Dump());
        EXPECT_TRUE(ret != 0 || is_whole || (is_part && ended_early))
            << testing::PrintToString(made);
        EXPECT_TRUE(now == before || (scenario.writer && read("s/1/a") == "after"));
    }

    // A create that failed leaves a root only where its log says so, or an old one that it did not
    // see.
    void checkRoot(int32_t ret, const std::string& errors) const {
        bool is_left = ret == 0 ? scenario.operation == create : scenario.operation == destroy;
        for (const char* told :
             {"Failed to mkdirsLoop", "destroy fail and return", "destroy ret1 = -"}) {
            is_left = is_left || errors.find(told) != std::string::npos;
        }
        EXPECT_TRUE(fs::exists("t/snapshot") == is_left || (scenario.old_root && ret != 0) ||
                    event == Event::DISTURBANCE);
    }

    static void checkNextRound(FakeKernel& kernel) {
        kernel.fault = {};
        kernel.before = nullptr;
        kernel.types.clear();
        const int32_t expected = fs::exists("t/snapshot") ? 0 : -2;
        EXPECT_EQ(kernel.run(destroy), expected);
        EXPECT_TRUE(fs::is_empty("t"));
        EXPECT_EQ(kernel.run(create), 0);
        EXPECT_EQ(dump(MIRROR), dump("s"));
    }

    const Scenario scenario = GetParam();
    Event event = Event::FAILURE;
    Dump before;
    size_t happened = 0;
};

TEST_P(FaultSweep, KeepsEveryPromise) {
    const auto variants = static_cast<size_t>(rounds(1, std::size(ERRNOS)));
    for (const Event next : {Event::FAILURE, Event::FAILURE_FROM_THEN_ON, Event::DISTURBANCE}) {
        event = next;
        size_t runs = 0;
        happened = 0;
        for (size_t round = 0; round < variants; ++round) {
            for (size_t nth = 1; run(nth, nth + round); ++nth, ++runs) {
                ASSERT_FALSE(HasFailure());
            }
        }
        std::cout << runs << " runs, " << happened << " events" << std::endl;
        EXPECT_GT(happened, 0U);
    }
}

INSTANTIATE_TEST_SUITE_P(All, FaultSweep, testing::ValuesIn(SCENARIOS),
                         [](const auto& given) { return given.param.name; });

}  // namespace
