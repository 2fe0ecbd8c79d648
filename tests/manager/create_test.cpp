// SPDX-License-Identifier: Apache-2.0
// The contents of the manager's snapshots, and its findings when names change meanwhile.
#include <dirent.h>
#include <dlfcn.h>
#include <linux/fs.h>
#include <linux/stat.h>
#include <stdarg.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/xattr.h>

#include <cstring>
#include <set>
#include <sstream>

#include "tests/manager/manager_on_volume.h"
#include "tests/stand_in.h"

namespace {

// Called for each reading of the clock of time stamps in this process. A result other than 0 is the
// time that is read.
std::function<int64_t()> coarse_clock;

// Called with the attributes that statx has read, and before the names of a directory are read.
std::function<void(struct statx& attributes)> after_statx;
std::function<void(int directory)> before_names;

}  // namespace

// The manager's calls come here.
STAND_IN("clock_gettime", int, standInClockGettime, clockid_t clock, timespec* time) {
    const int64_t given = clock == CLOCK_REALTIME_COARSE && coarse_clock ? coarse_clock() : 0;
    if (given != 0) {
        *time = {static_cast<time_t>(given / 1000000000), static_cast<long>(given % 1000000000)};
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
}

STAND_IN("syscall", long, standInSyscall, long number, ...) {
    va_list list;
    va_start(list, number);
    void* arguments[6];
    for (void*& argument : arguments) {
        argument = va_arg(list, void*);
    }
    va_end(list);
    static const auto next = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    const long ret = next(number, arguments[0], arguments[1], arguments[2], arguments[3],
                          arguments[4], arguments[5]);
    if (number == SYS_statx && ret == 0 && after_statx) {
        after_statx(*static_cast<struct statx*>(arguments[4]));
    }
    return ret;
}

STAND_IN("fdopendir", DIR*, standInFdopendir, int directory) {
    if (before_names) {
        before_names(directory);
    }
    static const auto next = reinterpret_cast<DIR* (*)(int)>(dlsym(RTLD_NEXT, "fdopendir"));
    return next(directory);
}

namespace {

class CreateTest : public ManagerOnVolume {
  protected:
    void inSource(const std::string& script) const {
        ASSERT_EQ(runProcess({"sh", "-c", "cd " + source + " && " + script}).status, 0) << script;
    }
    // Makes a snapshot that nothing disturbs.
    void expectWhole(const std::string& name) const {
        const auto made = create(name);
        ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
        EXPECT_EQ(made.value->whole, 1) << testing::PrintToString(findingsOf(*made.value, source));
        EXPECT_EQ(dump(mirror(name)), dump(source));
    }
};

TEST_F(CreateTest, TreesOfAllKindsAreWhole) {
    for (uint32_t seed = 1; seed <= 10 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        fs::remove_all(source);
        fs::create_directory(source);
        fillTree(source, seed);
        f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
        options.digests = static_cast<int32_t>(seed % 2);
        const std::string name = "tree " + std::to_string(seed);
        const auto made = create(name, options, {source});
        ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
        EXPECT_EQ(made.value->whole, 1) << testing::PrintToString(findingsOf(*made.value, source));
        EXPECT_EQ(made.value->files + made.value->directories + made.value->links,
                  dump(source).size() + 1);
        EXPECT_EQ(dump(mirror(name)), dump(source));
        expectIntact(name);
    }
    EXPECT_EQ(list().size(), 10U);
    EXPECT_EQ(leftovers(), "");
}

// More names than the manifest's writer holds in memory.
TEST_F(CreateTest, ATreeOfManyNamesIsWhole) {
    for (int i = 0; i < 5000; ++i) {
        fs::create_symlink("to " + std::to_string(i), source + "/" + std::to_string(i));
    }
    fs::create_directory(at("other"));
    ASSERT_EQ(create("a", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {source, at("other")}).code,
              F2FS_SNAPSHOT_OK);
    EXPECT_EQ(dump(mirror("a")), dump(source));
    expectIntact("a");
}

TEST_F(CreateTest, InfoIsCompleteAndStored) {
    inSource("mkdir m; printf abc >m/f; printf abcde >g; ln -s g l");
    fs::create_directory(at("other"));
    const auto made = create("a", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {source + "/", at("other")});
    ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
    f2fs_snapshot_info* shown = nullptr;
    ASSERT_EQ(f2fs_snapshot_show(store, "a", &shown, nullptr), F2FS_SNAPSHOT_OK);
    for (const f2fs_snapshot_info* info : {made.value.get(), shown}) {
        EXPECT_STREQ(info->name, "a");
        EXPECT_EQ(info->path, at("store/a/snapshot"));
        ASSERT_EQ(info->source_count, 2U);
        EXPECT_EQ(info->sources[0], at("other"));
        EXPECT_EQ(info->sources[1], source);
        EXPECT_EQ(info->files, 2U);
        EXPECT_EQ(info->directories, 3U);
        EXPECT_EQ(info->links, 1U);
        EXPECT_EQ(info->bytes, 8U);
        EXPECT_EQ(info->attempts, 1U);
        EXPECT_EQ(info->passes, 1U);
        EXPECT_EQ(info->whole, 1);
        EXPECT_LT(info->created, info->instant_earliest);
        EXPECT_LE(info->instant_earliest, info->instant_latest);
        EXPECT_EQ(info->has_digests, 0);
    }
    f2fs_snapshot_info_free(shown);
    uint64_t bytes = 0;
    EXPECT_EQ(f2fs_snapshot_disk_usage(store, "a", &bytes, nullptr), F2FS_SNAPSHOT_OK);
    EXPECT_GT(bytes, 0U);
}

TEST_F(CreateTest, TheManifestRecordsTheSources) {
    inSource(
        "printf abc >f; chmod 2640 f; chown 12:34 f; touch -d @1000000000.25 f; "
        "setfattr -n user.one -v 1 f; ln -s 'a b' l");
    ASSERT_EQ(create("a").code, F2FS_SNAPSHOT_OK);
    const std::string manifest = read(at("store/a/manifest.mtree"));
    for (const char* part : {"/f time=1000000000.250000000 mode=2640 gid=34 uid=12 inode=",
                             " type=file size=3\n", "type=link link=a\\040b"}) {
        EXPECT_NE(manifest.find(part), std::string::npos) << part << "\n" << manifest;
    }
    EXPECT_EQ(read(at("store/a/xattrs.dump")), "# file: ." + source + "/f\nuser.one=0x31\n\n");
}

TEST_F(CreateTest, TheManifestHasTheTimeOfTheContent) {
    inSource("printf old >a; touch -d @1000000000 a; printf old >b; touch -d @1000000000 b");
    HeldLibrary held(volume.root(), "opendir " + source, 2, [&] { inSource("printf new >a"); });
    ASSERT_EQ(create("a").code, F2FS_SNAPSHOT_OK);
    const std::string manifest = read(at("store/a/manifest.mtree"));
    EXPECT_EQ(manifest.find("/a time=1000000000.0"), std::string::npos) << manifest;
    EXPECT_NE(manifest.find("/b time=1000000000.0"), std::string::npos) << manifest;
}

// A change before an exact call of the library in the only attempt, and the findings about it.
struct Limit {
    const char* what;
    const char* meanwhile;
    std::vector<std::string> findings;  // none: the snapshot is whole
    const char* call = "opendir $";     // "$" is the source
    int nth = 2;                        // of this call: the start of the first check pass
};

const Limit LIMITS[] = {
    {"a write", "printf new >a", {}},
    {"a write to a file that is taken last", "printf new >m/c; printf new >z", {}},
    {"a marked file over another", "mv -T b a", {"23 .", "22 a", "21 b"}},
    {"a new file over another", "printf new >../new; mv -T ../new a", {"23 .", "22 a"}},
    {"saving through a temporary file", "printf new >a.tmp; mv -T a.tmp a", {"23 .", "22 a"}},
    {"log rotation", "mv -T b a; printf '' >b", {"23 .", "22 a", "22 b"}},
    {"a directory replaces another", "mv -T m ../n; mv -T ../o m", {"23 .", "22 m"}},
    {"two files exchange their names there and back",
     "mv -T a x; mv -T b a; mv -T x b; mv -T a x; mv -T b a; mv -T x b",
     {"23 ."}},
    {"a directory moved away and back", "mv -T m ../n; mv -T ../n m", {"23 .", "23 m"}},
    {"an empty directory made", "mkdir n", {"23 .", "20 n"}},
    {"a file made", "printf new >n", {"23 .", "20 n"}},
    {"a file deleted", "rm a", {"23 .", "21 a"}},
    {"a link made", "ln -s b n", {"23 .", "20 n"}},
    {"a link changed", "rm link; ln -s b link", {"23 .", "22 link"}},
    {"a link replaces a directory", "mv -T m ../n; ln -s ../n m", {"23 .", "22 m"}},
    {"another directory replaces the source", "mv -T $PWD ../n; mkdir $PWD", {"22 ."}},
    {"a change in a subdirectory", "rm m/c", {"23 m", "21 m/c"}},
};

TEST_F(CreateTest, ChangedNamesAreReportedOrTriedAgain) {
    for (const Limit& row : LIMITS) {
        SCOPED_TRACE(row.what);
        for (const uint32_t attempts : {1U, 2U}) {
            fs::remove_all(source);
            runProcess({"rm", "-rf", at("n"), at("o")});
            fs::create_directory(source);
            inSource("mkdir m ../o; printf old | tee a b m/c ../o/c >z; ln -s a link");
            std::string call = row.call;
            call.replace(call.find('$'), 1, source);
            const std::string name = attempts == 1 ? "first" : "second";
            HeldLibrary held(volume.root(), call, row.nth, [&] { inSource(row.meanwhile); });
            const auto made = create(name, attempts);
            EXPECT_TRUE(held.has_acted);
            ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
            const bool is_whole = row.findings.empty() || attempts == 2;
            EXPECT_EQ(made.value->whole, is_whole ? 1 : 0);
            EXPECT_EQ(made.value->attempts, row.findings.empty() ? 1U : attempts);
            if (is_whole) {
                EXPECT_EQ(dump(mirror(name)), dump(source));
            } else {
                EXPECT_EQ(findingsOf(*made.value, source), row.findings);
            }
            expectIntact(name);
            EXPECT_EQ(destroy(name), F2FS_SNAPSHOT_OK);
        }
    }
}

TEST_F(CreateTest, StrictFailsInsteadOfReporting) {
    inSource("printf old >a; printf old >b");
    f2fs_snapshot_create_options strict = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    strict.strict = 1;
    strict.attempts = 1;
    {
        HeldLibrary held(volume.root(), "opendir " + source, 2, [&] { inSource("mv b a"); });
        const auto made = create("a", strict, {source});
        EXPECT_EQ(made.code, F2FS_SNAPSHOT_ERROR_NOT_WHOLE);
        EXPECT_NE(strstr(made.error.message, "2 more changes"), nullptr) << made.error.message;
    }
    EXPECT_EQ(list().size() + leftovers().size(), 0U);
    inSource("ln a h; printf x >other");
    EXPECT_EQ(create("a", strict, {source}).code, F2FS_SNAPSHOT_ERROR_NOT_WHOLE);
    const auto made = create("a");
    ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK);
    EXPECT_EQ(findingsOf(*made.value, source), (std::vector<std::string>{"8 a", "8 h"}));
}

// The library's own call returns 0 in this case.
TEST_F(CreateTest, ADirectoryThatTheLastPassCannotRead) {
    inSource("mkdir m; printf old >m/c; printf old >z");
    HeldLibrary held(volume.root(), "opendir " + source + "/m", 2, [&] {
        inSource("mv m aside");  // back before the second listing, which sees that times differ
    });
    const auto made = create("a");
    ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
    EXPECT_EQ(made.value->whole, 0);
    const std::vector<std::string> findings = findingsOf(*made.value, source);
    EXPECT_EQ(std::count(findings.begin(), findings.end(), "24 m"), 1)
        << testing::PrintToString(findings);
}

// The library takes a read error for the end of the directory.
TEST_F(CreateTest, ADirectoryThatEndsTooEarly) {
    inSource("mkdir m; printf old >m/c; printf old >z");
    HeldLibrary held(volume.root(), "end " + source + "/m", 2, [] {});
    const auto made = create("a");
    ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
    EXPECT_EQ(findingsOf(*made.value, source), std::vector<std::string>{"24 ."});
}

// As on Android before API level 30: only the result of the check passes is known.
TEST_F(CreateTest, WithoutTheLibrarysLog) {
    inSource("mkdir m; printf old >m/c; printf old >z");
    setenv("F2FS_SNAPSHOT_TEST_NO_LOG", "1", 1);
    for (const bool is_disturbed : {false, true}) {
        // The additional check pass is the third reading.
        HeldLibrary held(volume.root(), "opendir " + source + "/m", is_disturbed ? 3 : 4,
                         [&] { inSource("printf new >m/c"); });
        const auto made = create("a");
        ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
        EXPECT_EQ(held.has_acted, is_disturbed);
        EXPECT_EQ(made.value->passes, 0U);
        EXPECT_EQ(findingsOf(*made.value, source),
                  is_disturbed ? std::vector<std::string>{"24 ."} : std::vector<std::string>());
        EXPECT_LT(made.value->instant_earliest, made.value->instant_latest);
        EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_OK);
    }
    unsetenv("F2FS_SNAPSHOT_TEST_NO_LOG");
}

