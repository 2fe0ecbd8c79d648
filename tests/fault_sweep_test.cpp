// SPDX-License-Identifier: Apache-2.0
// Something goes wrong at every call: each system call of prepare, create, destroy and of the
// cleanup in a failed create fails in its turn, once or from then on, or finds that somebody has
// changed the directories. The result is always a promised one, nothing stays open, the disk is
// left as promised, and the next destroy and create succeed.
//
// The short form gives each call one of the errnos and one of the disturbances, the long one each.
#include <string.h>

#include "snapshot/snapshot.h"
#include "tests/fake_kernel.h"
#include "tests/helpers.h"

namespace {

enum class Operation { PREPARE, CREATE, DESTROY };
enum class Event { FAILURE, FAILURE_FROM_THEN_ON, DISTURBANCE };

struct Scenario {
    const char* name;
    Operation operation;
    int32_t result = 0;      // without an event
    bool old_root = false;   // a snapshot is there already
    bool writer = false;     // changes a file after its snapshot was made
    bool odd_entry = false;  // the last entry is of a type that cannot be mirrored
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

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

class FaultSweep : public TestTree, public testing::WithParamInterface<Scenario> {
  protected:
    void SetUp() override {
        TestTree::SetUp();
        fs::create_directory(at("t"));
        reset();
        before = dump(at("s"));
        write(at("s/1/a"), "after");
        after = dump(at("s"));
    }

