// SPDX-License-Identifier: Apache-2.0
#include "manager/ctl/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstring>

#include "manager/ctl/status.h"

namespace ctl {

namespace {

constexpr char FOOTER[] =
    "Exit status: 0 success, 1 failure, 2 wrong usage, 3 the snapshot is not whole or something\n"
    "was found, 128 + N ended by signal N; run: that of COMMAND, 125 failed itself.\n"
    "f2fs_snapshotctl(8) tells more.";

void addDryRun(CLI::App& app, Options& options) {
    app.add_flag("-n,--dry-run", options.dry_run, "Change nothing, only tell what would be done");
}

void addWait(CLI::App& app, Options& options) {
    app.add_option("--wait", options.wait,
                   "Seconds to wait while another call holds what is needed (default: 0)")
        ->type_name("SECONDS");
}

void addSources(CLI::App& app, Options& options) {
    app.add_option("SOURCE", options.sources, "Directories to snapshot, by their absolute paths")
        ->required();
}

CLI::Option* addNames(CLI::App& app, Options& options, const char* help) {
    return app.add_option("NAME", options.names, help);
}

void addSnapshot(CLI::App& app, Options& options) {
    app.add_option("NAME", options.snapshot, "The snapshot")->required();
}

// Where "--" stands, which is argc if it does not.
int findSeparator(int argc, char** argv) {
    return static_cast<int>(
        std::find_if(argv, argv + argc, [](const char* word) { return strcmp(word, "--") == 0; }) -
        argv);
}

void setUp(CLI::App& app, const std::vector<Verb>& verbs, Options& options) {
    app.set_version_flag("--version",
                         std::string("f2fs_snapshotctl ") + f2fs_snapshot_manager_version());
    app.footer(FOOTER);
    app.require_subcommand(1);
    app.add_option("-s,--store", options.store, "The directory that holds the snapshots")
        ->type_name("DIR")
        ->envname("F2FS_SNAPSHOT_STORE");
    app.add_flag("--json", options.json, "Write one JSON document instead of text");
    app.add_flag("-q,--quiet", options.quiet,
                 "Write only failures, findings that lead to status 3, and results");
    for (const Verb& verb : verbs) {
        CLI::App* sub = app.add_subcommand(verb.name, verb.summary);
        sub->fallthrough();
        verb.describe(*sub, options);
    }
}

}  // namespace

bool readSpan(const std::string& text, uint64_t& seconds) {
    constexpr uint64_t HOUR = 3600;
    constexpr uint64_t DAY = 24 * HOUR;
    const auto length = [](char unit) -> uint64_t {
        switch (unit) {
            case 'h':
                return HOUR;
            case 'd':
                return DAY;
            case 'w':
                return 7 * DAY;
            case 'm':
                return 31 * DAY;
            case 'y':
                return 365 * DAY;
            default:
                return 0;
        }
    };
    uint64_t sum = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        uint64_t number = 0;
        const size_t begin = i;
        for (; i < text.size() && isdigit(static_cast<unsigned char>(text[i])) != 0; ++i) {
            if (__builtin_mul_overflow(number, 10U, &number) ||
                __builtin_add_overflow(number, static_cast<uint64_t>(text[i] - '0'), &number)) {
                return false;
            }
        }
        const uint64_t unit = i > begin && i < text.size() ? length(text[i]) : 0;
        if (unit == 0 || __builtin_mul_overflow(number, unit, &number) ||
            __builtin_add_overflow(sum, number, &sum)) {
            return false;
        }
    }
    seconds = sum;
    return !text.empty();
}

void describeCheck(CLI::App& app, Options& options) {
    addSources(app, options);
}

void describeCreate(CLI::App& app, Options& options) {
    addSources(app, options);
    app.add_option_function<std::string>(
           "--name",
           [&options](const std::string& name) {
               options.name = name;
               options.create.name = options.name.c_str();
           },
           "The snapshot's name (default: the time in UTC)")
        ->type_name("NAME");
    app.add_flag("--strict", options.strict,
                 "Fail unless the snapshot is whole and no file has two names");
    app.add_flag("--digests", options.digests, "Record SHA-256 digests of the files for verify");
    app.add_option("--attempts", options.create.attempts,
                   "How often to try while names keep changing (default: 3)")
        ->check(CLI::Range(1, 100));
    app.add_option("--time-limit", options.create.time_limit,
                   "Seconds that one attempt may take (default: 3600)")
        ->check(CLI::Range(1, 1000000));
    addWait(app, options);
    addDryRun(app, options);
}

void describeRun(CLI::App& app, Options& options) {
    describeCreate(app, options);
    app.footer(
        "What stands behind \"--\" is the command: run [OPTIONS] SOURCE... -- COMMAND "
        "[ARGUMENT...]\n"
        "{} in it becomes the path of the snapshot, as is F2FS_SNAPSHOT_PATH in its environment.");
}

void describeList(CLI::App& app, Options& options) {
    app.add_flag("--no-usage", options.without_usage,
                 "Do not add up what each snapshot takes on the disk");
}