TEST_F(CreateTest, WithoutTheLibrarysLogProgressIsCounted) {
    inSource("mkdir m; printf a >m/c; printf b >z; ln -s z l");
    setenv("F2FS_SNAPSHOT_TEST_NO_LOG", "1", 1);
    struct Seen {
        std::atomic<uint64_t> files = 0;
        std::atomic<bool> is_over = false;
    } seen;
    f2fs_snapshot_callbacks callbacks = F2FS_SNAPSHOT_CALLBACKS_INIT;
    callbacks.context = &seen;
    callbacks.progress = [](void* context, const f2fs_snapshot_progress* now) {
        if (now->phase == F2FS_SNAPSHOT_PHASE_CREATE) {
            static_cast<Seen*>(context)->files = now->files_done;
        }
    };
    f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    options.callbacks = &callbacks;
    options.time_limit = 60;
    // All files are made when the first check pass begins.
    HeldLibrary held(volume.root(), "opendir " + source + "/m", 2, [&] {
        while (seen.files != 2 && !seen.is_over) {
            usleep(1000);
        }
    });
    const auto made = create("a", options, {source});
    seen.is_over = true;
    EXPECT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
    EXPECT_EQ(seen.files, 2U);
    unsetenv("F2FS_SNAPSHOT_TEST_NO_LOG");
}

