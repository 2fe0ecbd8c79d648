// SPDX-License-Identifier: Apache-2.0
#include "manager/keep_rules.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <tuple>

#include "manager/failure.h"

namespace manager {

namespace {

constexpr int64_t SECOND = 1'000'000'000;

// One rule per length of period. Snapshots of the same period have the same text.
struct Rule {
    const char* reason;
    const char* period;  // for strftime; nullptr: each snapshot is a period of its own
    uint32_t f2fs_snapshot_prune_options::*count;
};

constexpr Rule RULES[] = {
    {"last", nullptr, &f2fs_snapshot_prune_options::keep_last},
    {"hourly", "%Y-%m-%d %H", &f2fs_snapshot_prune_options::keep_hourly},
    {"daily", "%Y-%m-%d", &f2fs_snapshot_prune_options::keep_daily},
    {"weekly", "%G-%V", &f2fs_snapshot_prune_options::keep_weekly},
    {"monthly", "%Y-%m", &f2fs_snapshot_prune_options::keep_monthly},
    {"yearly", "%Y", &f2fs_snapshot_prune_options::keep_yearly},
};

std::string periodOf(const Rule& rule, const Verdict& verdict, Calendar calendar) {
    // Floored, so that times before the epoch fall into their own second.
    const int64_t created = verdict.snapshot.created;
    const int64_t seconds = created / SECOND - (created % SECOND < 0 ? 1 : 0);
    const std::tm parts = calendar(static_cast<std::time_t>(seconds));
    char text[32];
    return {text, strftime(text, sizeof(text), rule.period, &parts)};
}

// verdicts  newest first
void apply(const Rule& rule, uint32_t count, Calendar calendar, std::vector<Verdict>& verdicts) {
    std::string last;
    for (Verdict& verdict : verdicts) {
        if (count == 0) {
            return;
        }
        const bool oldest = &verdict == &verdicts.back();
        const std::string period =
            rule.period == nullptr ? verdict.snapshot.name : periodOf(rule, verdict, calendar);
        if (period != last || oldest) {
            verdict.reasons.emplace_back(rule.reason);
            last = period;
            --count;
        }
    }
}

void applyWithin(uint64_t within, std::vector<Verdict>& verdicts) {
    constexpr uint64_t LONGEST = std::numeric_limits<int64_t>::max() / SECOND;
    const auto reach = static_cast<int64_t>(std::min(within, LONGEST)) * SECOND;
    for (Verdict& verdict : verdicts) {
        int64_t age = 0;
        if (__builtin_sub_overflow(verdicts.front().snapshot.created, verdict.snapshot.created,
                                   &age) ||
            age >= reach) {
            return;
        }
        verdict.reasons.emplace_back("within");
    }
}

void requireRule(const f2fs_snapshot_prune_options& rules) {
    const bool any =
        rules.keep_within != 0 || std::any_of(std::begin(RULES), std::end(RULES),
                                              [&](const Rule& r) { return rules.*r.count != 0; });
    if (!any) {
        throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, "",
                      "no rule says which snapshots to keep; give at least one");
    }
}

void keepNewestWhole(std::vector<Verdict>& verdicts) {
    const auto whole = std::find_if(verdicts.begin(), verdicts.end(),
                                    [](const Verdict& v) { return v.snapshot.whole; });
    if (whole != verdicts.end() && whole->reasons.empty()) {
        whole->reasons.emplace_back("newest whole");
    }
}

}  // namespace

std::tm localCalendar(std::time_t time) {
    std::tm parts = {};
    localtime_r(&time, &parts);
    return parts;
}

std::vector<Verdict> judge(std::vector<Dated> snapshots, const f2fs_snapshot_prune_options& rules,
                           Calendar calendar) {
    requireRule(rules);
    // Names decide between equal times, so that the verdict does not depend on the order.
    std::sort(snapshots.begin(), snapshots.end(), [](const Dated& one, const Dated& other) {
        return std::tie(one.created, one.name) > std::tie(other.created, other.name);
    });
    std::vector<Verdict> verdicts;
    verdicts.reserve(snapshots.size());
    for (Dated& snapshot : snapshots) {
        verdicts.push_back({std::move(snapshot), {}});
    }
    for (const Rule& rule : RULES) {
        apply(rule, rules.*rule.count, calendar, verdicts);
    }
    if (rules.keep_within != 0) {
        applyWithin(rules.keep_within, verdicts);
    }
    keepNewestWhole(verdicts);
    return verdicts;
}

}  // namespace manager
