// SPDX-License-Identifier: Apache-2.0
// The documents of --json, described by docs/f2fs_snapshotctl.schema.json.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "manager/ctl/library.h"

namespace ctl {

using Json = nlohmann::ordered_json;

// A path as text: bytes that are not UTF-8, control characters and "%" become %XX.
std::string pathText(const char* path);

Json findingsJson(const Findings& findings);
Json infoJson(const f2fs_snapshot_info& info);
Json errorJson(const f2fs_snapshot_error& error);

// Adds what a report counted, and its findings.
void addReport(Json& document, const f2fs_snapshot_report& report);

void print(const Json& document, FILE* out = stdout);

}  // namespace ctl