// A directory that was changed in the current tick of the clock is read when the tick is over.
TEST_F(CreateTest, TheClockTickIsWaitedOut) {
    inSource("mkdir m");
    int looks = 0;
    coarse_clock = [&]() -> int64_t {
        struct stat status = {};
        stat((source + "/m").c_str(), &status);
        if (++looks == 5) {
            inSource("mkdir m/n");
        }
        return looks < 5 ? status.st_ctim.tv_sec * INT64_C(1000000000) + status.st_ctim.tv_nsec : 0;
    };
    const auto made = create("a");
    coarse_clock = nullptr;
    ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
    EXPECT_GE(looks, 5);
    EXPECT_EQ(findingsOf(*made.value, source), std::vector<std::string>());
    EXPECT_EQ(dump(mirror("a")), (std::vector<std::string>{"m/", "m/n/"}));
}

// A change is under way when the second listing begins. Only a reader of the names waits for its
// end, where its time is stored. Then it is undone at once.
TEST_F(CreateTest, AChangeWhoseTimeIsStoredLate) {
    inSource("printf a >a; printf b >b");
    const auto exchange = [&] {
        EXPECT_EQ(syscall(SYS_renameat2, AT_FDCWD, (source + "/a").c_str(), AT_FDCWD,
                          (source + "/b").c_str(), RENAME_EXCHANGE),
                  0);
    };
    struct stat before = {};
    stat(source.c_str(), &before);
    std::atomic<bool> is_under_way = false;
    HeldLibrary held(volume.root(), "opendir " + source, 2, [&] {
        is_under_way = true;
        exchange();
    });
    after_statx = [&](struct statx& attributes) {
        if (is_under_way && attributes.stx_ino == before.st_ino) {
            attributes.stx_ctime.tv_sec = before.st_ctim.tv_sec;
            attributes.stx_ctime.tv_nsec = static_cast<uint32_t>(before.st_ctim.tv_nsec);
        }
    };
    before_names = [&](int directory) {
        struct stat status = {};
        fstat(directory, &status);
        if (status.st_ino == before.st_ino && is_under_way.exchange(false)) {
            exchange();
        }
    };
    const auto made = create("a");
    after_statx = nullptr;
    before_names = nullptr;
    ASSERT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
    EXPECT_TRUE(held.has_acted);
    EXPECT_EQ(findingsOf(*made.value, source), std::vector<std::string>{"23 ."});
}

