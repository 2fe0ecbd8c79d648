// SPDX-License-Identifier: Apache-2.0
#include <memory>

#include "manager/abi.h"
#include "manager/info.h"
#include "manager/keep_rules.h"

namespace manager {

namespace {

// A result that owns what it points to.
struct OwnedResult : f2fs_snapshot_prune_result {
    struct Texts {
        std::string name;
        std::string reasons;
    };
    std::vector<Texts> texts;
    std::vector<f2fs_snapshot_prune_entry> list;
};

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

std::unique_ptr<OwnedResult> newResult(const std::vector<Verdict>& verdicts) {
    auto result = std::make_unique<OwnedResult>();
    for (const Verdict& verdict : verdicts) {
        result->texts.push_back({verdict.snapshot.name, joined(verdict.reasons)});
    }
    for (const OwnedResult::Texts& texts : result->texts) {
        result->list.push_back(
            {texts.name.c_str(), texts.reasons.empty() ? 0 : 1, texts.reasons.c_str()});
    }
    result->size = sizeof(f2fs_snapshot_prune_result);
    result->entries = result->list.data();
    result->entry_count = result->list.size();
    result->entry_size = sizeof(f2fs_snapshot_prune_entry);
    return result;
}

// The snapshots that the rules judge. The time of a damaged one is unknown, and a temporary one
// belongs to its creator.
std::vector<Dated> datedSnapshots(const Store& store) {
    std::vector<Dated> snapshots;
    for (const std::string& name : store.names()) {
        try {
            const Info info = readInfo(store.open(name).get(), store.pathOf(name), name);
            if (!info.is_temporary) {
                snapshots.push_back({name, info.created, info.whole});
            }
        } catch (const Failure& failure) {
            if (failure.code == F2FS_SNAPSHOT_ERROR_MEMORY) {
                throw;
            }
        }
    }
    return snapshots;
}

// Removes the snapshots that no rule keeps, except those that are being verified or restored.
void removeUnkept(const Store& store, Monitor& monitor, std::vector<Verdict>& verdicts) {
    // The oldest first: if the call is interrupted, the newest are still there.
    for (auto verdict = verdicts.rbegin(); verdict != verdicts.rend(); ++verdict) {
        if (!verdict->reasons.empty()) {
            continue;
        }
        monitor.throwIfCancelled();
        try {
            store.destroy(verdict->snapshot.name, monitor);
        } catch (const Failure& failure) {
            if (failure.code != F2FS_SNAPSHOT_ERROR_BUSY) {
                throw;
            }
            verdict->reasons.emplace_back("in use");
        }
    }
}

}  // namespace

}  // namespace manager

int32_t f2fs_snapshot_prune(f2fs_snapshot_store* store, const f2fs_snapshot_prune_options* options,
                            f2fs_snapshot_prune_result** result, f2fs_snapshot_error* error) {
    return manager::guarded(error, [&] {
        manager::requireArgument(store, "store");
        const f2fs_snapshot_prune_options rules = manager::optionsOf(options);
        manager::Monitor monitor(rules.callbacks);
        const manager::UniqueFd lock =
            rules.dry_run != 0 ? manager::UniqueFd() : store->store.lock(monitor);
        std::vector<manager::Verdict> verdicts =
            judge(manager::datedSnapshots(store->store), rules, manager::localCalendar);
        if (rules.dry_run == 0) {
            monitor.begin(F2FS_SNAPSHOT_PHASE_REMOVE);
            manager::removeUnkept(store->store, monitor, verdicts);
        }
        std::unique_ptr<manager::OwnedResult> made = manager::newResult(verdicts);
        if (result != nullptr) {
            *result = made.release();
        }
    });
}

void f2fs_snapshot_prune_result_free(f2fs_snapshot_prune_result* result) {
    delete static_cast<manager::OwnedResult*>(result);
}
