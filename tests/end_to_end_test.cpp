// The real tool and library on a mounted emulator.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "emulator_mount.h"
#include "process.h"
#include "tree_gen.h"

namespace {

class EndToEndTest : public EmulatedVolume {
  protected:
    void SetUp() override {
        EmulatedVolume::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        source = at("source");
        target = at("target");
        fs::create_directory(source);
    }
    Outcome tool(const std::vector<std::string>& arguments) {
        std::vector<std::string> command = {F2FS_SNAPSHOT_TOOL_PATH};
        command.insert(command.end(), arguments.begin(), arguments.end());
        return runProcess(command);
    }
    // The tool's verdict, with the log for a failed comparison.
    int status(const std::vector<std::string>& arguments) {
        const Outcome outcome = tool(arguments);
        EXPECT_EQ(outcome.out == "execute sucess\n", outcome.status == 0) << outcome.out;
        last_log = outcome.err;
        return outcome.status;
    }
    std::string mirror() const {
        return target + "/snapshot" + source;
    }

    std::string source;
    std::string target;
    std::string last_log;
};

TEST_F(EndToEndTest, ATreeOfEveryKindOfEntry) {
    const std::string names[] = {"a b",      " ",   "new\nline",          "semi;colon",
                                 "\xFF\xFE", "...", std::string(255, 'n')};
    for (const std::string& name : names) {
        fs::create_directory(source + "/" + name);
        write(source + "/" + name + "/" + name, "content of " + name);
    }
    write(source + "/empty", "");
    fs::create_symlink("nowhere", source + "/dangling");
    fs::create_symlink(source + "/empty", source + "/absolute");
    fs::create_directory_symlink("a b", source + "/folder link");
    fs::create_symlink(std::string(4095, 'x'), source + "/longest link");
    fs::path deep = source;
    for (int level = 0; level < 60; ++level) {
        deep /= "level " + std::to_string(level);
    }
    fs::create_directories(deep);
    write(deep / "bottom", "deep");

    const std::vector<std::string> before = dump(source);
    ASSERT_EQ(status({"pre", source}), 0) << last_log;
    ASSERT_EQ(status({"create", source, target}), 0) << last_log;
    EXPECT_EQ(dump(mirror()), before);
    EXPECT_EQ(dump(source), before);
    EXPECT_EQ(modeOf(mirror() + "/empty"), 0440);

    write(source + "/empty", "no longer");
    fs::remove_all(source + "/a b");
    EXPECT_EQ(dump(mirror()), before) << "the snapshot does not follow the source";
    ASSERT_EQ(status({"destroy", target}), 0) << last_log;
    EXPECT_TRUE(fs::is_empty(target));
    EXPECT_EQ(status({"destroy", target}), 254);
}

TEST_F(EndToEndTest, ATargetInsideItsSource) {
    write(source + "/file", "content");
    target = source + "/target";
    const std::string file = dump(source)[0];
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(status({"create", source, target}), 0) << last_log;
        EXPECT_EQ(dump(mirror()), (std::vector<std::string>{"dir target", file}));
    }
}

TEST_F(EndToEndTest, WhatASnapshotDoesNotTake) {
    ASSERT_EQ(mkfifo((source + "/pipe").c_str(), 0600), 0);
    EXPECT_EQ(status({"pre", source}), 0) << last_log;
    EXPECT_EQ(status({"create", source, target}), 234);
    EXPECT_NE(last_log.find("INVALID file_type = 1 return EINVAL\n"), std::string::npos);
    EXPECT_TRUE(fs::is_empty(target)) << "the root is removed again";
    fs::remove(source + "/pipe");

    write(source + "/big", "head");
    const std::pair<uintmax_t, int> sizes[] = {
        {3ULL << 30, 255}, {4ULL << 30, 255}, {5ULL << 30, 0}};
    for (const auto& [size, expected] : sizes) {
        fs::resize_file(source + "/big", size);
        EXPECT_EQ(status({"create", source, target}), expected) << size;
        EXPECT_EQ(last_log.find("fallocate failed dstfilepath = " + mirror() + "/big") !=
                      std::string::npos,
                  expected != 0);
        EXPECT_EQ(fs::is_empty(target), expected != 0);
    }
    EXPECT_EQ(fs::file_size(mirror() + "/big"), 5ULL << 30);
    std::ifstream copy(mirror() + "/big", std::ios::binary);
    std::string head(5, '?');
    copy.read(head.data(), 5);
    EXPECT_EQ(head, std::string("head\0", 5));
}

void fillWithFiles(const std::string& source, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        const std::string folder = source + "/folder " + std::to_string(i / 100);
        if (i % 100 == 0) {
            fs::create_directory(folder);
        }
        write(folder + "/" + std::to_string(i), std::string(8192, static_cast<char>('a' + i % 26)));
    }
}

TEST_F(EndToEndTest, ManyFiles) {
    const bool long_form = std::getenv("F2FS_SNAPSHOT_LONG") != nullptr;
    fillWithFiles(source, long_form ? 100'000 : 10'000);
    EXPECT_EQ(status({"pre", source}), 0);
    EXPECT_EQ(status({"create", source, target}), 0);
    EXPECT_EQ(dump(mirror()), dump(source));
    EXPECT_EQ(status({"destroy", target}), 0);
    EXPECT_TRUE(fs::is_empty(target));
}

