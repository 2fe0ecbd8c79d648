// SPDX-License-Identifier: Apache-2.0
#include "manager/check.h"

namespace manager {

namespace {

void count(const TreeWalk& walk, Counts& counts) {
    switch (walk.type()) {
        case S_IFDIR:
            ++counts.directories;
            break;
        case S_IFLNK:
            ++counts.links;
            break;
        case S_IFREG:
            ++counts.files;
            counts.bytes += walk.attributes().stx_size;
            break;
        default:
            break;
    }
}

}  // namespace

Report checkSources(const Store& store, const std::vector<Source>& sources, const std::string& name,
                    Monitor& monitor) {
    Report report;
    Rules rules(store, sources, name);
    monitor.begin(F2FS_SNAPSHOT_PHASE_LIST);
    for (const Source& source : sources) {
        TreeWalk walk(reopenSource(source), source.path);
        while (walk.next()) {
            const bool goes_on = rules.judge(walk);
            if (!goes_on) {
                walk.skip();
            } else if (walk.type() == S_IFREG) {
                tryFile(walk, rules);
                monitor.step();
            }
            count(walk, report.counts);
        }
    }
    report.findings = rules.take();
    return report;
}

}  // namespace manager
