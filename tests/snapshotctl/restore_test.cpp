// SPDX-License-Identifier: Apache-2.0
// Restoring snapshots.
#include <sys/mount.h>

#include "tests/manager/random_tree.h"
#include "tests/snapshotctl/ctl_on_volume.h"

namespace {

class Restore : public CtlOnVolume {
  protected:
    void SetUp() override {
        CtlOnVolume::SetUp();
        out = base() / "out";
    }
    // Outside an emulated volume, but on a given one, whose file system has all attributes.
    fs::path base() const {
        return isEmulated() ? volume.root() : top;
    }
    // All that a restore brings back, a line per entry: attributes, link text, content, and which
    // names are those of one file.
    static std::string described(const std::string& top) {
        return shell("cd " + top +
                     " && find . \\( -type d -printf '%p %y %m %U %G %T@\\n' \\) -o "
                     "-printf '%p %y %m %U %G %s %T@ %n %l\\n' | sort && "
                     "find . -print0 | sort -z | xargs -0 getfattr -h -d -e hex && "
                     "find . -type f -exec sha256sum {} + | sort && "
                     "find . -type f -links +1 -printf '%i %p\\n' | sort | "
                     "awk '{ print $1 == last ? \"same\" : \"other\", $2; last = $1 }'");
    }
    std::string restored() const {
        return out + source;
    }

    std::string out;
};

TEST_F(Restore, BringsBackEveryAttribute) {
    const char* fill = R"sh( && umask 0 &&
        ln a hard && ln -s ../away sub/link && mkdir -p empty locked/in && echo x >locked/in/x
        printf 'new\nline' >"$(printf 'odd\n\\name\377')"; truncate -s 70000 zero
        head -c 5M /dev/zero >sparse
        truncate -s 9M sparse; printf end | dd of=sparse bs=1 seek=8M conv=notrunc status=none
        setfattr -n user.note -v "a b" a; setfattr -n user.dir -v x sub
        chown 1234:5678 sub a; chown -h 1:2 sub/link; chmod 6755 a; chmod 1777 sub
        chmod 0500 locked; chmod 0 zero; touch -d 1969-12-31T23:59:58.25Z zero
        touch -h -d 2001-02-03T04:05:06.789Z sub/link; touch -d 2002-01-01 locked sub .)sh";
    ASSERT_EQ(shell("cd " + source + fill), "");
    const std::string expected = described(source);
    done({"create", "--name", "one", source});
    EXPECT_NE(done({"restore", "one", out}), "");
    EXPECT_EQ(described(restored()), expected);
    EXPECT_EQ(modeOf(out + "/" + fs::path(source).relative_path().begin()->string()), 0700);
    struct stat64 attributes = {};
    ASSERT_EQ(stat64((restored() + "/sparse").c_str(), &attributes), 0);
    EXPECT_LT(attributes.st_blocks * 512, 1 << 20);

    // Over what is there, which has changed.
    ASSERT_EQ(
        shell("cd " + restored() + R"( && rm zero sub/link && echo other >a && echo mine >new &&
        echo other >sub/link && chmod 755 sub locked && touch sub)"),
        "");
    done({"restore", "--overwrite", "one", out});
    EXPECT_EQ(read(restored() + "/new"), "mine\n");
    fs::remove(restored() + "/new");
    ASSERT_EQ(shell("touch -d 2002-01-01 " + restored()), "");
    EXPECT_EQ(described(restored()), expected);
}

TEST_F(Restore, BringsBackRandomTrees) {
    for (uint32_t seed = 1; seed <= 5; ++seed) {
        fs::remove_all(source);
        fs::create_directory(source);
        fillTree(source, seed);
        done({"create", "--digests", "--name", std::to_string(seed), source});
        done({"restore", std::to_string(seed), out + std::to_string(seed)});
        EXPECT_EQ(dump(out + std::to_string(seed) + source), dump(source)) << "seed " << seed;
    }
}