// The system calls of a run by name, as `strace -f -c` counts them. Left out are the log's own
// calls, and those that come once for many files.
std::map<std::string, long> countCalls(const std::vector<std::string>& command,
                                       const std::string& summary) {
    std::vector<std::string> traced = {"strace", "-f", "-c", "-o", summary};
    traced.insert(traced.end(), command.begin(), command.end());
    EXPECT_EQ(runProcess(traced).status, 0);
    const std::set<std::string> left_out = {"write",  "writev", "getpid",        "gettid",
                                            "brk",    "mmap",   "clock_gettime", "getdents64",
                                            "munmap", "total"};
    std::map<std::string, long> counts;
    std::ifstream lines(summary);
    for (std::string line; std::getline(lines, line);) {
        // share, seconds, microseconds per call, calls, errors (or nothing), name
        std::istringstream fields(line);
        std::string field[5], name;
        fields >> field[0] >> field[1] >> field[2] >> field[3] >> field[4];
        name = fields >> name ? name : field[4];
        if (!field[3].empty() && isdigit(field[3][0]) != 0 && left_out.count(name) == 0) {
            counts[name.find("stat") != std::string::npos ? "stat" : name] += std::stol(field[3]);
        }
    }
    return counts;
}

TEST_F(EndToEndTest, NoCallMoreThanNamed) {
#ifdef F2FS_SNAPSHOT_SANITIZED
    GTEST_SKIP() << "a sanitizer makes calls of its own";
#endif
    if (std::system("strace -o /dev/null true 2>/dev/null") != 0) {
        GTEST_SKIP() << "strace is missing or not permitted";
    }
    const std::string tool_path = F2FS_SNAPSHOT_TOOL_PATH;
    const struct {
        const char* command;
        bool prepared;
        const char* content;
        std::string calls;  // of 100 files
    } table[] = {
        {"pre", false, "x", "close 200, ioctl 400, openat 200, "},
        {"pre", true, "x", "close 100, ioctl 100, openat 100, "},
        // Prepared already: 3 calls, the snapshot: 9 or 8, the check: 4.
        {"create", true, "x", "close 400, fallocate 100, ioctl 500, openat 400, stat 200, "},
        {"create", true, "", "close 400, ioctl 500, openat 400, stat 200, "},
        {"create", false, "x", "close 500, fallocate 100, ioctl 800, openat 500, stat 200, "},
        {"destroy", true, "x", "unlink 100, "},
    };
    for (const auto& row : table) {
        std::map<std::string, long> difference;
        for (const int count : {50, 150}) {
            fs::remove_all(source);
            fs::create_directory(source);
            for (int i = 0; i < count; ++i) {
                write(source + "/" + std::to_string(i), row.content);
            }
            const bool destroys = row.command == std::string("destroy");
            if (row.prepared) {
                ASSERT_EQ(status({"pre", source}), 0);
            }
            if (destroys) {
                ASSERT_EQ(status({"create", source, target}), 0);
            }
            std::vector<std::string> command = {tool_path, row.command};
            if (!destroys) {
                command.push_back(source);
            }
            if (row.command != std::string("pre")) {
                command.push_back(target);
            }
            for (const auto& [name, calls] : countCalls(command, volume.root() / "summary")) {
                difference[name] += count == 50 ? -calls : calls;
            }
            fs::remove_all(target);
        }
        std::string calls;
        for (const auto& [name, number] : difference) {
            if (number != 0) {
                calls += name + " " + std::to_string(number) + ", ";
            }
        }
        EXPECT_EQ(calls, row.calls) << row.command;
    }
}

TEST_F(EndToEndTest, TheBuiltInTestCase) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, for a root folder of its own";
    }
    const std::string media = at("media/0");
    fs::create_directories(media + "/DCIM");
    write(media + "/DCIM/photo", "photo");
    const std::string root = (volume.root() / "root").string();
    fs::create_directory(root);
    const auto run = [&] {
        // In a mount namespace of its own the fixed paths exist and nothing else changes.
        const std::string script =
            "mount -t tmpfs none '" + root + "' && cd '" + root + "' && for entry in /*; do " +
            "if [ -L $entry ]; then cp -a $entry .$entry; elif [ -d $entry ]; then " +
            "mkdir -p .$entry && mount --rbind $entry .$entry; fi; done && mkdir -p data && " +
            "mount --bind '" + volume.mount().string() + "' data && exec chroot . " +
            F2FS_SNAPSHOT_TOOL_PATH + " testcase";
        return runProcess({"unshare", "--mount", "sh", "-c", script});
    };
    Outcome outcome = run();
    EXPECT_EQ(outcome.out, "execute fail ret = -2\n") << outcome.err;
    EXPECT_NE(outcome.err.find("---defaulttestcase enter---\n"), std::string::npos);
    EXPECT_NE(outcome.err.find("Failed to open dir /data/media/0/Documents\n"), std::string::npos);
    EXPECT_EQ(outcome.err.find("---defaulttestcase exit---\n"), std::string::npos);

    fs::create_directories(media + "/Documents");
    outcome = run();
    EXPECT_EQ(outcome.out, "execute sucess\n") << outcome.err;
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.err.find("F2FS_IOC_SNAPSHOT_CREATE ioctl create success\n"),
              std::string::npos);
    EXPECT_NE(outcome.err.find("---defaulttestcase exit---\n"), std::string::npos);
    EXPECT_TRUE(fs::is_empty(media + "/snapshotdir_001"));
}

}  // namespace
