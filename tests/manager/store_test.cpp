// SPDX-License-Identifier: Apache-2.0
// What the manager refuses, and what check reports.
#include <sys/mount.h>

#include <cstring>

#include "tests/manager/manager_on_volume.h"
#include "tests/manager/plain_c.h"

namespace {

class StoreTest : public ManagerOnVolume {
  protected:
    int32_t reopen(const std::string& path, uint32_t flags = 0) const {
        f2fs_snapshot_store* opened = nullptr;
        f2fs_snapshot_error error = F2FS_SNAPSHOT_ERROR_INIT;
        const int32_t code = f2fs_snapshot_store_open(path.c_str(), flags, &opened, &error);
        EXPECT_EQ(code, error.code);
        if (opened != nullptr) {
            EXPECT_EQ(fs::path(f2fs_snapshot_store_path(opened)), fs::canonical(path));
        }
        f2fs_snapshot_store_close(opened);
        return code;
    }
    std::vector<std::string> checked() const {
        const auto result = check({source});
        EXPECT_EQ(result.code, F2FS_SNAPSHOT_OK) << result.error.message;
        return result.value ? findingsOf(*result.value, source) : std::vector<std::string>();
    }
};

TEST_F(StoreTest, IsForItsOwnerOnly) {
    EXPECT_EQ(modeOf(at("store")), 0700);
    EXPECT_EQ(reopen(at("store")), F2FS_SNAPSHOT_OK);
    fs::create_directory_symlink(at("store"), at("link"));
    EXPECT_EQ(reopen(at("link"), F2FS_SNAPSHOT_STORE_CREATE), F2FS_SNAPSHOT_OK);
    EXPECT_EQ(reopen(""), F2FS_SNAPSHOT_ERROR_ARGUMENT);
    EXPECT_EQ(reopen(at("none")), F2FS_SNAPSHOT_ERROR_SYSTEM);
    EXPECT_EQ(reopen(at("none/none"), F2FS_SNAPSHOT_STORE_CREATE), F2FS_SNAPSHOT_ERROR_SYSTEM);
    EXPECT_EQ(reopen(at("store"), 2), F2FS_SNAPSHOT_ERROR_ARGUMENT);
    for (const mode_t mode : {0750U, 0702U, 0701U}) {
        chmod(at("store").c_str(), mode);
        EXPECT_EQ(reopen(at("store")), F2FS_SNAPSHOT_ERROR_STORE) << mode;
    }
    chmod(at("store").c_str(), 0700);
    EXPECT_EQ(chown(at("store").c_str(), 1, 1), 0);
    EXPECT_EQ(reopen(at("store")), F2FS_SNAPSHOT_ERROR_STORE);
}

TEST_F(StoreTest, NamesAndSourcesThatAreRefused) {
    const std::string names[] = {
        "", ".", "..", ".a", "a/b", "/a", "a\nb", "\x7F", std::string(101, 'a')};
    for (const std::string& name : names) {
        EXPECT_EQ(create(name).code, F2FS_SNAPSHOT_ERROR_NAME) << name;
        EXPECT_EQ(verify(name).code, F2FS_SNAPSHOT_ERROR_NAME) << name;
        EXPECT_EQ(destroy(name), F2FS_SNAPSHOT_ERROR_NAME) << name;
    }
    EXPECT_EQ(create("-", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {}).code,
              F2FS_SNAPSHOT_ERROR_ARGUMENT);
    runProcess({"sh", "-c",
                "cd " + at(".") +
                    " && mkdir -p store/in out source/m && touch file && "
                    "ln -s source link && ln -s store/in into"});
    const std::vector<std::string> refused[] = {
        {at("none")},
        {at("file")},
        {"/"},
        {top},
        {at("store")},
        {at("store/in")},
        {at("into")},
        {source, source},
        {source, source + "/"},
        {source, at("link")},
        {source, source + "/m"},
        {source + "/m", at("out"), source},
        {source, at("../")},
        {"/usr"},
    };
    for (const std::vector<std::string>& sources : refused) {
        const auto made = create("a", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, sources);
        EXPECT_EQ(made.code, F2FS_SNAPSHOT_ERROR_SOURCE) << testing::PrintToString(sources);
        EXPECT_EQ(std::string(made.error.message).rfind("cannot snapshot ", 0), 0U)
            << made.error.message;
    }
    EXPECT_EQ(create("a", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {at("link")}).code, F2FS_SNAPSHOT_OK);
    EXPECT_EQ(create("a").code, F2FS_SNAPSHOT_ERROR_EXISTS);
    expectIntact("a");
    EXPECT_EQ(leftovers(), "");
}

TEST_F(StoreTest, StructuresOfOtherSizes) {
    f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    options.size = 0;
    EXPECT_EQ(create("a", options, {source}).code, F2FS_SNAPSHOT_ERROR_ARGUMENT);
    options.strict = 1;
    write(source + "/f", "");
    fs::create_hard_link(source + "/f", source + "/g");
    options.size = offsetof(f2fs_snapshot_create_options, strict);  // an older caller's
    EXPECT_EQ(create("a", options, {source}).code, F2FS_SNAPSHOT_OK);
    options.size = sizeof options + 8;  // a newer one's
    EXPECT_EQ(create("b", options, {source}).code, F2FS_SNAPSHOT_ERROR_NOT_WHOLE);
    EXPECT_EQ(f2fs_snapshot_show(store, nullptr, nullptr, nullptr), F2FS_SNAPSHOT_ERROR_ARGUMENT);
    const char* none[] = {nullptr};
    EXPECT_EQ(f2fs_snapshot_create(store, none, 1, nullptr, nullptr, nullptr),
              F2FS_SNAPSHOT_ERROR_ARGUMENT);
}

// Damage is reported, and affects no other snapshot.
TEST_F(StoreTest, DamagedSnapshots) {
    const struct {
        const char* file;
        const char* script;
        const char* says;
    } damages[] = {
        {"info.json", "rm info.json", "No such file"},
        {"info.json", "rm info.json; mkdir info.json", "Is a directory"},
        {"info.json", "rm info.json; ln -s ../b/info.json info.json", "links"},
        {"info.json", "echo '{\"name\": 1,}' >info.json", "no JSON from byte 12 on"},
        {"info.json", "echo '{\"format\": 1}' >info.json", "\"name\" is missing"},
        {"info.json", "sed -i 's/\"format\": 1/\"format\": 2/' info.json", "unknown format 2"},
        {"info.json", "sed -i 's/\"name\": .*/\"name\": \"%4\",/' info.json", "in \"name\", %4"},
        {"info.json", "sed -i 's/\"files\": 0/\"files\": -1/' info.json", "\"files\" has a value"},
        {"info.json", "sed -i 's/\"whole\": true/\"whole\": 1/' info.json",
         "\"whole\" has a value"},
        {"info.json", "sed -i 's/\"findings\": .*/\"findings\": [{}],/' info.json",
         "\"findings/0/path\""},
        {"info.json", "sed -i 's/\"sources\": ./\"sources\": 0, \"other\": [/' info.json",
         "no list \"sources\""},
        {"manifest.mtree", "rm manifest.mtree", "No such file"},
        {"manifest.mtree", "echo 'a b=c' >manifest.mtree; head -c 99 /dev/zero >>manifest.mtree",
         ""},
        {"manifest.mtree", "sed -i 's,^[.]/,x/,' manifest.mtree", "begin with"},
    };
    ASSERT_EQ(create("b").code, F2FS_SNAPSHOT_OK);
    for (const auto& [file, script, says] : damages) {
        SCOPED_TRACE(script);
        ASSERT_EQ(create("a").code, F2FS_SNAPSHOT_OK);
        EXPECT_EQ(shell("cd " + at("store/a") + "; " + script), "");
        const bool is_listed = strcmp(file, "info.json") != 0;
        EXPECT_EQ(list(), is_listed ? (std::vector<std::string>{"b", "a"})
                                    : (std::vector<std::string>{"b", "a 13"}));
        const auto verified = verify("a");
        EXPECT_EQ(verified.code, F2FS_SNAPSHOT_ERROR_FORMAT);
        EXPECT_EQ(verified.error.path, at("store/a/") + file);
        EXPECT_NE(strstr(verified.error.message, says), nullptr) << verified.error.message;
        expectIntact("b");
        EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_OK);
    }
    EXPECT_EQ(verify("a").code, F2FS_SNAPSHOT_ERROR_NOT_FOUND);
    EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_ERROR_NOT_FOUND);
    write(at("store/stray"), "");
    EXPECT_EQ(list(), (std::vector<std::string>{"b", "stray 13"}));
}

