// SPDX-License-Identifier: Apache-2.0
// The verbs of f2fs_snapshotctl: what they print, their documents and exit statuses.
#include <sys/file.h>

#include <thread>

#include "tests/snapshotctl/ctl_on_volume.h"

namespace {

class Ctl : public CtlOnVolume {
  protected:
    // What a call leaves in the store, by name and inode.
    std::string storeInodes() const {
        return shell("find " + store + " -printf '%i %p\\n' | sort");
    }
    std::string json(std::vector<std::string> arguments, int status) const {
        arguments.push_back("--json");
        const Outcome outcome = ctl(arguments);
        EXPECT_EQ(outcome.status, status) << arguments[0] << outcome.err;
        return outcome.out;
    }
};

TEST_F(Ctl, HasADocumentOfItsSchemaForEveryVerb) {
    if (runProcess({"/usr/bin/python3", "-c", "import jsonschema"}).status != 0) {
        GTEST_SKIP() << "needs python3-jsonschema";
    }
    ASSERT_EQ(shell("cd " + source + " && ln a \"$(printf 'odd\\377%%\\n')\""), "");
    ASSERT_EQ(shell("mkdir -m 700 " + store), "");
    const std::string out = volume.root() / "out";
    std::string documents = json({"check", source}, 3);
    documents += json({"create", "--dry-run", source}, 3);
    documents += json({"create", "--name", "a%b", "--digests", source}, 0);
    documents += ctl({"run", "--json", source, "--", "sh", "-c", "exit 5"}).err;
    documents += json({"list"}, 0);
    documents += json({"show", "a%b"}, 0);
    documents += json({"verify", "--all"}, 0);
    ASSERT_EQ(shell("echo more >" + store + "/a%b/snapshot" + source + "/odd"), "");
    documents += json({"verify", "a%b"}, 3);
    documents += json({"restore", "--dry-run", "a%b", out}, 0);
    documents += json({"restore", "a%b", out}, 0);
    documents += json({"restore", "--overwrite", "--dry-run", "a%b", out}, 0);
    documents += json({"prune", "--dry-run", "--keep-last", "1"}, 0);
    documents += json({"destroy", "--dry-run", "a%b"}, 0);
    ASSERT_EQ(shell("mkdir " + store + "/bad"), "");
    documents += json({"list", "--no-usage"}, 3);
    documents += json({"show", "bad"}, 1);
    documents += json({"destroy", "a%b", "bad"}, 0);
    write(volume.root() / "documents", documents);
    EXPECT_EQ(
        shell(F2FS_SNAPSHOT_SOURCE_DIR "/tests/snapshotctl/validate.py " F2FS_SNAPSHOT_SOURCE_DIR
                                       "/docs/f2fs_snapshotctl.schema.json <" +
              (volume.root() / "documents").string()),
        "16\n");
    EXPECT_EQ(stored(), "");
}

TEST_F(Ctl, PrintsWhatItDoes) {
    EXPECT_EQ(done({"create", "--name", "one", source}),
              "one: whole, 2 files, 2 directories, 0 links, 11 B\n");
    // With --quiet, not even that hard links are not covered.
    fs::create_hard_link(source + "/a", source + "/c");
    for (const auto& quiet : {words({"create", "--quiet", "--name", "two", source}),
                              words({"run", "--quiet", source, "--", "true"})}) {
        const Outcome outcome = runProcess(quiet);
        EXPECT_EQ(std::to_string(outcome.status) + outcome.out + outcome.err, "0");
    }
    EXPECT_EQ(done({"list", "--quiet"}), "one\ntwo\n");
    ASSERT_EQ(shell("sed -i 's/\"whole\": true/\"whole\": false/' " + store + "/one/info.json"),
              "");
    EXPECT_EQ(done({"verify", "one", "two"}),
              "one: intact, 2 files, 2 directories, 0 links, 11 B\n"
              "  note: it is not whole: \"show\" names what changed while it was made\n"
              "two: intact, 3 files, 2 directories, 0 links, 16 B\n");
    EXPECT_EQ(done({"verify", "one", "two", "--quiet"}), "");
    EXPECT_NE(json({"verify", "one"}, 0).find("\"whole\": false"), std::string::npos);
    EXPECT_NE(json({"restore", "-n", "one", "/new"}, 0).find("\"whole\": false"),
              std::string::npos);
    EXPECT_EQ(done({"prune", "--keep-last", "1", "--dry-run"}),
              "kept          two: last\nwould remove  one\n");
    EXPECT_EQ(stored(), "one\ntwo\n");
    EXPECT_EQ(done({"prune", "--keep-last", "1"}), "kept          two: last\nremoved       one\n");
    EXPECT_EQ(stored(), "two\n");
    const std::string shown = done({"show", "two"});
    EXPECT_NE(shown.find("two: whole, 3 files"), std::string::npos) << shown;
    EXPECT_NE(shown.find("source       " + source + "\n"), std::string::npos) << shown;
    EXPECT_EQ(done({"destroy", "two"}), "destroyed two\n");
    EXPECT_EQ(stored(), "");
}

TEST_F(Ctl, EndsWithAStatusForEachKindOfResult) {
    for (const bool has_store : {false, true}) {
        ASSERT_EQ(shell(has_store ? "mkdir -m 700 " + store : ":"), "");
        EXPECT_EQ(ctl({"create", "/nonexistent"}).status, 1);
        EXPECT_EQ(fs::exists(store), has_store);
    }
    done({"create", "--name", "one", source});
    const std::string before = storeInodes();
    const struct {
        int status;
        std::vector<std::string> arguments;
        const char* says;  // on standard error
    } cases[] = {
        {2, {}, "no verb is given"},
        {2, {"make"}, "no verb or option make"},
        {2, {"show"}, "NAME is required"},
        {2, {"list", "--store", ""}, "no store"},
        {2, {"create", "--attempts", "0", source}, "range"},
        {2, {"create", "--attempts", "-1", source}, ""},
        {2, {"prune", "--keep-daily", "x"}, ""},
        {2, {"prune", "--keep-last", "-1"}, ""},
        {2, {"prune", "--keep-within", "7"}, "is no time span"},
        {2, {"verify"}, "needs names"},
        {2, {"run", source}, "run needs \"--\""},
        {2, {"destroy", "--store"}, ""},
        {2, {"prune"}, "no rule"},
        {2, {"show", "../one"}, "cannot have the name"},
        {2, {"create", "source"}, "source"},
        {2, {"create", ""}, ""},
        {2, {"run", "--name", "", source, "--", "true"}, "it is empty"},
        {1, {"destroy", "one", "ones"}, "there is no snapshot ones"},
        {1, {"create", "--name", "one", source}, "one already"},
        {1, {"create", "--name", "one", "--dry-run", source}, "one already"},
        {1, {"verify", "one", "--store", "/nonexistent"}, "/nonexistent"},
        {125, {"run", "/nonexistent", "--", "true"}, "/nonexistent"},
        {126, {"run", source, "--", "/"}, "cannot execute /"},
        {127, {"run", source, "--", "/nonexistent"}, "cannot execute /nonexistent"},
        {7, {"run", source, "--", "sh", "-c", "exit 7"}, ""},
        {128 + SIGKILL, {"run", source, "--", "sh", "-c", "kill -KILL $$"}, ""},
        {0, {"destroy", "--dry-run", "one"}, ""},
        {0, {"--version"}, ""},
        {0, {"prune", "--help"}, ""},
    };
    for (const auto& c : cases) {
        const Outcome outcome = ctl(c.arguments);
        SCOPED_TRACE(testing::PrintToString(c.arguments));
        EXPECT_EQ(outcome.status, c.status) << outcome.err;
        EXPECT_NE(outcome.err.find(c.says), std::string::npos) << outcome.err;
        EXPECT_EQ(outcome.err.empty(), c.status == 0 || c.status == 7 || c.status > 128);
        EXPECT_TRUE(outcome.err.empty() || outcome.err.rfind("f2fs_snapshotctl: ", 0) == 0);
        EXPECT_EQ(outcome.err.find("\nTry \"f2fs_snapshotctl ") != std::string::npos,
                  c.status == 2);
        EXPECT_EQ(storeInodes(), before);
    }
    EXPECT_EQ(runProcess({"sh", "-c", F2FS_SNAPSHOTCTL_PATH " list >/dev/full"}).status, 1);
}

TEST_F(Ctl, GivesACommandASnapshotOfItsOwn) {
    const std::string script =
        "cat {}" + source + "/sub/b; echo; echo changed >" + source + "/a; " +
        "cat \"$F2FS_SNAPSHOT_PATH" + source +
        "/a\"; echo \"$F2FS_SNAPSHOT_WHOLE\"; "
        "[ {} = \"$F2FS_SNAPSHOT_STORE/$F2FS_SNAPSHOT_NAME/snapshot\" ] && echo same; echo x{}y{}z";
    const Outcome outcome = ctl({"run", source, "--", "sh", "-c", script, "--", "{}"});
    EXPECT_EQ(outcome.out.substr(0, 20), "second\nfirst1\nsame\nx") << outcome.out << outcome.err;
    EXPECT_EQ(outcome.out.find("{}"), std::string::npos);
    EXPECT_EQ(stored(), "");
    // A prune meanwhile does not count it, destroy is refused, and what the command leaves
    // running does not hold it.
    done({"create", "--name", "older", source});
    const std::string program = F2FS_SNAPSHOTCTL_PATH;
    const Outcome held = ctl({"run", source, "--", "sh", "-c",
                              program + " prune --quiet --keep-last 1; " + program +
                                  " destroy $F2FS_SNAPSHOT_NAME; sleep 1000 >&- 2>&- & echo $!"});
    EXPECT_NE(held.err.find("works on it"), std::string::npos) << held.err;
    EXPECT_EQ(stored(), "older\n");
    EXPECT_EQ(kill(std::stoi(held.out), SIGKILL), 0);
}

TEST_F(Ctl, WaitsForOtherCalls) {
    done({"create", "--name", "older", source});
    const std::vector<std::string> calls[] = {{"verify", "older"},
                                              {"restore", "older", volume.root() / "out"},
                                              {"create", source},
                                              {"prune", "--keep-last", "9"},
                                              {"destroy", "older"}};
    for (const std::vector<std::string>& call : calls) {
        SCOPED_TRACE(call[0]);
        const int locks[] = {open(store.c_str(), O_RDONLY | O_CLOEXEC),
                             open((store + "/older").c_str(), O_RDONLY | O_CLOEXEC)};
        for (const int lock : locks) {
            EXPECT_EQ(flock(lock, LOCK_EX), 0);
        }
        EXPECT_EQ(ctl(call).status, 1);
        for (const bool is_cancelled : {true, false}) {
            const std::string said = volume.root() / "said";
            write(said, "");
            const pid_t child = startChild([&] {
                std::vector<std::string> patient = words(call);
                patient.insert(patient.end(), {"--wait", "100000"});
                const int errors = open(said.c_str(), O_WRONLY | O_APPEND);
                return execute(patient, errors, errors);
            });
            while (read(said).find("waiting: ") == std::string::npos) {
                std::this_thread::yield();
            }
            for (const int lock : locks) {
                is_cancelled ? kill(child, SIGTERM) : close(lock);
            }
            EXPECT_EQ(endChild(child), is_cancelled ? 128 + SIGTERM : 0) << read(said);
        }
    }
}

// Signals to the program reach the command, whose exit status is the program's.
TEST_F(Ctl, ForwardsSignalsToTheCommand) {
    const std::string script = "trap 'exit 9' TERM; kill -TERM $PPID; while :; do sleep 0.05; done";
    EXPECT_EQ(ctl({"run", source, "--", "sh", "-c", script}).status, 9);
    EXPECT_EQ(ctl({"run", source, "--", "sh", "-c", "kill -HUP $PPID; exec sleep 1000"}).status,
              128 + SIGHUP);
    EXPECT_EQ(stored(), "");
}

// The volume is stopped until the signal has been sent, so that the call is under way then.
TEST_F(Ctl, LeavesNothingWhenInterrupted) {
    if (!isEmulated()) {
        GTEST_SKIP() << "stops the emulator, which does not serve this volume";
    }
    done({"create", "--name", "older", source});
    const auto catches = [](pid_t pid) {
        const std::string caught =
            shell("sed -n 's/^SigCgt:.*\\(.\\)$/\\1/p' /proc/" + std::to_string(pid) + "/status");
        return caught[0] == '6' || caught[0] == '7';  // SIGINT and SIGQUIT, not SIGHUP: ignored
    };
    for (const auto& [signal, status] : {std::pair(SIGINT, 130), std::pair(SIGTERM, 143)}) {
        kill(volume.pid(), SIGSTOP);
        const pid_t child = startChild([&] {
            ::signal(SIGHUP, SIG_IGN);
            const int errors =
                open((volume.root() / "said").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            return execute(words({"create", "--name", "new", source}), errors, errors);
        });
        while (!catches(child)) {
            std::this_thread::yield();
        }
        kill(child, signal);
        kill(volume.pid(), SIGCONT);
        EXPECT_EQ(endChild(child), status);
        EXPECT_EQ(read(volume.root() / "said"), "f2fs_snapshotctl: cancelled\n");
        EXPECT_EQ(stored(), "older\n");
    }
}

}  // namespace
