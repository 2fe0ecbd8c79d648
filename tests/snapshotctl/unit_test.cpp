// SPDX-License-Identifier: Apache-2.0
// Tests without a volume: keep rules, shown texts, time spans and progress.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <sstream>

#include "manager/ctl/json.h"
#include "manager/ctl/options.h"
#include "manager/ctl/progress.h"
#include "manager/ctl/text.h"
#include "manager/failure.h"
#include "manager/keep_rules.h"

namespace {

constexpr int64_t SECOND = 1'000'000'000;

class InZone : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
        tzset();
    }
    void TearDown() override {
        unsetenv("TZ");
        tzset();
    }
};
using KeepRules = InZone;
using ShownText = InZone;

// "2026-03-29 01:30" in UTC.
int64_t timeOf(const std::string& text) {
    std::tm parts = {};
    EXPECT_NE(strptime(text.c_str(), "%Y-%m-%d %H:%M", &parts), nullptr) << text;
    return timegm(&parts) * SECOND;
}

struct KeepCase {
    const char* what;
    f2fs_snapshot_prune_options rules;
    const char* times;  // in UTC; the first is the snapshot "a", the next "b"; "!": not whole
    const char* kept;   // with reasons, newest first
};

f2fs_snapshot_prune_options rule(uint32_t f2fs_snapshot_prune_options::*member, uint32_t count) {
    f2fs_snapshot_prune_options rules = F2FS_SNAPSHOT_PRUNE_OPTIONS_INIT;
    rules.*member = count;
    return rules;
}

f2fs_snapshot_prune_options within(uint64_t seconds) {
    f2fs_snapshot_prune_options rules = F2FS_SNAPSHOT_PRUNE_OPTIONS_INIT;
    rules.keep_within = seconds;
    return rules;
}

std::string keptOf(const KeepCase& c) {
    std::vector<manager::Dated> snapshots;
    std::istringstream times(c.times);
    for (std::string time; std::getline(times, time, ',');) {
        const bool whole = time.back() != '!';
        snapshots.push_back({std::string(1, static_cast<char>('a' + snapshots.size())),
                             timeOf(time.substr(time[0] == ' ' ? 1 : 0)), whole});
    }
    std::string kept;
    for (const manager::Verdict& verdict : judge(snapshots, c.rules, manager::localCalendar)) {
        for (const std::string& reason : verdict.reasons) {
            kept += (kept.empty() ? "" : " ") + verdict.snapshot.name + ":" + reason;
        }
    }
    return kept;
}

TEST_F(KeepRules, KeepTheNewestOfEachPeriod) {
    using O = f2fs_snapshot_prune_options;
    O daily_and_last = rule(&O::keep_daily, 2);
    daily_and_last.keep_last = 1;
    const KeepCase cases[] = {
        {"the newest N, whatever the order", rule(&O::keep_last, 2),
         "2026-01-01 00:00, 2026-01-03 00:00, 2026-01-02 00:00", "b:last c:last"},
        {"an hour and the next", rule(&O::keep_hourly, 2),
         "2026-01-01 09:59, 2026-01-01 10:00, 2026-01-01 10:59, 2026-01-01 11:00",
         "d:hourly c:hourly"},
        // Local midnight is 23:00 in winter and 22:00 in summer.
        {"days of local time", rule(&O::keep_daily, 2),
         "2026-01-01 22:59, 2026-01-01 23:00, 2026-01-02 22:59", "c:daily a:daily"},
        {"days of summer time", rule(&O::keep_daily, 2),
         "2026-07-01 21:59, 2026-07-01 22:00, 2026-07-02 21:59", "c:daily a:daily"},
        {"days without a snapshot do not count", rule(&O::keep_daily, 2),
         "2025-06-01 12:00, 2026-01-01 12:00, 2026-07-01 12:00", "c:daily b:daily"},
        // Sunday, Monday; 2026-W01 begins in 2025.
        {"ISO weeks", rule(&O::keep_weekly, 2),
         "2025-12-28 12:00, 2025-12-29 12:00, 2026-01-04 12:00", "c:weekly a:weekly"},
        {"months", rule(&O::keep_monthly, 1), "2026-01-31 12:00, 2026-02-01 12:00", "b:monthly"},
        {"the same month of two years", rule(&O::keep_monthly, 2),
         "2025-02-01 12:00, 2026-02-01 12:00", "b:monthly a:monthly"},
        {"years", rule(&O::keep_yearly, 1), "2025-12-31 22:59, 2025-12-31 23:00", "b:yearly"},
        {"the oldest fills a rule up", rule(&O::keep_daily, 3),
         "2026-01-01 01:00, 2026-01-01 02:00, 2026-01-02 02:00, 2026-01-02 03:00",
         "d:daily b:daily a:daily"},
        {"but not a full one", rule(&O::keep_daily, 2),
         "2026-01-01 01:00, 2026-01-01 02:00, 2026-01-02 02:00", "c:daily b:daily"},
        {"each rule counts separately", daily_and_last,
         "2026-01-01 01:00, 2026-01-01 02:00, 2026-01-02 01:00, 2026-01-02 02:00",
         "d:last d:daily b:daily"},
        {"within, of the newest", within(3600),
         "2026-01-01 00:59, 2026-01-01 01:00, 2026-01-01 01:01, 2026-01-01 02:00",
         "d:within c:within"},
        {"within for ever", within(UINT64_MAX), "1970-01-01 00:00, 2026-01-01 00:00",
         "b:within a:within"},
        {"the newest whole one stays", rule(&O::keep_last, 1),
         "2026-01-01 00:00, 2026-01-02 00:00, 2026-01-03 00:00!", "c:last b:newest whole"},
        {"nothing to keep", rule(&O::keep_last, 1), "", ""},
    };
    for (const KeepCase& c : cases) {
        EXPECT_EQ(keptOf(c), c.kept) << c.what;
    }
}