// A failure removes what was made, leaves older snapshots alone, and says what to look at.
TEST_F(CreateTest, AFailureOfTheLibraryIsExplained) {
    inSource("printf old >a; printf old >b");
    expectWhole("older");
    {
        HeldLibrary held(volume.root(), "open " + source + "/b", 1, [&] { inSource("rm b"); });
        const auto made = create("a");
        EXPECT_EQ(made.code, F2FS_SNAPSHOT_ERROR_LIBRARY);
        EXPECT_EQ(made.error.path, source);
        EXPECT_NE(strstr(made.error.message, "/.a.log"), nullptr) << made.error.message;
        inSource("printf old >b");
    }
    EXPECT_EQ(leftovers(), "./.a.log\n");
    EXPECT_NE(read(at("store/.a.log")).find("open srcfilepath"), std::string::npos);
    {
        const HeldLibrary held(
            volume.root(), "allocate " + at("store/.a.partial/snapshot") + source + "/b", 1, [] {});
        const auto made = create("a");
        EXPECT_EQ(made.code, F2FS_SNAPSHOT_ERROR_LIBRARY);
        EXPECT_EQ(made.error.path, source + "/b");
        EXPECT_NE(strstr(made.error.message, "no room"), nullptr) << made.error.message;
    }
    EXPECT_EQ(list(), std::vector<std::string>{"older"});
    expectIntact("older");
    expectWhole("a");
    EXPECT_EQ(leftovers(), "");
}

