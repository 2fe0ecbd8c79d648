// SPDX-License-Identifier: Apache-2.0
// f2fs_driver_check: checks a driver against docs/kernel-interface.md.
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <algorithm>

#include "driver_check/files.h"
#include "driver_check/run.h"

namespace {

using namespace driver_check;

int list() {
    for (const Check& check : allChecks()) {
        printf("%-36s %s\n", check.name.c_str(), check.clause);
    }
    return HOLDS;
}

std::string unknownName(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (std::none_of(allChecks().begin(), allChecks().end(),
                         [&](const Check& check) { return isNamed(check, name); })) {
            return name;
        }
    }
    return "";
}

void useLongRaces() {
    is_long = true;
    race_seconds = 20;
}

// The options of the command line.
struct Words {
    std::string directory;
    std::vector<std::string> only;
    std::string stage;
    bool lists = false;
    bool is_ktap = false;
    bool is_json = false;
    bool takes_long = false;
    unsigned time_limit = Options().time_limit;
};

void addOptions(CLI::App& app, Words& words) {
    app.add_option("DIR", words.directory, "a directory of the volume; left as it was");
    app.add_flag("--list", words.lists, "name the checks and the clause each one stands for");
    app.add_option("--only", words.only, "a check, or a group of them; may be repeated")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_flag("--long", words.takes_long, "let the races go on for 20 s each");
    CLI::Option* const ktap = app.add_flag("--ktap", words.is_ktap, "report in KTAP");
    app.add_flag("--json", words.is_json, "report in JSON")->excludes(ktap);
    app.add_option("--stage", words.stage,
                   "before: leave files in DIR; after (a reboot): check them")
        ->type_name("STAGE")
        ->check(CLI::IsMember({"before", "after"}));
    app.add_option("--time-limit", words.time_limit, "for one check; 60 s otherwise")
        ->type_name("SECONDS")
        ->check(CLI::Range(1U, 86400U));
    app.set_version_flag("--version", "f2fs_driver_check " F2FS_DRIVER_CHECK_VERSION);
}

Options optionsOf(const Words& words) {
    Options options;
    options.directory = words.directory;
    options.only = words.only;
    options.stage = words.stage == "before"  ? Stage::before
                    : words.stage == "after" ? Stage::after
                                             : Stage::none;
    options.format = words.is_ktap ? Format::ktap : words.is_json ? Format::json : Format::text;
    options.time_limit = words.time_limit;
    return options;
}

int parseAndRun(int argc, char** argv) {
    CLI::App app("Holds the F2FS driver of a directory's volume against the snapshot interface.");
    Words words;
    addOptions(app, words);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? HOLDS : CANNOT_RUN;
    }
    if (words.lists) {
        return list();
    }
    const std::string unknown = unknownName(words.only);
    if (!unknown.empty() || words.directory.empty()) {
        fprintf(stderr, "f2fs_driver_check: %s; see --help\n",
                unknown.empty() ? "DIR is missing"
                                : ("no check is named " + unknown + ", see --list").c_str());
        return CANNOT_RUN;
    }
    if (words.takes_long) {
        useLongRaces();
    }
    return run(optionsOf(words));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return parseAndRun(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "f2fs_driver_check: %s\n", error.what());
        return CANNOT_RUN;
    }
}
