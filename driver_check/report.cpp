// SPDX-License-Identifier: Apache-2.0
#include "driver_check/report.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace driver_check {
namespace {

const char* wordOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::passed:
            return "pass";
        case Verdict::skipped:
            return "skip";
        case Verdict::unable:
            return "unable";
        default:
            return "FAIL";
    }
}

size_t count(const std::vector<Result>& results, Verdict verdict) {
    return static_cast<size_t>(
        std::count_if(results.begin(), results.end(),
                      [=](const Result& result) { return result.verdict == verdict; }));
}

// The lines that explain a failure.
std::vector<std::string> explanation(const Result& result) {
    std::vector<std::string> lines = {"clause:   docs/kernel-interface.md, " +
                                      std::string(result.check->clause)};
    for (const std::string& step : result.steps) {
        lines.push_back((&step == &result.steps.front() ? "did:      " : "          ") + step);
    }
    lines.push_back("expected: " + result.expected);
    lines.push_back("saw:      " + result.saw);
    lines.push_back("means:    " + std::string(result.check->means));
    return lines;
}

class Text : public Report {
  public:
    void begin(const System& system, size_t checks, bool is_bare) override {
        is_bare_ = is_bare;
        printf("f2fs_driver_check of %s: %s, %s, %s; %zu checks\n", system.directory.c_str(),
               system.file_system.c_str(), system.kernel.c_str(), system.caller.c_str(), checks);
        if (is_bare) {
            puts(
                "This file system has none of the six snapshot requests: the library cannot make "
                "snapshots here.");
        }
    }

    void add(const Result& result) override {
        if (result.lacks_request && is_bare_) {
            return;
        }
        printf("%-6s %s%s%s\n", wordOf(result.verdict), result.check->name.c_str(),
               result.reason.empty() ? "" : ": ", result.reason.c_str());
        const bool is_known = is_bare_ && result.check->provides != NOTHING;
        if (result.verdict == Verdict::failed && !is_known) {
            for (const std::string& line : explanation(result)) {
                printf("         %s\n", line.c_str());
            }
        }
        for (const std::string& line : result.notes) {
            printf("         %s\n", line.c_str());
        }
    }

    void end(const std::vector<Result>& results) override {
        std::string names;
        for (const Result& result : results) {
            if (result.verdict == Verdict::failed) {
                names += " " + result.check->name;
            }
        }
        printf("%zu passed, %zu failed, %zu skipped", count(results, Verdict::passed),
               count(results, Verdict::failed), count(results, Verdict::skipped));
        const auto lacking = std::count_if(results.begin(), results.end(),
                                           [](const auto& result) { return result.lacks_request; });
        if (lacking != 0) {
            printf(" (%td for want of requests)", lacking);
        }
        if (const size_t unable = count(results, Verdict::unable)) {
            printf(", %zu could not run", unable);
        }
        printf("%s%s\n", names.empty() ? "" : "; failed:", names.c_str());
    }

  private:
    bool is_bare_ = false;
};

class Ktap : public Report {
  public:
    void begin(const System& system, size_t checks, bool /*is_bare*/) override {
        printf("KTAP version 1\n1..%zu\n", checks);
        printf("# f2fs_driver_check of %s: %s, %s, %s\n", system.directory.c_str(),
               system.file_system.c_str(), system.kernel.c_str(), system.caller.c_str());
    }

    void add(const Result& result) override {
        for (const std::string& line : result.notes) {
            printf("# %s\n", line.c_str());
        }
        if (result.verdict == Verdict::failed) {
            for (const std::string& line : explanation(result)) {
                printf("# %s\n", line.c_str());
            }
        }
        const bool holds = result.verdict == Verdict::passed || result.verdict == Verdict::skipped;
        printf("%s %zu %s%s\n", holds ? "ok" : "not ok", ++number_, result.check->name.c_str(),
               directive(result).c_str());
    }

    void end(const std::vector<Result>& results) override {
        printf("# Totals: pass:%zu fail:%zu xfail:0 xpass:0 skip:%zu error:%zu\n",
               count(results, Verdict::passed), count(results, Verdict::failed),
               count(results, Verdict::skipped), count(results, Verdict::unable));
    }

  private:
    static std::string directive(const Result& result) {
        if (result.verdict == Verdict::skipped) {
            return " # SKIP " + result.reason;
        }
        if (result.verdict == Verdict::unable) {
            return " # ERROR " + result.reason;
        }
        return result.is_over_time ? " # TIMEOUT" : "";
    }

    size_t number_ = 0;
};

// NOLINTNEXTLINE(bugprone-exception-escape): nlohmann::json allocates when it is destroyed
class Json : public Report {
  public:
    void begin(const System& system, size_t /*checks*/, bool /*is_bare*/) override {
        report_ = {{"program", "f2fs_driver_check"},   {"version", F2FS_DRIVER_CHECK_VERSION},
                   {"directory", system.directory},    {"file_system", system.file_system},
                   {"kernel", system.kernel},          {"caller", system.caller},
                   {"checks", nlohmann::json::array()}};
    }

    void add(const Result& result) override {
        nlohmann::json check = {{"name", result.check->name},
                                {"clause", result.check->clause},
                                {"verdict", wordOf(result.verdict)},
                                {"seconds", result.seconds},
                                {"notes", result.notes}};
        if (!result.reason.empty()) {
            check["reason"] = result.reason;
        }
        if (result.verdict == Verdict::failed) {
            check["did"] = result.steps;
            check["expected"] = result.expected;
            check["saw"] = result.saw;
            check["means"] = result.check->means;
        }
        report_["checks"].push_back(check);
    }

    void end(const std::vector<Result>& results) override {
        report_["passed"] = count(results, Verdict::passed);
        report_["failed"] = count(results, Verdict::failed);
        report_["skipped"] = count(results, Verdict::skipped);
        report_["unable"] = count(results, Verdict::unable);
        // File names need not be UTF-8.
        puts(report_.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    }

  private:
    nlohmann::json report_;
};

}  // namespace

std::unique_ptr<Report> makeReport(Format format) {
    switch (format) {
        case Format::ktap:
            return std::make_unique<Ktap>();
        case Format::json:
            return std::make_unique<Json>();
        default:
            return std::make_unique<Text>();
    }
}

void showProgress(const std::string& text) {
    if (isatty(STDERR_FILENO) != 0) {
        fprintf(stderr, "\r\033[K%s", text.c_str());
    }
}

void hideProgress() {
    if (isatty(STDERR_FILENO) != 0) {
        fprintf(stderr, "\r\033[K");
    }
}

}  // namespace driver_check
