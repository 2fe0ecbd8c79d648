// SPDX-License-Identifier: Apache-2.0
#include "manager/info.h"

#include <cstring>
#include <nlohmann/json.hpp>

#include "manager/failure.h"
#include "manager/file.h"

namespace manager {

namespace {

using nlohmann::json;

constexpr int FORMAT = 1;
constexpr char HEX[] = "0123456789ABCDEF";

int digitOf(char character) {
    const char* digit = strchr(HEX, character);
    return digit == nullptr || character == '\0' ? -1 : static_cast<int>(digit - HEX);
}

json toJson(const Finding& finding) {
    return {{"path", encodePath(finding.path)},
            {"kind", static_cast<int>(finding.kind)},
            {"severity", static_cast<int>(finding.severity)},
            {"os_error", finding.os_error},
            {"message", finding.message}};
}

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, path, shown(path) + " is damaged: " + why);
}

template <typename T>
bool isOf(const json& value) {
    return std::is_same_v<T, std::string> ? value.is_string()
           : std::is_same_v<T, bool>      ? value.is_boolean()
           : std::is_unsigned_v<T>        ? value.is_number_unsigned()
                                          : value.is_number_integer();
}

// Reads what is at a place like "instant/0". The library's own messages tell no user where.
template <typename T>
void read(const json& object, const std::string& place, T& value) {
    const json::json_pointer pointer("/" + place);
    const bool is_there = object.contains(pointer);
    if (!is_there || !isOf<T>(object.at(pointer))) {
        throw Failure(
            F2FS_SNAPSHOT_ERROR_FORMAT, "",
            "\"" + place + "\" " + (is_there ? "has a value of another type" : "is missing"));
    }
    object.at(pointer).get_to(value);
}

void readPath(const json& object, const std::string& place, std::string& path) {
    read(object, place, path);
    try {
        path = decodePath(path);
    } catch (const Failure& failure) {
        throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, "", "in \"" + place + "\", " + failure.message);
    }
}

// Calls read_element("list/0"), and so on for each element.
template <typename ReadElement>
void readList(const json& object, const std::string& list, ReadElement read_element) {
    if (!object.contains(list) || !object[list].is_array()) {
        throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, "", "it has no list \"" + list + "\"");
    }
    for (size_t i = 0; i < object[list].size(); ++i) {
        read_element(list + "/" + std::to_string(i));
    }
}

Finding findingFromJson(const json& object, const std::string& place) {
    Finding finding = {};
    int kind = 0;
    int severity = 0;
    readPath(object, place + "/path", finding.path);
    read(object, place + "/kind", kind);
    read(object, place + "/severity", severity);
    read(object, place + "/message", finding.message);
    read(object, place + "/os_error", finding.os_error);
    finding.kind = static_cast<f2fs_snapshot_finding_kind>(kind);
    finding.severity = static_cast<f2fs_snapshot_severity>(severity);
    return finding;
}

Info fromJson(const json& value) {
    Info info;
    readPath(value, "name", info.name);
    readList(value, "sources", [&](const std::string& place) {
        readPath(value, place, info.sources.emplace_back());
    });
    read(value, "created", info.created);
    read(value, "instant/0", info.instant_earliest);
    read(value, "instant/1", info.instant_latest);
    read(value, "files", info.counts.files);
    read(value, "directories", info.counts.directories);
    read(value, "links", info.counts.links);
    read(value, "bytes", info.counts.bytes);
    read(value, "attempts", info.attempts);
    read(value, "passes", info.passes);
    read(value, "files_again", info.files_again);
    read(value, "whole", info.whole);
    read(value, "links_blocked", info.links_blocked);
    read(value, "digests", info.has_digests);
    read(value, "temporary", info.is_temporary);
    readList(value, "findings", [&](const std::string& place) {
        info.findings.push_back(findingFromJson(value, place));
    });
    return info;
}

}  // namespace

std::string encodePath(const std::string& path) {
    std::string text;
    for (size_t i = 0; i < path.size();) {
        const size_t length = path[i] == '%' ? 0 : plainLength(path, i);
        if (length > 0) {
            text.append(path, i, length);
            i += length;
            continue;
        }
        const auto byte = static_cast<unsigned char>(path[i]);
        text += {'%', HEX[byte >> 4], HEX[byte & 0xF]};
        ++i;
    }
    return text;
}

std::string decodePath(const std::string& text) {
    std::string path;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            path += text[i];
            continue;
        }
        const int high = i + 3 <= text.size() ? digitOf(text[i + 1]) : -1;
        const int low = i + 3 <= text.size() ? digitOf(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
            throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, text, shown(text) + " is no encoded path");
        }
        path += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return path;
}

std::string infoToJson(const Info& info) {
    json sources = json::array();
    for (const std::string& source : info.sources) {
        sources.push_back(encodePath(source));
    }
    json findings = json::array();
    for (const Finding& finding : info.findings) {
        findings.push_back(toJson(finding));
    }
    const json value = {{"format", FORMAT},
                        {"name", encodePath(info.name)},
                        {"sources", sources},
                        {"created", info.created},
                        {"instant", {info.instant_earliest, info.instant_latest}},
                        {"files", info.counts.files},
                        {"directories", info.counts.directories},
                        {"links", info.counts.links},
                        {"bytes", info.counts.bytes},
                        {"attempts", info.attempts},
                        {"passes", info.passes},
                        {"files_again", info.files_again},
                        {"whole", info.whole},
                        {"links_blocked", info.links_blocked},
                        {"digests", info.has_digests},
                        {"temporary", info.is_temporary},
                        {"findings", findings}};
    return value.dump(2) + "\n";
}

Info infoFromJson(const std::string& text, const std::string& path) {
    int format = 0;
    try {
        const json value = json::parse(text);
        read(value, "format", format);
        if (format == FORMAT) {
            return fromJson(value);
        }
    } catch (const json::parse_error& error) {
        refuse(path, "it is no JSON from byte " + std::to_string(error.byte) + " on");
    } catch (const Failure& failure) {
        refuse(path, failure.message);
    }
    throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, path,
                  shown(path) + " has the unknown format " + std::to_string(format) +
                      ": a newer version has made it");
}

Info readInfo(int directory, const std::string& path, const std::string& name) {
    const std::string file = path + "/" + INFO_FILE;
    std::string text;
    try {
        text = readFile(directory, INFO_FILE, file);
    } catch (const Failure& failure) {
        refuse(file, reasonOf(failure.os_error));
    }
    Info info = infoFromJson(text, file);
    info.name = name;  // the owner may have renamed the directory
    info.path = path + "/snapshot";
    return info;
}

}  // namespace manager
