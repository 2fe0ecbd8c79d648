// SPDX-License-Identifier: Apache-2.0
#include "manager/results.h"

#include <memory>

namespace manager {

namespace {

// The structures point into the C++ values that they are made with.
struct OwnedReport : f2fs_snapshot_report {
    Report values;
    std::vector<f2fs_snapshot_finding> list;
};

struct OwnedInfo : f2fs_snapshot_info {
    Info values;
    std::vector<const char*> source_list;
    std::vector<f2fs_snapshot_finding> list;
};

std::vector<f2fs_snapshot_finding> listOf(const std::vector<Finding>& findings) {
    std::vector<f2fs_snapshot_finding> list;
    list.reserve(findings.size());
    for (const Finding& finding : findings) {
        list.push_back({finding.path.c_str(), finding.kind, finding.severity, finding.os_error,
                        finding.message.c_str()});
    }
    return list;
}

// The members that both structures have.
template <typename Owned>
void fill(Owned& owned, const Counts& counts) {
    owned.list = listOf(owned.values.findings);
    owned.findings = owned.list.data();
    owned.finding_count = owned.list.size();
    owned.finding_size = sizeof(f2fs_snapshot_finding);
    owned.files = counts.files;
    owned.directories = counts.directories;
    owned.links = counts.links;
    owned.bytes = counts.bytes;
}

}  // namespace

f2fs_snapshot_report* newReport(Report report) {
    auto owned = std::make_unique<OwnedReport>();
    owned->values = std::move(report);
    owned->size = sizeof(f2fs_snapshot_report);
    fill(*owned, owned->values.counts);
    return owned.release();
}

f2fs_snapshot_info* newInfo(Info info) {
    auto owned = std::make_unique<OwnedInfo>();
    owned->values = std::move(info);
    const Info& values = owned->values;
    for (const std::string& source : values.sources) {
        owned->source_list.push_back(source.c_str());
    }
    owned->size = sizeof(f2fs_snapshot_info);
    owned->name = values.name.c_str();
    owned->path = values.path.c_str();
    owned->sources = owned->source_list.data();
    owned->source_count = owned->source_list.size();
    owned->created = values.created;
    owned->instant_earliest = values.instant_earliest;
    owned->instant_latest = values.instant_latest;
    owned->attempts = values.attempts;
    owned->passes = values.passes;
    owned->files_again = values.files_again;
    owned->whole = values.whole ? 1 : 0;
    owned->links_blocked = values.links_blocked ? 1 : 0;
    owned->has_digests = values.has_digests ? 1 : 0;
    owned->temporary = values.is_temporary ? 1 : 0;
    fill(*owned, values.counts);
    return owned.release();
}

void freeReport(f2fs_snapshot_report* report) {
    delete static_cast<OwnedReport*>(report);
}

void freeInfo(f2fs_snapshot_info* info) {
    delete static_cast<OwnedInfo*>(info);
}

}  // namespace manager
