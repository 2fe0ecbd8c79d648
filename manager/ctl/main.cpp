// SPDX-License-Identifier: Apache-2.0
// f2fs_snapshotctl: snapshots of directory trees, kept in a store.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "manager/ctl/session.h"
#include "manager/ctl/status.h"
#include "manager/ctl/verbs.h"

namespace {

const std::vector<ctl::Verb> VERBS = {
    {"check", "Tell what would fail or would not be covered", ctl::describeCheck, ctl::check},
    {"create", "Make a snapshot", ctl::describeCreate, ctl::create},
    {"run", "Run a command on a snapshot made for it", ctl::describeRun, ctl::run},
    {"list", "List the snapshots", ctl::describeList, ctl::list},
    {"show", "Tell all about a snapshot", ctl::describeShow, ctl::show},
    {"verify", "Compare snapshots with their manifests", ctl::describeVerify, ctl::verify},
    {"restore", "Copy a snapshot out", ctl::describeRestore, ctl::restore},
    {"destroy", "Remove snapshots", ctl::describeDestroy, ctl::destroy},
    {"prune", "Remove the snapshots that no rule keeps", ctl::describePrune, ctl::prune},
};

int execute(const ctl::Verb& verb, const ctl::Options& options) {
    try {
        return verb.run(options);
    } catch (const ctl::CallFailed& failure) {
        return ctl::report(failure, options, verb.name);
    } catch (const std::exception& failure) {
        fprintf(stderr, "f2fs_snapshotctl: %s\n", failure.what());
        return ctl::FAILURE;
    }
}

}  // namespace

int main(int argc, char** argv) {
    ctl::Options options;
    int status = ctl::SUCCESS;
    const ctl::Verb* verb = ctl::parse(argc, argv, VERBS, options, status);
    if (verb != nullptr) {
        ctl::catchSignals();
        status = execute(*verb, options);
    }
    if ((ferror(stdout) != 0 || fflush(stdout) != 0) && status == ctl::SUCCESS) {
        fprintf(stderr, "f2fs_snapshotctl: cannot write to standard output: %s\n", strerror(errno));
        return ctl::FAILURE;
    }
    return status;
}
