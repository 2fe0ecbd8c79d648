// SPDX-License-Identifier: Apache-2.0
// Every call failed: each system call of prepare, create, destroy and of the cleanup in a failed
// create fails in its turn, once and from then on, or finds the process killed or its folders
// changed by others. Whatever happens, the result is a promised one, nothing stays open, the
// sources are untouched, the disk is left as promised, and the next destroy and create succeed.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "snapshot/snapshot.h"
#include "tests/fake_kernel.h"
#include "tests/process.h"
#include "tests/tree_gen.h"

namespace {

constexpr int ERRNOS[] = {EIO, ENOSPC, EMFILE, EACCES, EROFS, EINTR, ENOENT};

// ENOENT alone is told apart from the rest: the short form gives each call it and one of the others
// in turn, the long one gives each call every errno.
std::vector<int> errnosFor(size_t nth) {
    constexpr size_t OTHERS = std::size(ERRNOS) - 1;
    const std::vector<int> all(std::begin(ERRNOS), std::end(ERRNOS));
    return rounds(0, 1) != 0 ? all : std::vector<int>{ERRNOS[nth % OTHERS], ENOENT};
}

enum class Operation { PREPARE, CREATE, DESTROY };

struct Scenario {
    const char* name;
    Operation operation;
    int32_t result = 0;      // without a fault
    bool old_root = false;   // a snapshot is there already
    bool writer = false;     // changes a file behind its snapshot
    bool odd_entry = false;  // the last entry is nothing that can be mirrored
};

void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

using Dump = std::vector<std::string>;

class FaultSweep : public TestTree, public testing::WithParamInterface<Scenario> {
  protected:
    static void TearDownTestSuite() {
        printf("%zu runs, %zu faults injected; %zu kills; %zu disturbances\n", runs, faults, kills,
               disturbances);
    }

