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

Finding findingFromJson(const json& value) {
    return {decodePath(value.at("path")),
            static_cast<f2fs_snapshot_finding_kind>(value.at("kind").get<int>()),
            static_cast<f2fs_snapshot_severity>(value.at("severity").get<int>()),
            value.at("message"), value.at("os_error")};
}

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
    throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, path, shown(path) + " is damaged: " + why);
}

Info fromJson(const json& value) {
    Info info;
    info.name = decodePath(value.at("name"));
    for (const json& source : value.at("sources")) {
        info.sources.push_back(decodePath(source));
    }
    value.at("created").get_to(info.created);
    value.at("instant").at(0).get_to(info.instant_earliest);
    value.at("instant").at(1).get_to(info.instant_latest);
    value.at("files").get_to(info.counts.files);
    value.at("directories").get_to(info.counts.directories);
    value.at("links").get_to(info.counts.links);
    value.at("bytes").get_to(info.counts.bytes);
    value.at("attempts").get_to(info.attempts);
    value.at("passes").get_to(info.passes);
    value.at("files_again").get_to(info.files_again);
    value.at("whole").get_to(info.whole);
    value.at("links_blocked").get_to(info.links_blocked);
    value.at("digests").get_to(info.has_digests);
    value.at("temporary").get_to(info.is_temporary);
    for (const json& finding : value.at("findings")) {
        info.findings.push_back(findingFromJson(finding));
    }
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
        value.at("format").get_to(format);
        if (format == FORMAT) {
            return fromJson(value);
        }
    } catch (const json::exception& error) {
        refuse(path, shown(error.what()));
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
