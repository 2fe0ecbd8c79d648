// SPDX-License-Identifier: Apache-2.0
#include "manager/ctl/verbs.h"

#include <algorithm>
#include <sstream>

#include "manager/ctl/json.h"
#include "manager/ctl/session.h"
#include "manager/ctl/status.h"
#include "manager/ctl/text.h"

namespace ctl {

namespace {

// How many findings are told without being asked for; show and --json tell all.
constexpr size_t FEW = 20;

bool isMoreThanNote(const f2fs_snapshot_finding* finding) {
    return finding->severity < F2FS_SNAPSHOT_NOTE;
}

int statusOf(const f2fs_snapshot_report& report) {
    const Findings findings = findingsOf(report);
    return std::any_of(findings.begin(), findings.end(), isMoreThanNote) ? FOUND_SOMETHING
                                                                         : SUCCESS;
}

// With --quiet, the status 0 tells enough.
bool isTold(const Options& options, int status) {
    return !options.quiet || status != SUCCESS;
}

int tellCheck(const f2fs_snapshot_report& report, const Options& options, const char* verb) {
    if (options.json) {
        Json sources = Json::array();
        for (const std::string& source : options.sources) {
            sources.push_back(pathText(source.c_str()));
        }
        Json document = {{"verb", verb}, {"dry_run", true}, {"sources", sources}};
        addReport(document, report);
        print(document);
    } else if (const Findings findings = findingsOf(report); isTold(options, statusOf(report))) {
        printf("%s: %s\n", countsText(report).c_str(),
               findings.empty() ? "nothing found" : countText(findings.size(), "finding").c_str());
        printFindings(stdout, findings, findings.size());
    }
    return statusOf(report);
}

}  // namespace

int check(const Options& options) {
    Session session(options);
    return tellCheck(*session.check(), options, "check");
}

int create(const Options& options) {
    Session session(options, options.dry_run ? 0 : F2FS_SNAPSHOT_STORE_CREATE);
    if (options.dry_run) {
        return tellCheck(*session.check(), options, "create");
    }
    const Owned<f2fs_snapshot_info> info = session.create();
    const int status = info->whole != 0 ? SUCCESS : FOUND_SOMETHING;
    if (options.json) {
        print({{"verb", "create"}, {"dry_run", false}, {"snapshot", infoJson(*info)}});
    } else if (isTold(options, status)) {
        // What went wrong has to say which snapshot it is about.
        fprintf(options.quiet ? stderr : stdout, "%s: %s, %s\n", shown(info->name).c_str(),
                stateText(*info).c_str(), countsText(*info).c_str());
        printFindings(stderr, findingsOf(*info), FEW);
    }
    return status;
}

namespace {

void printListLine(const f2fs_snapshot_list_entry& entry, const std::string& usage) {
    const f2fs_snapshot_info& info = *entry.info;
    printf("%-26s %s %10llu %11s %11s  %s\n", shown(entry.name).c_str(),
           localTime(info.created).c_str(), static_cast<unsigned long long>(info.files),
           sizeText(info.bytes).c_str(), usage.c_str(), stateText(info).c_str());
}

using Entries = std::vector<const f2fs_snapshot_list_entry*>;

void listAsText(const Session& session, const Entries& entries, const Options& options) {
    if (!options.quiet) {
        printf("%-26s %-25s %10s %11s %11s  %s\n", "NAME", "CREATED", "FILES", "SIZE", "ON DISK",
               "STATE");
    }
    for (const f2fs_snapshot_list_entry* entry : entries) {
        if (options.quiet) {
            puts(entry->name);
        } else if (entry->info == nullptr) {
            printf("%-26s damaged: %s\n", shown(entry->name).c_str(), entry->error.message);
        } else {
            printListLine(*entry,
                          options.without_usage ? "-" : sizeText(session.diskUsage(entry->name)));
        }
    }
}

void listAsJson(const Session& session, const Entries& entries, const Options& options) {
    Json whole = Json::array();
    Json damaged = Json::array();
    for (const f2fs_snapshot_list_entry* entry : entries) {
        if (entry->info == nullptr) {
            damaged.push_back(
                {{"name", pathText(entry->name)}, {"error", errorJson(entry->error)}});
            continue;
        }
        whole.push_back(infoJson(*entry->info));
        if (!options.without_usage) {
            whole.back()["disk_bytes"] = session.diskUsage(entry->name);
        }
    }
    print({{"verb", "list"},
           {"store", pathText(f2fs_snapshot_store_path(session.store()))},
           {"snapshots", whole},
           {"damaged", damaged}});
}

}  // namespace

int list(const Options& options) {
    const Session session(options);
    const Owned<f2fs_snapshot_list> snapshots = session.list();
    const Entries entries =
        elements(snapshots->entries, snapshots->entry_count, snapshots->entry_size);
    (options.json ? listAsJson : listAsText)(session, entries, options);
    const bool damaged = std::any_of(entries.begin(), entries.end(),
                                     [](const auto* entry) { return entry->info == nullptr; });
    return damaged ? FOUND_SOMETHING : SUCCESS;
}

int show(const Options& options) {
    const Session session(options);
    const Owned<f2fs_snapshot_info> info = session.info(options.snapshot);
    const uint64_t usage = session.diskUsage(options.snapshot);
    if (options.json) {
        Json snapshot = infoJson(*info);
        snapshot["disk_bytes"] = usage;
        print({{"verb", "show"}, {"snapshot", snapshot}});
    } else {
        printInfo(*info, usage);
    }
    return SUCCESS;
}

namespace {

std::vector<std::string> namesToVerify(const Session& session, const Options& options) {
    std::vector<std::string> names = options.names;
    if (options.all) {
        const Owned<f2fs_snapshot_list> list = session.list();
        for (const auto* entry : elements(list->entries, list->entry_count, list->entry_size)) {
            names.emplace_back(entry->name);
        }
    }
    return names;
}

Owned<f2fs_snapshot_report> verifyOne(Session& session, const std::string& name) {
    f2fs_snapshot_verify_options options = F2FS_SNAPSHOT_VERIFY_OPTIONS_INIT;
    options.callbacks = session.callbacks();
    auto report = session.obtainWhenFree<f2fs_snapshot_report>([&](auto* made, auto* error) {
        return f2fs_snapshot_verify(session.store(), name.c_str(), &options, made, error);
    });
    session.clearProgress();
    return report;
}

}  // namespace

int verify(const Options& options) {
    Session session(options);
    Json results = Json::array();
    int status = SUCCESS;
    for (const std::string& name : namesToVerify(session, options)) {
        const Owned<f2fs_snapshot_info> info = session.info(name);
        const Owned<f2fs_snapshot_report> report = verifyOne(session, name);
        const Findings findings = findingsOf(*report);
        status = findings.empty() ? status : FOUND_SOMETHING;
        if (options.json) {
            results.push_back({{"name", pathText(name.c_str())}, {"whole", info->whole != 0}});
            addReport(results.back(), *report);
        } else if (!options.quiet || !findings.empty()) {
            printf("%s: %s, %s\n", shown(name.c_str()).c_str(),
                   findings.empty() ? "intact" : countText(findings.size(), "difference").c_str(),
                   countsText(*report).c_str());
            printFindings(stdout, findings, findings.size());
            printIfNotWhole(stdout, *info);
        }
    }
    if (options.json) {
        print({{"verb", "verify"}, {"results", results}});
    }
    return status;
}

int restore(const Options& options) {
    Session session(options);
    const std::string& name = options.snapshot;
    const std::vector<const char*> paths = pointers(options.paths);
    f2fs_snapshot_restore_options given = F2FS_SNAPSHOT_RESTORE_OPTIONS_INIT;
    given.callbacks = session.callbacks();
    given.paths = paths.data();
    given.path_count = paths.size();
    given.overwrite = options.overwrite ? 1 : 0;
    given.dry_run = options.dry_run ? 1 : 0;
    const Owned<f2fs_snapshot_info> info = session.info(name);
    const auto report = session.obtainWhenFree<f2fs_snapshot_report>([&](auto* made, auto* error) {
        return f2fs_snapshot_restore(session.store(), name.c_str(), options.destination.c_str(),
                                     &given, made, error);
    });
    session.clearProgress();
    const int status = statusOf(*report);
    if (options.json) {
        Json document = {{"verb", "restore"},
                         {"dry_run", options.dry_run},
                         {"name", pathText(name.c_str())},
                         {"whole", info->whole != 0},
                         {"destination", pathText(options.destination.c_str())}};
        addReport(document, *report);
        print(document);
        return status;
    }
    if (!options.quiet) {
        printf("%s %s to %s: %s\n", options.dry_run ? "would restore" : "restored",
               shown(name.c_str()).c_str(), shown(options.destination.c_str()).c_str(),
               countsText(*report).c_str());
    }
    if (isTold(options, status)) {
        const Findings findings = findingsOf(*report);
        printFindings(stderr, findings, options.dry_run ? findings.size() : FEW);
        printIfNotWhole(stderr, *info);
    }
    return status;
}

int destroy(const Options& options) {
    Session session(options);
    // All names are looked at before the first snapshot goes: a mistyped one changes nothing.
    const Owned<f2fs_snapshot_list> known = session.list();
    const Entries entries = elements(known->entries, known->entry_count, known->entry_size);
    Json names = Json::array();
    for (const std::string& name : options.names) {
        const bool is_known = std::any_of(entries.begin(), entries.end(),
                                          [&](const auto* entry) { return name == entry->name; });
        if (!is_known) {
            session.info(name);  // which says why not
        }
        names.push_back(pathText(name.c_str()));
    }
    for (const std::string& name : options.names) {
        if (!options.dry_run) {
            session.whenFree([&] { session.destroy(name, session.callbacks()); });
            session.clearProgress();
        }
        if (!options.json && !options.quiet) {
            printf("%s %s\n", options.dry_run ? "would destroy" : "destroyed",
                   shown(name.c_str()).c_str());
        }
    }
    if (options.json) {
        print({{"verb", "destroy"}, {"dry_run", options.dry_run}, {"names", names}});
    }
    return SUCCESS;
}

namespace {

Json reasonsJson(const char* reasons) {
    Json list = Json::array();
    std::istringstream words(reasons);
    for (std::string word; std::getline(words, word, ',');) {
        list.push_back(word.substr(word[0] == ' ' ? 1 : 0));
    }
    return list;
}

}  // namespace

int prune(const Options& options) {
    Session session(options);
    f2fs_snapshot_prune_options rules = options.prune;
    rules.callbacks = session.callbacks();
    rules.dry_run = options.dry_run ? 1 : 0;
    const auto result =
        session.obtainWhenFree<f2fs_snapshot_prune_result>([&](auto* made, auto* error) {
            return f2fs_snapshot_prune(session.store(), &rules, made, error);
        });
    session.clearProgress();
    Json verdicts = Json::array();
    for (const auto* entry : elements(result->entries, result->entry_count, result->entry_size)) {
        verdicts.push_back({{"name", pathText(entry->name)},
                            {"kept", entry->kept != 0},
                            {"reasons", reasonsJson(entry->reasons)}});
        if (!options.json && !options.quiet) {
            const char* removed = options.dry_run ? "would remove" : "removed";
            printf("%-12s  %s%s%s\n", entry->kept != 0 ? "kept" : removed,
                   shown(entry->name).c_str(), entry->kept != 0 ? ": " : "", entry->reasons);
        }
    }
    if (options.json) {
        print({{"verb", "prune"}, {"dry_run", options.dry_run}, {"snapshots", verdicts}});
    }
    return SUCCESS;
}

}  // namespace ctl