// A pipe replaces a file: opening it for reading waits for a writer.
TEST_F(CreateTest, ALibraryThatHangsIsEnded) {
    inSource("printf old >a; printf old >b");
    const std::pair<const char*, int32_t> calls[] = {{"open ", F2FS_SNAPSHOT_ERROR_SOURCE},
                                                     {"read ", F2FS_SNAPSHOT_ERROR_TIMEOUT}};
    for (const auto& [call, code] : calls) {
        {
            HeldLibrary held(volume.root(), call + source + "/b", 1,
                             [&] { inSource("rm b; mkfifo b"); });
            f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
            options.time_limit = code == F2FS_SNAPSHOT_ERROR_TIMEOUT ? 1 : 0;
            const auto made = create("a", options, {source});
            EXPECT_EQ(made.code, code) << made.error.message;
        }
        EXPECT_EQ(list().size() + leftovers().size(), 0U);
        inSource("rm b; printf old >b");
    }
}

// Killed before each of the calls that the preloaded library sees.
TEST_F(CreateTest, ALibraryThatDiesIsReported) {
    inSource("mkdir m; printf old | tee a m/b >c");
    expectWhole("older");
    int killed = 0;
    for (;; ++killed) {
        preloadHold(killed + 1);
        const auto made = create("a");
        unsetenv("LD_PRELOAD");
        if (made.code == F2FS_SNAPSHOT_OK) {
            break;
        }
        ASSERT_EQ(made.code, F2FS_SNAPSHOT_ERROR_LIBRARY) << made.error.message;
        ASSERT_NE(strstr(made.error.message, "died: Killed"), nullptr) << made.error.message;
        EXPECT_EQ(list(), std::vector<std::string>{"older"});
        EXPECT_EQ(leftovers(), "./.a.log\n");
    }
    unsetenv("F2FS_SNAPSHOT_TEST_NTH");
    EXPECT_GT(killed, 20);
    expectIntact("older");
    expectIntact("a");
}