TEST_F(StoreTest, VerifyFindsEachDifference) {
    shell("cd " + source + "; mkdir m; printf old | tee a b c d >m/e; ln -s a l");
    f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    options.digests = 1;
    ASSERT_EQ(create("a", options, {source}).code, F2FS_SNAPSHOT_OK);
    shell("cd " + mirror("a") +
          "; printf xxx >a; rm b; mkfifo b; printf more >>c; rm -r m; touch n;"
          " ln -sfn b l; touch ../other");
    const auto result = verify("a");
    ASSERT_EQ(result.code, F2FS_SNAPSHOT_OK) << result.error.message;
    EXPECT_EQ(findingsOf(*result.value, source),
              (std::vector<std::string>{"41 " + at("other"), "45 a", "42 b", "43 c", "44 l", "40 m",
                                        "40 m/e", "41 n"}));
}

// The next call removes what a killed call has left, and follows no link.
TEST_F(StoreTest, LeftoversAreRemoved) {
    shell("cd " + at(".") +
          "; mkdir -p out store/.a.partial/m store/.b.removed/m; printf x >out/f;"
          " ln -s ../../../out store/.a.partial/m/l; ln -s ../out store/.c.removed;"
          " touch store/.a.partial/m/f store/.keep; chmod 0 store/.b.removed/m");
    EXPECT_EQ(create("a").code, F2FS_SNAPSHOT_OK);
    EXPECT_EQ(leftovers(), "./.keep\n");
    EXPECT_EQ(read(at("out/f")), "x");
}