TEST_F(KeepRules, AreNeededAtAll) {
    try {
        manager::judge({}, F2FS_SNAPSHOT_PRUNE_OPTIONS_INIT, manager::localCalendar);
        FAIL();
    } catch (const manager::Failure& failure) {
        EXPECT_EQ(failure.code, F2FS_SNAPSHOT_ERROR_ARGUMENT);
    }
}

TEST_F(ShownText, IsForPeople) {
    const std::pair<uint64_t, const char*> sizes[] = {
        {0, "0 B"},           {1023, "1023 B"},        {1024, "1.0 KiB"},
        {1048525, "1.0 MiB"}, {1500000000, "1.4 GiB"}, {UINT64_MAX, "16.0 EiB"}};
    for (const auto& [bytes, text] : sizes) {
        EXPECT_EQ(ctl::sizeText(bytes), text);
    }
    const int64_t time = timeOf("2026-07-01 22:00") + 5;
    EXPECT_EQ(ctl::localTime(time), "2026-07-02T00:00:00+02:00");
    EXPECT_EQ(ctl::utcTime(time), "2026-07-01T22:00:00.000000005Z");
    EXPECT_EQ(ctl::utcTime(-1), "1969-12-31T23:59:59.999999999Z");
    EXPECT_EQ(ctl::pathText("/\xC3\xA9\xFF%\n"), "/\xC3\xA9%FF%25%0A");
    EXPECT_EQ(ctl::shown("a\033[2J\nb"), "a\\033[2J\\nb");
}

TEST(Span, IsReadWithItsUnit) {
    const std::pair<const char*, uint64_t> spans[] = {
        {"36h", 129600}, {"7d", 604800}, {"2w", 1209600}, {"1y6m", 47606400}, {"0d", 0}};
    uint64_t seconds = 0;
    for (const auto& [text, expected] : spans) {
        EXPECT_TRUE(ctl::readSpan(text, seconds)) << text;
        EXPECT_EQ(seconds, expected) << text;
    }
    for (const char* text : {"", "d", "7", "7x", "7 d", "-7d", "d7", "7d1", "99999999999999999999d",
                             "18446744073709551615h", "213503982334601d9999999999999h"}) {
        EXPECT_FALSE(ctl::readSpan(text, seconds)) << text;
    }
}

f2fs_snapshot_progress progressAt(int32_t phase, uint32_t pass, uint64_t done) {
    return {sizeof(f2fs_snapshot_progress), phase, 1, pass, done, 1000, 0};
}

// What is shown of a call: 1000 files in 20 s, then a pass of 1 s.
std::string shownProgress(ctl::Progress::Style style) {
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    {
        ctl::Progress progress(out, style, 60);
        const ctl::Progress::Time start;
        for (int second = 0; second <= 20; second += 2) {
            progress.show(
                progressAt(F2FS_SNAPSHOT_PHASE_CREATE, 0, static_cast<uint64_t>(second) * 50),
                start + std::chrono::seconds(second));
        }
        f2fs_snapshot_progress again = progressAt(F2FS_SNAPSHOT_PHASE_CHECK, 2, 1);
        again.attempt = 2;
        again.files_again = 7;
        progress.show(again, start + std::chrono::seconds(26));
    }
    fclose(out);
    std::string shown = text;
    free(text);
    return shown;
}

TEST(ProgressTest, IsALineEveryFewSecondsOrABarOrNothing) {
    EXPECT_EQ(shownProgress(ctl::Progress::Style::SILENT), "");
    EXPECT_EQ(shownProgress(ctl::Progress::Style::LINES),
              "creating: 300 of 1000 files, 50/s, 0:14 left\n"
              "creating: 600 of 1000 files, 50/s, 0:08 left\n"
              "creating: 900 of 1000 files, 50/s, 0:02 left\n"
              "checking: 1 of 1000 files, pass 2, 7 again, attempt 2\n");
    const std::string bar = shownProgress(ctl::Progress::Style::BAR);
    EXPECT_NE(bar.find("\rcreating: [############............] 500 of 1000 files, 50/\033[K"),
              std::string::npos)
        << bar;
    EXPECT_EQ(bar.substr(bar.size() - 4), "\r\033[K");
}

}  // namespace