struct Calls {
    f2fs_snapshot_callbacks callbacks = {sizeof callbacks, this, onProgress, onLog, onCancel};
    std::vector<int> phases;
    uint64_t lines = 0;
    uint64_t done = 0;
    int cancel_in_phase = 0;

    static void onProgress(void* context, const f2fs_snapshot_progress* progress) {
        auto& self = *static_cast<Calls*>(context);
        if (self.phases.empty() || self.phases.back() != progress->phase) {
            self.phases.push_back(progress->phase);
        }
        self.done = std::max(self.done, progress->files_done);
        EXPECT_LE(progress->files_done, progress->files_total == 0 ? 3 : progress->files_total);
    }
    static void onLog(void* context, int32_t /*priority*/, const char* /*line*/) {
        ++static_cast<Calls*>(context)->lines;
    }
    static int onCancel(void* context) {
        const auto& self = *static_cast<Calls*>(context);
        return self.phases.empty() || self.phases.back() != self.cancel_in_phase ? 0 : 1;
    }
};

TEST_F(CreateTest, ProgressAndCancel) {
    inSource("printf old | tee a b >c");
    f2fs_snapshot_create_options options = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    const std::vector<int> phases = {F2FS_SNAPSHOT_PHASE_LIST,   F2FS_SNAPSHOT_PHASE_CREATE,
                                     F2FS_SNAPSHOT_PHASE_CHECK,  F2FS_SNAPSHOT_PHASE_LIST,
                                     F2FS_SNAPSHOT_PHASE_RECORD, F2FS_SNAPSHOT_PHASE_SYNC};
    for (const int phase : phases) {
        Calls calls;
        calls.cancel_in_phase = phase;
        options.callbacks = &calls.callbacks;
        EXPECT_EQ(create("a", options, {source}).code, F2FS_SNAPSHOT_ERROR_CANCELLED) << phase;
        EXPECT_EQ(list().size() + leftovers().size(), 0U);
    }
    Calls calls;
    options.callbacks = &calls.callbacks;
    EXPECT_EQ(create("a", options, {source}).code, F2FS_SNAPSHOT_OK);
    EXPECT_EQ(calls.phases, phases);
    EXPECT_GE(calls.lines, 9U);
}

// A link replaces a file or directory of the source or of the snapshot before a call of the
// library. The directory that it leads to must stay unchanged, and must not get into the snapshot.
struct Swap {
    const char* call;  // "$" is the source, "@" its mirror in the snapshot
    const char* path;
    const char* link;
};

const Swap SWAPS[] = {
    {"create @/f", "@/f", "out/f"}, {"create @/m/f", "@/m", "out"}, {"open $/f", "$/f", "out/f"},
    {"opendir $/m", "$/m", "out"},  {"mkdir @/m", "@", "out"},      {"read $/f", "$/f", "out/f"},
};

TEST_F(CreateTest, NoLinkIsFollowed) {
    for (const Swap& row : SWAPS) {
        SCOPED_TRACE(row.call);
        fs::create_directories(at("out"));
        fs::remove_all(source);
        fs::create_directories(source);
        write(at("out/f"), "secret");
        inSource("mkdir m; printf data | tee f >m/f");
        const auto expanded = [&](std::string text) {
            const std::string partial = at("store/.a.partial/snapshot") + source;
            const size_t sign = text.find_first_of("$@");
            return text.replace(sign, 1, text[sign] == '$' ? source : partial);
        };
        HeldLibrary held(volume.root(), expanded(row.call), 1, [&] {
            std::error_code missing;
            fs::rename(expanded(row.path), at("aside"), missing);
            fs::create_symlink(at(row.link), expanded(row.path));
        });
        const auto made = create("a");
        EXPECT_TRUE(held.has_acted);
        EXPECT_EQ(dump(at("out")), std::vector<std::string>{"f:secret"});
        if (made.code == F2FS_SNAPSHOT_OK) {
            EXPECT_EQ(made.value->links_blocked, 1);
            EXPECT_EQ(shell("grep -rl secret " + at("store")), "");
            EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_OK);
        }
        EXPECT_EQ(dump(at("out")), std::vector<std::string>{"f:secret"});
        runProcess({"rm", "-rf", at("aside")});
    }
}

