// Every call failed: each system call of prepare, create, destroy and of the cleanup in a failed
// create fails in its turn, once and from then on. Whatever fails, the result is a promised one,
// nothing stays open, the sources are untouched, the disk is left as promised, and the next destroy
// and create succeed.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fake_kernel.h"
#include "snapshot.h"
#include "tree_gen.h"

namespace {

constexpr int ERRNOS[] = {EIO, ENOSPC, EMFILE, EACCES, EROFS, EINTR, ENOENT};

// ENOENT alone is told apart from the rest: the default run gives each call it and one of the
// others in turn, the long one gives each call every errno.
std::vector<int> errnosFor(size_t nth) {
    return getenv("F2FS_SNAPSHOT_LONG") != nullptr
               ? std::vector<int>(std::begin(ERRNOS), std::end(ERRNOS))
               : std::vector<int>{ERRNOS[nth % (std::size(ERRNOS) - 1)], ENOENT};
}

enum class Root { GONE, KEPT, EITHER };

// What is promised when a call fails, by the phase and the kind of the call. Result 0 stands for
// the result without a fault: the failure goes unnoticed. Failing from then on, it is a later call
// that decides.
const struct Promise {
    const char* phases;
    const char* calls;
    std::set<int32_t> once;
    std::set<int32_t> lasting;
    Root root = Root::GONE;  // after a create that one failed call has made fail
} PROMISES[] = {
    {"prepare", "opendir open", {-2}, {-2}},
    {"prepare", "request", {-1}, {-1}},
    {"prepare", "readdir", {0}, {0, -2}},  // a read error is the end of that directory
    {"prepare", "close closedir", {0}, {0, -1, -2}},
    // What stat cannot see is made again, and that fails where it is there.
    {"root", "stat", {0, -1}, {-1}},
    {"root", "mkdir", {-1}, {-1}},
    {"mirror", "stat", {0, -1}, {-1}, Root::KEPT},
    {"mirror", "mkdir", {-1}, {-1}, Root::KEPT},
    {"remove", "opendir", {-1, -2}, {-1, -2}},
    {"remove", "readdir", {0, -1}, {-1}},
    {"remove", "unlink unlink-ENOENT rmdir", {-1}, {-1}},
    {"remove", "closedir", {0}, {-1}},
    {"walk redo", "opendir open", {-2}, {-2}},
    {"walk redo", "stat mkdir fallocate request readlink symlink", {-1}, {-1}},
    // The check lists the files that a short read left out, but their directory may be missing.
    {"walk", "readdir", {0, -2}, {0, -1}},
    {"walk check redo", "close closedir", {0}, {0, -1, -2}},
    {"check", "opendir readdir", {0}, {0, -1, -2}},
    {"check", "open request stat", {0}, {-1, -2}},
    {"redo", "unlink", {-1}, {-1}},
    {"redo", "unlink-ENOENT", {0}, {-2}},
    {"cleanup", "opendir unlink unlink-ENOENT rmdir", {0}, {0}, Root::KEPT},
    {"cleanup", "readdir", {0}, {0}, Root::EITHER},
    {"cleanup", "closedir", {0}, {0}},
};

const Promise* promiseFor(const std::string& phase, const std::string& kind) {
    const auto holds = [](const char* words, const std::string& word) {
        return (" " + std::string(words) + " ").find(" " + word + " ") != std::string::npos;
    };
    for (const Promise& promise : PROMISES) {
        if (holds(promise.phases, phase) && holds(promise.calls, kind)) {
            return &promise;
        }
    }
    return nullptr;
}

// Where an operation is, from what it has said and done, the call to come included.
std::string phaseOf(const std::vector<std::string>& trace) {
    std::string phase;
    for (const std::string& line : trace) {
        const auto begins = [&](const char* text) { return line.rfind(text, 0) == 0; };
        if (begins("I ------Pre")) {
            phase = "prepare";
        } else if (begins("I ------Destroy") || begins("I dstpath [$/t/snapshot] already exist")) {
            phase = "remove";
        } else if (begins("I ------Create") || (phase == "remove" && begins("stat"))) {
            phase = "root";
        } else if (begins("I prepare dstpath")) {
            phase = "mirror";
        } else if (phase == "mirror" && begins("opendir")) {
            phase = "walk";
        } else if (phase != "prepare" && (line == "opendir $/s/1" || begins("opendir $/s/1 ="))) {
            phase = "check";
        } else if (phase == "check" && begins("unlink")) {
            phase = "redo";
        } else if (phase != "remove" &&
                   begins("I DestroyDirSnapshotInter for dstpath [$/t/snapshot] enter")) {
            phase = "cleanup";
        }
    }
    return phase;
}

std::string kindOf(const std::string& call, int error) {
    const std::string word = call.substr(0, call.find(' '));
    const bool is_request = isupper(static_cast<unsigned char>(word[0])) != 0;
    return is_request ? "request" : word == "unlink" && error == ENOENT ? "unlink-ENOENT" : word;
}

auto openFiles() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
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
        printf("%zu runs, %zu faults injected, %zu broken promises\n", runs, faults, broken);
    }

    void SetUp() override {
        if (access("/dev/shm", W_OK) == 0) {
            setenv("TMPDIR", "/dev/shm", 0);  // thousands of trees, none of them worth a disk
        }
        TestTree::SetUp();
        fs::create_directories(at("s/1/b/empty"));
        fs::create_directory(at("s/2"));
        fs::create_directory(at("t"));
        write(at("s/1/b/c"), "content");
        fs::create_symlink("b/c", at("s/1/l"));
        write(at("s/2/z"), "");
        sources = {at("s/1"), at("s/2")};
        mirror = at("t/snapshot") + at("s");
    }

    // Runs the operation with one fault. False: it ended before the fault's turn came.
    bool run(const FakeKernel::Fault& fault) {
        reset();
        FakeKernel kernel(root);
        kernel.fault = fault;
        if (GetParam().odd_entry) {
            kernel.types["z"] = DT_FIFO;
        }
        bool wrote = !GetParam().writer;
        std::string call;
        Dump done;  // up to the fault
        kernel.before = [&](const std::string& line) {
            if (!wrote && line == "opendir $/s/1/b") {
                write(at("s/1/a"), "after");
                source = dump(at("s"));
                wrote = true;
            }
            if (kernel.calls == fault.call) {
                call = line;
                done = kernel.trace;
                done.push_back(line);
                at_fault = snapshot();
            }
        };
        const auto open_before = openFiles();
        const int32_t ret = kernel.run([&] { return operate(); });
        const std::string phase = phaseOf(done);
        SCOPED_TRACE(phase + ": " + call + " fails with " + strerror(fault.error) +
                     (fault.from_then_on ? " as do all calls after it\n" : "\n") + kernel.text());

        EXPECT_EQ(openFiles(), open_before);
        EXPECT_EQ(kernel.openDescriptors(), 0U);
        EXPECT_EQ(dump(at("s")), source);
        const bool met = !call.empty();
        if (met) {
            ++runs;
            faults += kernel.faults;
            checkPromise(phase, kindOf(call, fault.error), fault.from_then_on, ret);
        } else {
            EXPECT_EQ(ret, GetParam().result);
        }
        checkNextRound(kernel);
        broken += HasFailure() ? 1U : 0U;
        return met;
    }

    static size_t runs;
    static size_t faults;
    static size_t broken;

  private:
    void reset() {
        fs::remove_all(at("t/snapshot"));
        write(at("s/1/a"), "before");
        if (GetParam().old_root) {
            fs::create_directories(mirror);
            fs::copy(at("s"), mirror,
                     fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        }
        older = source = dump(at("s"));
    }

    int32_t operate() {
        switch (GetParam().operation) {
            case Operation::PREPARE:
                return PreCreateDirSnapshot(sources);
            case Operation::CREATE:
                return CreateDirSnapshot(sources, at("t"));
            default:
                return DestroyDirSnapshot(at("t"));
        }
    }

    void checkPromise(const std::string& phase, const std::string& kind, bool lasting,
                      int32_t ret) {
        const Promise* promise = promiseFor(phase, kind);
        ASSERT_NE(promise, nullptr) << "nothing is promised for this call";
        const bool unnoticed = ret == GetParam().result;
        const std::set<int32_t>& results = lasting ? promise->lasting : promise->once;
        EXPECT_EQ(results.count(unnoticed ? 0 : ret), 1U) << "result " << ret;

        const bool there = fs::exists(at("t/snapshot"));
        if (there && (phase == "remove" || phase == "cleanup")) {
            EXPECT_EQ(snapshot(), ret == 0 ? source : at_fault);  // nothing is removed after it
        }
        if (ret == 0) {
            EXPECT_EQ(there, GetParam().operation == Operation::CREATE);
            checkSnapshot(lasting || kind == "opendir" || kind == "readdir");
        } else if (lasting || phase == "remove" || phase == "prepare") {
            EXPECT_TRUE(phase == "root" ||
                        there == (phase != "prepare"));  // no cleanup, or a failed one
        } else {
            const Root promised = unnoticed && phase != "cleanup" ? Root::GONE : promise->root;
            EXPECT_TRUE(promised == Root::EITHER || there == (promised == Root::KEPT));
        }
    }

    // A walk that ended early made too little or left an older state, but never a wrong one.
    void checkSnapshot(bool ended_early) {
        const Dump made = snapshot();
        if (!ended_early) {
            EXPECT_EQ(made, GetParam().operation == Operation::CREATE ? source : Dump());
        }
        Dump right = source;
        right.insert(right.end(), older.begin(), older.end());
        std::sort(right.begin(), right.end());
        EXPECT_TRUE(std::includes(right.begin(), right.end(), made.begin(), made.end()))
            << testing::PrintToString(made);
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
    Dump source;    // what the sources hold
    Dump older;     // what they held before the writer came
    Dump at_fault;  // what the snapshot held when the call failed
};

size_t FaultSweep::runs = 0;
size_t FaultSweep::faults = 0;
size_t FaultSweep::broken = 0;

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