TEST_F(Restore, TakesOnlyWhatIsNamed) {
    done({"create", "--name", "one", source});
    done({"restore", "one", out, "--path", source + "/sub/", "--path", source + "/a"});
    EXPECT_EQ(described(restored() + "/sub"), described(source + "/sub"));
    EXPECT_EQ(read(restored() + "/a"), "first");
    const Outcome unknown = ctl({"restore", "one", out + "2", "--path", source + "/su"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.err.find("does not contain " + source + "/su\n"), std::string::npos);
    EXPECT_FALSE(fs::exists(out + "2"));
}

TEST_F(Restore, RefusesWithoutTouchingAnything) {
    done({"create", "--name", "one", source});
    fs::create_directories(out);
    fs::create_directory(base() / "elsewhere");
    const std::string first = *fs::path(source).relative_path().begin();
    const struct {
        const char* what;
        std::string before;  // a script that is run in the destination
        std::vector<std::string> options;
        std::string says;
    } cases[] = {
        {"something there", "touch there", {}, "it is not empty"},
        {"a directory for a file", "mkdir -p ." + source + "/a", {"--overwrite"}, "another type"},
        {"a file for a directory", "touch " + first, {"--overwrite"}, "another type"},
        {"a link for a directory", "ln -s ../elsewhere " + first, {"--overwrite"}, "another type"},
    };
    for (const auto& c : cases) {
        ASSERT_EQ(shell("cd " + out + " && " + c.before), "") << c.what;
        const auto before = dump(base());
        std::vector<std::string> arguments = {"restore", "one", out};
        arguments.insert(arguments.end(), c.options.begin(), c.options.end());
        const Outcome outcome = ctl(arguments);
        EXPECT_EQ(outcome.status, 1) << c.what;
        EXPECT_NE(outcome.err.find(c.says), std::string::npos) << c.what << outcome.err;
        EXPECT_EQ(dump(base()), before) << c.what;
        EXPECT_EQ(shell("find " + out + " -mindepth 1 -delete"), "");
    }
    EXPECT_NE(ctl({"restore", "one", store + "/new"}).err.find("it is in the store"),
              std::string::npos);
    EXPECT_EQ(stored(), "one\n");
    EXPECT_EQ(ctl({"restore", "one", out + "/no/parent"}).status, 1);
    std::vector<std::string> locked = words({"restore", "one", out});
    locked.insert(locked.begin(), {"flock", out});
    EXPECT_NE(runProcess(locked).err.find("another call"), std::string::npos);
    EXPECT_TRUE(fs::is_empty(out));
}

TEST_F(Restore, WritesThroughNoLinkToAFile) {
    done({"create", "--name", "one", source});
    write(out + "-precious", "mine");
    ASSERT_EQ(shell("mkdir -p " + restored() + " && ln -s " + out + "-precious " + restored() +
                    "/a && ln " + out + "-precious " + restored() + "/other"),
              "");
    const std::string told = done({"restore", "--overwrite", "--dry-run", "one", out});
    EXPECT_NE(told.find("would restore"), std::string::npos);
    EXPECT_TRUE(fs::is_symlink(restored() + "/a"));
    done({"restore", "--overwrite", "one", out});
    EXPECT_EQ(read(restored() + "/a"), "first");
    EXPECT_EQ(read(out + "-precious"), "mine");
}

// The usable part of a damaged snapshot is restored, and the rest is reported.
TEST_F(Restore, SavesWhatADamagedSnapshotHas) {
    ASSERT_EQ(shell("cd " + source + " && mkdir gone && touch gone/x && echo 1 >short && " +
                    "echo 2 >changed && ln short twin && echo y >type"),
              "");
    done({"create", "--digests", "--name", "one", source});
    ASSERT_EQ(shell("cd " + store + "/one/snapshot" + source + " && rm -r gone sub/b type && " +
                    "mkdir type && : >short && echo 3 >changed && " +
                    "sed -i 's/\"whole\": true/\"whole\": false/' " + store + "/one/info.json"),
              "");
    const Outcome outcome = ctl({"restore", "one", out});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_NE(outcome.out.find(": 2 files, 2 directories, 0 links, 7 B\n"), std::string::npos)
        << outcome.out;  // a and twin
    EXPECT_EQ(read(restored() + "/a"), "first");
    EXPECT_EQ(read(restored() + "/changed"), "3\n");
    EXPECT_EQ(read(restored() + "/short") + read(restored() + "/twin"), "1\n");
    for (const char* line :
         {"error: ", "/gone: the snapshot has lost it\n", "/sub/b: the snapshot has lost it\n",
          "/type: the snapshot has another type", "/short: the snapshot has another size",
          "/changed: the content that was restored", "/twin: restored as a file of its own",
          "note: it is not whole"}) {
        EXPECT_NE(outcome.err.find(line), std::string::npos) << line << outcome.err;
    }
}

TEST_F(Restore, GivesNobodyTheRightsOfAnother) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to give files to another user";
    }
    for (const fs::path& directory : {base(), top}) {
        fs::permissions(directory, static_cast<fs::perms>(0755));
    }
    ASSERT_EQ(shell("cd " + source + " && chown -R 65534 . && chown 0 a && chmod 6777 a && mkdir " +
                    store + " " + out + " && chmod 700 " + store + " && chown 65534 " + store +
                    " " + out),
              "");
    const auto as_nobody = [](const std::vector<std::string>& arguments) {
        std::vector<std::string> command = {"setpriv", "--reuid", "65534", "--clear-groups"};
        const std::vector<std::string> call = words(arguments);
        command.insert(command.end(), call.begin(), call.end());
        return runProcess(command);
    };
    const Outcome created = as_nobody({"create", "--name", "one", source});
    ASSERT_EQ(created.status, 0) << created.err;
    const Outcome outcome = as_nobody({"restore", "one", out});
    EXPECT_EQ(outcome.status, 3);
    EXPECT_NE(outcome.err.find("/a: cannot set the owner"), std::string::npos) << outcome.err;
    EXPECT_EQ(modeOf(restored() + "/a"), 0777);
}

