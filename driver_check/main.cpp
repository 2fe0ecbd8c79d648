// SPDX-License-Identifier: Apache-2.0
// f2fs_driver_check: holds a driver against docs/kernel-interface.md.
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

int parseAndRun(int argc, char** argv) {
    CLI::App app("Holds the F2FS driver of a directory's volume against the snapshot interface.");
    Options options;
    bool lists = false;
    bool is_ktap = false;
    bool is_json = false;
    bool takes_long = false;
    std::string stage;
    app.add_option("DIR", options.directory, "a directory of the volume; left as it was");
    app.add_flag("--list", lists, "name the checks and the clause each one stands for");
    app.add_option("--only", options.only, "a check, or a group of them; may be repeated")
        ->type_name("NAME")
        ->allow_extra_args(false);
    app.add_flag("--long", takes_long, "let the races go on for 20 s each");
    CLI::Option* const ktap = app.add_flag("--ktap", is_ktap, "report in KTAP");
    app.add_flag("--json", is_json, "report in JSON")->excludes(ktap);
    app.add_option("--stage", stage, "before: leave files in DIR; after (a reboot): check them")
        ->type_name("STAGE")
        ->check(CLI::IsMember({"before", "after"}));
    app.add_option("--time-limit", options.time_limit, "for one check; 60 s otherwise")
        ->type_name("SECONDS")
        ->check(CLI::Range(1U, 86400U));
    app.set_version_flag("--version", "f2fs_driver_check " F2FS_DRIVER_CHECK_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? HOLDS : CANNOT_RUN;
    }
    if (lists) {
        return list();
    }
    const std::string unknown = unknownName(options.only);
    if (!unknown.empty() || options.directory.empty()) {
        fprintf(stderr, "f2fs_driver_check: %s; see --help\n",
                unknown.empty() ? "DIR is missing"
                                : ("no check is named " + unknown + ", see --list").c_str());
        return CANNOT_RUN;
    }
    if (takes_long) {
        useLongRaces();
    }
    options.format = is_ktap ? Format::ktap : is_json ? Format::json : Format::text;
    options.stage = stage == "before"  ? Stage::before
                    : stage == "after" ? Stage::after
                                       : Stage::none;
    return run(options);
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