struct Obstacle {
    const char* script;
    std::vector<std::string> findings;
};

// check reports exactly the obstacles that create refuses.
TEST_F(StoreTest, CheckAgreesWithCreate) {
    const bool has_room = fs::space(top).available > UINT64_C(4) << 30;
    const Obstacle obstacles[] = {
        {"true", {}},
        {"touch f; ln -s none l; mkdir m", {}},
        {"mkfifo p", {"2 p"}},
        {"mkdir m; mknod m/d c 1 3; mkfifo m/p", {"2 m/d", "2 m/p"}},
        {has_room ? "truncate -s 2147483647 f" : "true", {}},
        {"truncate -s 2147483648 f", {"3 f"}},
        {"truncate -s 4294967295 f", {"3 f"}},
        {"truncate -s 4294967296 f", {"3 f"}},
        {"touch f; ln f g", {"8 f", "8 g"}},
        {"touch f; ln f ../g", {}},
        {"cp /bin/sleep s; ./s 60 & echo $! >../pid; until [ $(cat /proc/$!/comm) = s ]; do :; "
         "done",
         {"4 s"}},
    };
    for (const Obstacle& row : obstacles) {
        SCOPED_TRACE(row.script);
        EXPECT_EQ(shell("cd " + source + " && " + row.script), "");
        const std::vector<std::string> found = checked();
        EXPECT_EQ(found, row.findings);
        const bool fails = !found.empty() && found[0][0] != '8';
        const auto made = create("a");
        EXPECT_EQ(made.code == F2FS_SNAPSHOT_OK, !fails) << made.error.message;
        if (fails) {
            EXPECT_EQ(made.error.path, source + "/" + found[0].substr(2)) << made.error.message;
        } else {
            EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_OK);
        }
        shell("cd " + at(".") + "; [ ! -e pid ] || kill $(cat pid); rm -rf pid g source/*");
    }
    // A path of the greatest length is too long once it is in the store.
    std::string path = source + "/d";
    while (path.size() < 4090 - 255) {
        path += "/" + std::string(200, 'd');
    }
    EXPECT_EQ(
        shell("mkdir -p " + path + "; touch " + path + "/" + std::string(4090 - path.size(), 'f')),
        "");
    const std::vector<std::string> found = checked();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].rfind("6 ", 0), 0U);
    EXPECT_EQ(create("a").code, F2FS_SNAPSHOT_ERROR_SOURCE);
}