void describeShow(CLI::App& app, Options& options) {
    addSnapshot(app, options);
}

void describeVerify(CLI::App& app, Options& options) {
    CLI::Option* names = addNames(app, options, "The snapshots");
    app.add_flag("--all", options.all, "All snapshots of the store")->excludes(names);
    addWait(app, options);
    app.final_callback([&options] {
        if (options.names.empty() && !options.all) {
            throw CLI::ValidationError("verify", "needs names of snapshots, or --all");
        }
    });
}

void describeRestore(CLI::App& app, Options& options) {
    addSnapshot(app, options);
    app.add_option("DEST", options.destination, "The directory to restore into, empty or new")
        ->required();
    app.add_option("--path", options.paths, "Restore only this source path (can be repeated)")
        ->type_name("PATH")
        ->take_all()
        ->allow_extra_args(false);
    app.add_flag("--overwrite", options.overwrite, "Restore into what DEST holds, replacing files");
    addWait(app, options);
    addDryRun(app, options);
}

void describeDestroy(CLI::App& app, Options& options) {
    addNames(app, options, "The snapshots")->required();
    addWait(app, options);
    addDryRun(app, options);
}

void describePrune(CLI::App& app, Options& options) {
    f2fs_snapshot_prune_options& rules = options.prune;
    app.add_option("--keep-last", rules.keep_last, "Keep the newest N")->type_name("N");
    app.add_option("--keep-hourly", rules.keep_hourly, "Keep the newest of each of N hours")
        ->type_name("N");
    app.add_option("--keep-daily", rules.keep_daily, "Keep the newest of each of N days")
        ->type_name("N");
    app.add_option("--keep-weekly", rules.keep_weekly, "Keep the newest of each of N ISO weeks")
        ->type_name("N");
    app.add_option("--keep-monthly", rules.keep_monthly, "Keep the newest of each of N months")
        ->type_name("N");
    app.add_option("--keep-yearly", rules.keep_yearly, "Keep the newest of each of N years")
        ->type_name("N");
    app.add_option_function<std::string>(
           "--keep-within",
           [&rules](const std::string& text) {
               if (!readSpan(text, rules.keep_within)) {
                   throw CLI::ValidationError("--keep-within", "\"" + text +
                                                                   "\" is no time span like 36h, "
                                                                   "7d, 4w, 6m or 1y6m");
               }
           },
           "Keep all that are at most this much older than the newest")
        ->type_name("SPAN");
    addWait(app, options);
    addDryRun(app, options);
}

namespace {

// The library knows only that something else than a verb is there.
std::string whyNoVerb(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> words = app.remaining();
    if (error.get_name() != "RequiredError") {
        return error.what();
    }
    return words.empty() ? "no verb is given" : "there is no verb or option " + words.front();
}

const Verb* parseWords(int argc, char** argv, const std::vector<Verb>& verbs, Options& options,
                       int& status) {
    CLI::App app("Whole point-in-time snapshots of directory trees on F2FS, kept in a store.",
                 "f2fs_snapshotctl");
    setUp(app, verbs, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help_or_version) {
        status = app.exit(help_or_version);
        return nullptr;
    } catch (const CLI::ParseError& error) {
        const auto given = app.get_subcommands();
        status = given.empty() ? wrongUsage("", whyNoVerb(app, error))
                               : wrongUsage(given.front()->get_name(), error.what());
        return nullptr;
    }
    const std::string verb = app.get_subcommands().front()->get_name();
    if (options.store.empty()) {
        status = wrongUsage(verb, "no store: give --store DIR, or set F2FS_SNAPSHOT_STORE");
        return nullptr;
    }
    return &*std::find_if(verbs.begin(), verbs.end(),
                          [&](const Verb& candidate) { return verb == candidate.name; });
}

}  // namespace

int wrongUsage(const std::string& verb, const std::string& what) {
    fprintf(stderr, "f2fs_snapshotctl: %s\nTry \"f2fs_snapshotctl %s--help\".\n", what.c_str(),
            verb.empty() ? "" : (verb + " ").c_str());
    return WRONG_USAGE;
}

const Verb* parse(int argc, char** argv, const std::vector<Verb>& verbs, Options& options,
                  int& status) {
    const int separator = findSeparator(argc, argv);
    // All that stands behind the separator is the command of run, and none of this program's.
    const bool is_run = std::any_of(argv, argv + separator,
                                    [](const char* word) { return strcmp(word, "run") == 0; });
    const Verb* verb = parseWords(is_run ? separator : argc, argv, verbs, options, status);
    if (verb == nullptr || strcmp(verb->name, "run") != 0) {
        // A snapshot or a store can have the name "run", too.
        options = is_run && verb != nullptr ? Options() : options;
        return is_run && verb != nullptr ? parseWords(argc, argv, verbs, options, status) : verb;
    }
    options.command.assign(argv + std::min(separator + 1, argc), argv + argc);
    if (options.command.empty()) {
        status = wrongUsage("run", "run needs \"--\" and a command behind the sources");
        return nullptr;
    }
    return verb;
}

}  // namespace ctl