    void reset() {
        fs::remove_all(at("t/snapshot"));
        fs::remove_all(at("s"));
        fs::create_directories(at("s/1/b/empty"));
        fs::create_directory(at("s/2"));
        write(at("s/1/a"), "before");
        write(at("s/1/b/c"), "content");
        fs::create_symlink("b/c", at("s/1/l"));
        write(at("s/2/z"), "");
        if (GetParam().old_root) {
            fs::create_directories(mirror);
            fs::copy(at("s"), mirror,
                     fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        }
    }

    int32_t operate() const {
        switch (GetParam().operation) {
            case Operation::PREPARE:
                return PreCreateDirSnapshot(sources);
            case Operation::CREATE:
                return CreateDirSnapshot(sources, at("t"));
            default:
                return DestroyDirSnapshot(at("t"));
        }
    }

    void disturb(size_t variant) {
        const bool destroys = GetParam().operation == Operation::DESTROY;
        const std::string directory = (destroys ? mirror.string() : at("s")) + "/1/b";
        if (chdir(directory.c_str()) == 0) {
            happened += DISTURBANCES[variant % std::size(DISTURBANCES)]() ? 1 : 0;
            fs::current_path(root);
        }
    }

    // Runs the operation with the event at its nth call. False: it has fewer calls.
    bool run(Event event, size_t nth, size_t variant) {
        reset();
        FakeKernel kernel(root);
        if (GetParam().odd_entry) {
            kernel.types["z"] = DT_FIFO;
        }
        if (event != Event::DISTURBANCE) {
            kernel.fault = {nth, event == Event::FAILURE_FROM_THEN_ON,
                            ERRNOS[variant % std::size(ERRNOS)]};
        }
        std::string hit;
        bool in_cleanup = false;
        kernel.before = [&](const std::string& call) {
            if (GetParam().writer && call == "opendir $/s/1/b") {
                write(at("s/1/a"), "after");
            }
            if (kernel.calls == nth) {
                hit = call;
                in_cleanup = !kernel.text({"E INVALID"}).empty();
                if (event == Event::DISTURBANCE) {
                    disturb(variant);
                }
            }
        };
        const int32_t ret = kernel.run([&] { return operate(); });
        SCOPED_TRACE(hit + " " + strerror(kernel.fault.error) + "\n" + kernel.text());
        EXPECT_EQ(kernel.openDescriptors(), 0U);
        EXPECT_TRUE(ret == 0 || ret == -1 || ret == -2 || ret == GetParam().result) << ret;
        if (hit.empty() || in_cleanup) {
            EXPECT_EQ(ret, GetParam().result);
        }
        if (ret != 0) {
            checkFailure(kernel.text({"E "}));
        } else if (event != Event::DISTURBANCE) {
            const bool of_stream = hit.rfind("opendir", 0) == 0 || hit == "readdir";
            checkSuccess(event == Event::FAILURE_FROM_THEN_ON || of_stream);
        }
        const Dump now = dump(at("s"));
        EXPECT_TRUE(event == Event::DISTURBANCE || now == before ||
                    (GetParam().writer && now == after));
        happened += kernel.faults;
        checkNextRound(kernel);
        return !hit.empty();
    }

    // A walk that ended early made too little or left an older state, but never a wrong one.
    void checkSuccess(bool ended_early) {
        const bool creates = GetParam().operation == Operation::CREATE;
        const Dump made = snapshot();
        EXPECT_EQ(fs::exists(at("t/snapshot")), creates);
        EXPECT_TRUE(ended_early || made == (creates ? dump(at("s")) : Dump()));
        Dump right = before;
        right.insert(right.end(), after.begin(), after.end());
        std::sort(right.begin(), right.end());
        EXPECT_TRUE(std::includes(right.begin(), right.end(), made.begin(), made.end()))
            << testing::PrintToString(made);
    }

    // A create that failed leaves a root only where its log says so, or an old one that it did not
    // see.
    void checkFailure(const std::string& errors) const {
        bool is_left = GetParam().operation == Operation::DESTROY;
        for (const char* told :
             {"Failed to mkdirsLoop", "destroy fail and return", "destroy ret1 = -"}) {
            is_left = is_left || errors.find(told) != std::string::npos;
        }
        EXPECT_TRUE(fs::exists(at("t/snapshot")) == is_left ||
                    (GetParam().old_root && snapshot() == before));
    }

    void checkNextRound(FakeKernel& kernel) {
        kernel.fault = {};
        kernel.before = nullptr;
        kernel.types.clear();
        const int32_t expected = fs::exists(at("t/snapshot")) ? 0 : -2;
        EXPECT_EQ(kernel.run([&] { return DestroyDirSnapshot(at("t")); }), expected);
        EXPECT_TRUE(fs::is_empty(at("t")));
        EXPECT_EQ(kernel.run([&] { return CreateDirSnapshot(sources, at("t")); }), 0);
        EXPECT_EQ(snapshot(), dump(at("s")));
    }

    Dump snapshot() const {
        return fs::exists(mirror) ? dump(mirror) : Dump();
    }

    void sweep(Event event) {
        size_t runs = 0;
        const auto variants = static_cast<size_t>(rounds(1, std::size(ERRNOS)));
        for (size_t round = 0; round < variants; ++round) {
            for (size_t nth = 1; run(event, nth, nth + round); ++nth, ++runs) {
                ASSERT_FALSE(HasFailure());
            }
        }
        std::cout << runs << " runs, " << happened << " events" << std::endl;
        EXPECT_GT(happened, 0U);
    }

    const std::vector<std::string> sources = {at("s/1"), at("s/2")};
    const fs::path mirror = at("t/snapshot") + at("s");
    Dump before;  // the sources without the writer's change
    Dump after;   // and with it
    size_t happened = 0;
};

TEST_P(FaultSweep, ACallFails) {
    sweep(Event::FAILURE);
}

TEST_P(FaultSweep, EachCallFailsFromThenOn) {
    sweep(Event::FAILURE_FROM_THEN_ON);
}

TEST_P(FaultSweep, FilesAreMovedOrReplaced) {
    sweep(Event::DISTURBANCE);
}

const Scenario SCENARIOS[] = {
    {"Prepare", Operation::PREPARE},
    {"CreateOverAnOldRoot", Operation::CREATE, 0, true},
    {"CreateWithFilesMadeAgain", Operation::CREATE, 0, false, true},
    {"CreateThatCleansUp", Operation::CREATE, -22, false, false, true},
    {"Destroy", Operation::DESTROY, 0, true},
};
INSTANTIATE_TEST_SUITE_P(All, FaultSweep, testing::ValuesIn(SCENARIOS),
                         [](const auto& scenario) { return scenario.param.name; });

}  // namespace
