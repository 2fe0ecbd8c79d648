// SPDX-License-Identifier: Apache-2.0
// info.json: what is known about a generation.
//
//     {"format": 1, "name": "a", "sources": ["/data/x"], "created": NANOSECONDS,
//      "instant": [EARLIEST, LATEST], "files": 3, "directories": 1, "links": 0, "bytes": 12,
//      "attempts": 1, "passes": 1, "files_again": 0, "whole": true, "links_blocked": true,
//      "digests": false, "temporary": false, "findings": [{"path": "/data/x/a", "kind": 8,
//      "severity": 2, "os_error": 0, "message": "..."}]}
//
// JSON is Unicode text. Bytes of paths that are not UTF-8, control characters and "%" are written
// as %XX. A reader ignores unknown members and rejects any format but 1.
#pragma once

#include <string>

#include "manager/results.h"

namespace manager {

constexpr char INFO_FILE[] = "info.json";

std::string infoToJson(const Info& info);

// path  of the file, for messages. Throws ERROR_FORMAT.
Info infoFromJson(const std::string& text, const std::string& path);

// Reads the file from a generation's open `directory` at `path`. Throws ERROR_FORMAT.
Info readInfo(int directory, const std::string& path, const std::string& name);

// Encodes a path for JSON, and decodes it. Throws ERROR_FORMAT for a "%" without two hex digits.
std::string encodePath(const std::string& path);
std::string decodePath(const std::string& text);

}  // namespace manager