TEST_F(StoreTest, CheckAgreesWithCreateOnRandomTrees) {
    int refused = 0;
    for (uint32_t seed = 1; seed <= 12 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        const std::vector<fs::path> directories = fillTree(source, seed);
        Random random(seed);
        std::vector<std::string> obstacles;
        for (size_t count = random.below(3); count > 0; --count) {
            const fs::path path = directories[random.below(directories.size())] /
                                  ("obstacle" + std::to_string(count));
            const bool is_pipe = random.below(2) == 0;
            if (is_pipe) {
                ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
            } else {
                write(path, "");
                fs::resize_file(path, UINT64_C(3) << 30);
            }
            obstacles.push_back((is_pipe ? "2 " : "3 ") + path.lexically_relative(source).string());
        }
        std::vector<std::string> found = checked();
        const bool fails = !obstacles.empty();
        const auto made = create("a");
        EXPECT_EQ(made.code, fails ? F2FS_SNAPSHOT_ERROR_SOURCE : F2FS_SNAPSHOT_OK)
            << made.error.message;
        if (fails) {
            EXPECT_EQ(made.error.path, source + "/" + found[0].substr(2));
        }
        std::sort(found.begin(), found.end());
        std::sort(obstacles.begin(), obstacles.end());
        EXPECT_EQ(found, obstacles);
        refused += fails ? 1 : 0;
        destroy("a");
        fs::remove_all(source);
        fs::create_directory(source);
    }
    EXPECT_GT(refused, 0);
    EXPECT_LT(refused, 12);
}

TEST_F(StoreTest, CheckReportsPathsOfSourcesAndMounts) {
    fs::create_directories(at("a;b/m"));
    const auto noted = check({at("a;b")});
    ASSERT_EQ(noted.code, F2FS_SNAPSHOT_OK);
    EXPECT_EQ(findingsOf(*noted.value, at("a;b")), std::vector<std::string>{"11 ."});
    EXPECT_EQ(create("a", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {at("a;b")}).code, F2FS_SNAPSHOT_OK);
    const std::string longest(254 - at("store/.a.partial/snapshot").size() - at("").size(), 'l');
    const std::pair<const char*, std::string> lengths[] = {{"b", longest}, {"c", longest + "l"}};
    for (const auto& [name, directory] : lengths) {
        fs::create_directory(at(directory));
        EXPECT_EQ(create(name, F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {at(directory)}).code,
                  directory == longest ? F2FS_SNAPSHOT_OK : F2FS_SNAPSHOT_ERROR_SOURCE);
    }
    fs::create_directory(source + "/m");
    if (mount(at("a;b").c_str(), (source + "/m").c_str(), "", MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "mounting is not permitted here";
    }
    EXPECT_EQ(checked(), std::vector<std::string>{"9 m"});
    EXPECT_EQ(create("c").code, F2FS_SNAPSHOT_ERROR_SOURCE);
    umount2((source + "/m").c_str(), MNT_DETACH);
    // A store that cannot be written.
    f2fs_snapshot_store_close(store);
    EXPECT_EQ(shell("cd " + at(".") +
                    " && mount --bind store store && "
                    "mount -o remount,bind,ro store"),
              "");
    openStore();
    EXPECT_EQ(checked(), std::vector<std::string>{"5 " + at("store")});
    umount2(at("store").c_str(), MNT_DETACH);
}

// A volume without the driver, and another one than the store's.
TEST_F(StoreTest, OtherVolumes) {
    if (!isEmulated()) {
        GTEST_SKIP() << "a device has its temporary files on the volume under test";
    }
    const std::string plain = volume.root() / "plain";
    fs::create_directories(plain + "/source");
    const auto other = check({plain + "/source"});
    ASSERT_EQ(other.code, F2FS_SNAPSHOT_OK);
    EXPECT_EQ(findingsOf(*other.value, plain)[0], "10 source");
    f2fs_snapshot_store_close(store);
    ASSERT_EQ(f2fs_snapshot_store_open((plain + "/store").c_str(), F2FS_SNAPSHOT_STORE_CREATE,
                                       &store, nullptr),
              F2FS_SNAPSHOT_OK);
    const auto made = create("a", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {plain + "/source"});
    EXPECT_EQ(made.code, F2FS_SNAPSHOT_ERROR_UNSUPPORTED) << made.error.message;
}

TEST_F(StoreTest, AProgramInC) {
    write(source + "/f", "content");
    EXPECT_EQ(snapshotFromC(at("store").c_str(), source.c_str(), "from C"), 0);
    expectIntact("from C");
}

}  // namespace