// A process with few descriptors can work on deep trees. The helper raises its own limit.
TEST_F(CreateTest, ADeepTreeNeedsFewDescriptors) {
    inSource(
        "mkdir -p $(printf 'd/%.0s' $(seq 300)); find . -depth -type d | head -1 >path; "
        "printf x >$(cat path)/f");
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit low = {100, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    const auto made = create("a");
    EXPECT_EQ(made.code, F2FS_SNAPSHOT_OK) << made.error.message;
    EXPECT_TRUE(made.value && made.value->whole == 1 && made.value->directories == 301);
    expectIntact("a");
    EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_OK);
    setrlimit(RLIMIT_NOFILE, &limit);
}

// The files that a helper of this process has open.
std::set<std::string> openInHelper() {
    const std::string self = std::to_string(getpid());
    std::istringstream children(read("/proc/self/task/" + self + "/children"));
    std::set<std::string> targets;
    for (std::string child; children >> child;) {
        if (read("/proc/" + child + "/comm") == "f2fs_snapshot_h\n") {
            for (const fs::path& fd : fs::directory_iterator("/proc/" + child + "/fd")) {
                targets.insert(fs::read_symlink(fd));
            }
        }
    }
    return targets;
}

// Two calls for one store, one source, or a source within another.
TEST_F(CreateTest, CallsAreKeptApart) {
    inSource("mkdir -p m/n; printf old >m/n/f");
    fs::create_directory(at("other"));
    f2fs_snapshot_store* second = nullptr;
    ASSERT_EQ(f2fs_snapshot_store_open(at("store2").c_str(), 1, &second, nullptr), 0);
    // Without O_CLOEXEC, which other code may forget.
    const int opened = open(at("store2").c_str(), O_RDONLY | O_CLOEXEC);
    const int leak = fcntl(opened, F_DUPFD, 200);
    close(opened);
    std::vector<int32_t> codes;
    std::set<std::string> held_by_helper;
    const auto tryAll = [&] {
        held_by_helper = openInHelper();
        for (const std::string& path : {source, source + "/m", source + "/m/n", at("other")}) {
            const char* paths[] = {path.c_str()};
            codes.push_back(f2fs_snapshot_create(second, paths, 1, nullptr, nullptr, nullptr));
        }
        codes.push_back(create("b", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {at("other")}).code);
        codes.push_back(destroy("a"));
    };
    {
        HeldLibrary held(volume.root(), "opendir " + source + "/m", 2, [&] {
            unsetenv("LD_PRELOAD");
            tryAll();
        });
        EXPECT_EQ(create("a", F2FS_SNAPSHOT_CREATE_OPTIONS_INIT, {source + "/m"}).code, 0);
    }
    f2fs_snapshot_store_close(second);
    close(leak);
    // The helper holds the locks, because they must outlive a caller that is killed.
    for (const std::string& directory : {at("store"), source + "/m", source}) {
        EXPECT_EQ(held_by_helper.count(directory), 1U) << directory;
    }
    EXPECT_EQ(held_by_helper.count(at("store2")), 0U) << "not closed";
    const int32_t busy = F2FS_SNAPSHOT_ERROR_BUSY;
    EXPECT_EQ(codes, (std::vector<int32_t>{busy, busy, busy, 0, busy, busy}));
}

// A call that verifies or restores a snapshot holds its lock.
TEST_F(CreateTest, ASnapshotInUseStays) {
    expectWhole("a");
    f2fs_snapshot_hold* hold = nullptr;
    ASSERT_EQ(f2fs_snapshot_hold_take(store, "a", &hold, nullptr), F2FS_SNAPSHOT_OK);
    EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_ERROR_BUSY);
    expectIntact("a");
    f2fs_snapshot_hold_release(hold);
    EXPECT_EQ(destroy("a"), F2FS_SNAPSHOT_OK);
}

}  // namespace