    void SetUp() override {
        if (access("/dev/shm", W_OK) == 0) {
            setenv("TMPDIR", "/dev/shm", 0);  // thousands of trees, none of them worth a disk
        }
        TestTree::SetUp();
        fs::create_directory(at("t"));
        sources = {at("s/1"), at("s/2")};
        mirror = at("t/snapshot") + at("s");
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

    // Runs the operation on a kernel. on_call is told of each call before it is made.
    template <typename OnCall>
    int32_t operate(FakeKernel& kernel, OnCall on_call) {
        if (GetParam().odd_entry) {
            kernel.types["z"] = DT_FIFO;
        }
        kernel.before = [=](const std::string& call) {
            if (GetParam().writer && call == "opendir $/s/1/b") {
                write(at("s/1/a"), "after");
            }
            on_call(call);
        };
        return kernel.run([&] {
            switch (GetParam().operation) {
                case Operation::PREPARE:
                    return PreCreateDirSnapshot(sources);
                case Operation::CREATE:
                    return CreateDirSnapshot(sources, at("t"));
                default:
                    return DestroyDirSnapshot(at("t"));
            }
        });
    }

    // Runs the operation with one fault. False: it ended before the fault's turn came.
    bool run(const FakeKernel::Fault& fault) {
        reset();
        FakeKernel kernel(root);
        kernel.fault = fault;
        std::string failed;
        bool in_cleanup = false;
        const int32_t ret = operate(kernel, [&](const std::string& call) {
            if (kernel.calls == fault.call) {
                failed = call;
                in_cleanup = !kernel.text({"E INVALID"}).empty();
            }
        });
        SCOPED_TRACE(failed + " fails with " + strerror(fault.error) +
                     (fault.from_then_on ? " as do all calls after it\n" : "\n") + kernel.text());
        EXPECT_EQ(kernel.openDescriptors(), 0U);
        if (failed.empty() || in_cleanup) {
            EXPECT_EQ(ret, GetParam().result);
        }
        if (ret == 0) {
            const bool of_stream = failed.rfind("opendir", 0) == 0 || failed == "readdir";
            checkSuccess(fault.from_then_on || of_stream);
        } else {
            EXPECT_TRUE(ret == -1 || ret == -2 || ret == GetParam().result) << ret;
            checkFailure(kernel.log());
        }
        checkSources();
        checkNextRound(kernel);
        runs += failed.empty() ? 0 : 1;
        faults += kernel.faults;
        return !failed.empty();
    }

    // A walk that ended early made too little or left an older state, but never a wrong one.
    void checkSuccess(bool ended_early) {
        const Dump made = snapshot();
        EXPECT_EQ(fs::exists(at("t/snapshot")), GetParam().operation == Operation::CREATE);
        if (!ended_early) {
            EXPECT_EQ(made, GetParam().operation == Operation::CREATE ? dump(at("s")) : Dump());
        }
        Dump right = before;
        right.insert(right.end(), after.begin(), after.end());
        std::sort(right.begin(), right.end());
        EXPECT_TRUE(std::includes(right.begin(), right.end(), made.begin(), made.end()))
            << testing::PrintToString(made);
    }

    // A create that failed leaves a root only where it says so, or an old one that it did not see.
    void checkFailure(const std::string& log) const {
        bool is_left = GetParam().operation == Operation::DESTROY;
        for (const char* told :
             {"E Failed to mkdirsLoop", "destroy fail and return", "destroy ret1 = -"}) {
            is_left = is_left || log.find(told) != std::string::npos;
        }
        EXPECT_TRUE(fs::exists(at("t/snapshot")) == is_left ||
                    (GetParam().old_root && snapshot() == before));
    }

    void checkSources() const {
        const Dump now = dump(at("s"));
        EXPECT_TRUE(now == before || (GetParam().writer && now == after));
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

    std::vector<std::string> sources;
    fs::path mirror;
    Dump before;  // what the sources hold before the writer comes
    Dump after;   // and after it

    inline static size_t runs = 0;
    inline static size_t faults = 0;
    inline static size_t kills = 0;
    inline static size_t disturbances = 0;
};

TEST_P(FaultSweep, KeepsEveryPromise) {
    bool met = true;
    for (size_t nth = 1; met; ++nth) {
        for (const int error : errnosFor(nth)) {
            for (const bool from_then_on : {false, true}) {
                met = run({nth, from_then_on, error});
                ASSERT_FALSE(HasFailure());
            }
        }
    }
}

TEST_P(FaultSweep, SurvivesAKillAtEveryCall) {
    constexpr int KILLED = 128 + SIGKILL;
    int status = KILLED;
    for (size_t nth = 1; status == KILLED; ++nth) {
        SCOPED_TRACE(nth);
        reset();
        FakeKernel kernel(root);
        status = endChild(startChild([&] {
            const int32_t ret = operate(kernel, [&](const std::string& /*call*/) {
                if (kernel.calls == nth) {
                    raise(SIGKILL);
                }
            });
            return ret == GetParam().result ? 0 : 1;
        }));
        checkSources();
        checkNextRound(kernel);
        kills += status == KILLED ? 1 : 0;
        ASSERT_FALSE(HasFailure());
    }
    EXPECT_EQ(status, 0);
}

// What others make of s/1/b/c, or of its snapshot, where that is still there; done in its folder.
const std::pair<const char*, bool (*)()> DISTURBANCES[] = {
    {"deleted", [] { return unlink("c") == 0; }},
    {"renamed", [] { return rename("c", "d") == 0; }},
    {"in the place of another file", [] { return rename("c", "../a") == 0; }},
    {"a folder now", [] { return unlink("c") == 0 && mkdir("c", 0700) == 0; }},
    {"a link now", [] { return unlink("c") == 0 && symlink("../a", "c") == 0; }},
    {"below a link now",
     [] { return rename("../b", "../aside") == 0 && symlink("aside", "../b") == 0; }},
};

TEST_P(FaultSweep, IsDisturbedAtEveryCall) {
    const bool destroys = GetParam().operation == Operation::DESTROY;
    const std::string folder = (destroys ? mirror.string() : at("s")) + "/1/b";
    for (const auto& [what, disturb] : DISTURBANCES) {
        bool met = true;
        for (size_t nth = 1; met; ++nth) {
            reset();
            FakeKernel kernel(root);
            met = false;
            const int32_t ret = operate(kernel, [&, disturb = disturb](const std::string&) {
                if (kernel.calls == nth) {
                    met = true;
                    disturbances += chdir(folder.c_str()) == 0 && disturb() ? 1 : 0;
                    fs::current_path(root);
                }
            });
            SCOPED_TRACE(what + std::string(" at call ") + std::to_string(nth) + "\n" +
                         kernel.text());
            EXPECT_EQ(kernel.openDescriptors(), 0U);
            EXPECT_TRUE(ret == 0 || ret == -1 || ret == -2 || ret == GetParam().result) << ret;
            if (ret != 0) {
                checkFailure(kernel.log());
            }
            checkNextRound(kernel);
            ASSERT_FALSE(HasFailure());
        }
    }
    EXPECT_GT(disturbances, 0U);
}

const Scenario SCENARIOS[] = {
    {"Prepare", Operation::PREPARE},
    {"Create", Operation::CREATE},
    {"CreateOverAnOldRoot", Operation::CREATE, 0, true},
    {"CreateWithFilesMadeAgain", Operation::CREATE, 0, false, true},
    {"CreateThatCleansUp", Operation::CREATE, -22, false, false, true},
    {"Destroy", Operation::DESTROY, 0, true},
};
INSTANTIATE_TEST_SUITE_P(All, FaultSweep, testing::ValuesIn(SCENARIOS),
                         [](const auto& scenario) { return scenario.param.name; });

}  // namespace
