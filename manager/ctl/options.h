// SPDX-License-Identifier: Apache-2.0
// The command line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "manager/f2fs_snapshot_manager.h"

namespace CLI {
class App;
}

namespace ctl {

struct Options {
    std::string store;
    bool json = false;
    bool quiet = false;
    bool dry_run = false;
    uint32_t wait = 0;                 // seconds
    std::vector<std::string> sources;  // check, create, run
    std::vector<std::string> command;  // run: what stands behind "--"
    std::string snapshot;              // show, restore: its name
    std::vector<std::string> names;    // verify, destroy: of snapshots
    f2fs_snapshot_create_options create = F2FS_SNAPSHOT_CREATE_OPTIONS_INIT;
    std::string name;  // create, run
    bool strict = false;
    bool digests = false;
    bool all = false;            // verify
    bool without_usage = false;  // list
    std::string destination;     // restore
    std::vector<std::string> paths;
    bool overwrite = false;
    f2fs_snapshot_prune_options prune = F2FS_SNAPSHOT_PRUNE_OPTIONS_INIT;
};

struct Verb {
    const char* name;
    const char* summary;
    void (*describe)(CLI::App& app, Options& options);  // adds its options
    int (*run)(const Options& options);                 // returns the exit status
};

// Returns the verb that was given. nullptr: nothing is left to do, `status` is the exit status.
const Verb* parse(int argc, char** argv, const std::vector<Verb>& verbs, Options& options,
                  int& status);

// Tells on standard error what is wrong with the command line, and how to get help for the verb
// ("": none was given). Returns the exit status.
int wrongUsage(const std::string& verb, const std::string& what);

// The options of each verb, for the table of verbs.
void describeCheck(CLI::App& app, Options& options);
void describeCreate(CLI::App& app, Options& options);
void describeRun(CLI::App& app, Options& options);
void describeList(CLI::App& app, Options& options);
void describeShow(CLI::App& app, Options& options);
void describeVerify(CLI::App& app, Options& options);
void describeRestore(CLI::App& app, Options& options);
void describeDestroy(CLI::App& app, Options& options);
void describePrune(CLI::App& app, Options& options);

// Reads a time span like "36h", "7d" or "1y6m" (hours, days, weeks, months of 31 days, years of
// 365) as seconds. False: it is none, or no 64-bit number.
bool readSpan(const std::string& text, uint64_t& seconds);

}  // namespace ctl