// Each system call by which a restore changes something fails in one run, and is the last one
// before a kill in another.
class RestoreIsDisturbed : public Restore {
  protected:
    // Restores with a fault that strace makes. Returns the exit status.
    int disturbed(const std::string& call, const std::string& fault, int when) const {
        // LeakSanitizer does not work under a tracer.
        std::vector<std::string> command = {
            "env",
            "ASAN_OPTIONS=detect_leaks=0",
            "strace",
            "-qqo",
            "/dev/null",
            "-e",
            "inject=" + call + ":" + fault + ":when=" + std::to_string(when)};
        const auto restore = words({"restore", "one", out});
        command.insert(command.end(), restore.begin(), restore.end());
        return runProcess(command).status;
    }
    void expectWhole() const {
        EXPECT_EQ(described(restored()), expected);
        EXPECT_FALSE(fs::exists(partial()));
    }
    // An incomplete restore has its partial tree beside it, and another restore completes it.
    void expectPartial() const {
        std::vector<std::string> again = {"restore", "one", out};
        if (fs::exists(fs::path(out) / *fs::path(source).relative_path().begin())) {
            EXPECT_TRUE(fs::exists(partial()));
            EXPECT_NE(ctl(again).err.find("was cut short"), std::string::npos);
            again.insert(again.begin() + 1, "--overwrite");
        }
        done(again);
        expectWhole();
    }
    fs::path partial() const {
        return out + "/.f2fs_snapshot_restore.partial";
    }

    std::string expected;
};

TEST_F(RestoreIsDisturbed, AndIsWholeOrNotThere) {
    if (runProcess({"strace", "-qqo", "/dev/null", "true"}).status != 0) {
        GTEST_SKIP() << "needs strace";
    }
    ASSERT_EQ(shell("cd " + source + " && ln a hard && ln -s a link && chmod 500 sub"), "");
    done({"create", "--name", "one", source});
    expected = described(source);
    for (const char* call : {"mkdirat", "pwrite64", "/^ftruncate", "linkat", "symlinkat", "syncfs",
                             "renameat", "unlinkat"}) {
        for (const std::string fault : {"error=EIO", "signal=SIGKILL"}) {
            int when = 1;
            for (; when < 100; ++when) {
                SCOPED_TRACE(std::string(call) + " " + fault + " " + std::to_string(when));
                const int status = disturbed(call, fault, when);
                if (status == 0) {
                    break;
                }
                if (fault == "error=EIO" && std::string(call) != "unlinkat") {
                    EXPECT_FALSE(fs::exists(out));
                }
                expectPartial();
                fs::remove_all(out);
            }
            EXPECT_GT(when, 1) << call;
            expectWhole();
            fs::remove_all(out);
        }
    }
}

TEST_F(Restore, LeavesNothingOnAFullDisk) {
    write(source + "/big", std::string(3 << 20, 'x'));
    done({"create", "--name", "one", source});
    fs::create_directory(out);
    if (mount("none", out.c_str(), "tmpfs", 0, "size=1m") != 0) {
        GTEST_SKIP() << "cannot mount a small file system";
    }
    const Outcome outcome = ctl({"restore", "one", out});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("big: No space left"), std::string::npos) << outcome.err;
    EXPECT_TRUE(fs::is_empty(out));
    umount(out.c_str());
}

}  // namespace
