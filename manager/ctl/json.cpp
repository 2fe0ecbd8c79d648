// SPDX-License-Identifier: Apache-2.0
#include "manager/ctl/json.h"

#include <algorithm>
#include <iterator>

#include "manager/ctl/text.h"
#include "manager/failure.h"

namespace ctl {

namespace {

struct Word {
    int32_t number;
    const char* text;
};

constexpr Word KINDS[] = {
    {F2FS_SNAPSHOT_FOUND_NO_DRIVER, "no-driver"},
    {F2FS_SNAPSHOT_FOUND_ENTRY_TYPE, "entry-type"},
    {F2FS_SNAPSHOT_FOUND_FILE_SIZE, "file-size"},
    {F2FS_SNAPSHOT_FOUND_FILE_ACCESS, "file-access"},
    {F2FS_SNAPSHOT_FOUND_DIRECTORY_ACCESS, "directory-access"},
    {F2FS_SNAPSHOT_FOUND_PATH_LENGTH, "path-length"},
    {F2FS_SNAPSHOT_FOUND_DEPTH, "depth"},
    {F2FS_SNAPSHOT_FOUND_HARD_LINK, "hard-link"},
    {F2FS_SNAPSHOT_FOUND_MOUNT, "mount"},
    {F2FS_SNAPSHOT_FOUND_OTHER_VOLUME, "other-volume"},
    {F2FS_SNAPSHOT_FOUND_SEMICOLON, "semicolon"},
    {F2FS_SNAPSHOT_FOUND_APPEARED, "appeared"},
    {F2FS_SNAPSHOT_FOUND_VANISHED, "vanished"},
    {F2FS_SNAPSHOT_FOUND_REPLACED, "replaced"},
    {F2FS_SNAPSHOT_FOUND_DIRECTORY_CHANGED, "directory-changed"},
    {F2FS_SNAPSHOT_FOUND_DIRECTORY_UNREADABLE, "directory-unreadable"},
    {F2FS_SNAPSHOT_FOUND_NOT_TAKEN, "not-taken"},
    {F2FS_SNAPSHOT_FOUND_MISSING, "missing"},
    {F2FS_SNAPSHOT_FOUND_UNEXPECTED, "unexpected"},
    {F2FS_SNAPSHOT_FOUND_TYPE_DIFFERS, "type-differs"},
    {F2FS_SNAPSHOT_FOUND_SIZE_DIFFERS, "size-differs"},
    {F2FS_SNAPSHOT_FOUND_LINK_DIFFERS, "link-differs"},
    {F2FS_SNAPSHOT_FOUND_DIGEST_DIFFERS, "digest-differs"},
    {F2FS_SNAPSHOT_FOUND_UNREADABLE, "unreadable"},
    {F2FS_SNAPSHOT_FOUND_OWNER_NOT_SET, "owner-not-set"},
    {F2FS_SNAPSHOT_FOUND_ATTRIBUTE_NOT_SET, "attribute-not-set"},
    {F2FS_SNAPSHOT_FOUND_LINK_NOT_SET, "link-not-set"},
    {F2FS_SNAPSHOT_FOUND_IN_THE_WAY, "in-the-way"},
};

constexpr Word SEVERITIES[] = {
    {F2FS_SNAPSHOT_FAILS, "fails"},
    {F2FS_SNAPSHOT_UNCOVERED, "uncovered"},
    {F2FS_SNAPSHOT_NOTE, "note"},
};

constexpr Word CODES[] = {
    {F2FS_SNAPSHOT_ERROR_ARGUMENT, "argument"},   {F2FS_SNAPSHOT_ERROR_SYSTEM, "system"},
    {F2FS_SNAPSHOT_ERROR_STORE, "store"},         {F2FS_SNAPSHOT_ERROR_SOURCE, "source"},
    {F2FS_SNAPSHOT_ERROR_NAME, "name"},           {F2FS_SNAPSHOT_ERROR_EXISTS, "exists"},
    {F2FS_SNAPSHOT_ERROR_NOT_FOUND, "not-found"}, {F2FS_SNAPSHOT_ERROR_BUSY, "busy"},
    {F2FS_SNAPSHOT_ERROR_CANCELLED, "cancelled"}, {F2FS_SNAPSHOT_ERROR_TIMEOUT, "timeout"},
    {F2FS_SNAPSHOT_ERROR_LIBRARY, "library"},     {F2FS_SNAPSHOT_ERROR_NOT_WHOLE, "not-whole"},
    {F2FS_SNAPSHOT_ERROR_FORMAT, "format"},       {F2FS_SNAPSHOT_ERROR_UNSUPPORTED, "unsupported"},
    {F2FS_SNAPSHOT_ERROR_MEMORY, "memory"},       {F2FS_SNAPSHOT_ERROR_INTERNAL, "internal"},
};

// The library can be newer than this program.
template <size_t N>
const char* wordFor(const Word (&words)[N], int32_t number) {
    const Word* word = std::find_if(std::begin(words), std::end(words),
                                    [&](const Word& each) { return each.number == number; });
    return word == std::end(words) ? "other" : word->text;
}

}  // namespace

std::string pathText(const char* path) {
    const std::string bytes = path;
    std::string text;
    for (size_t i = 0; i < bytes.size();) {
        const size_t length = bytes[i] == '%' ? 0 : manager::plainLength(bytes, i);
        if (length > 0) {
            text.append(bytes, i, length);
            i += length;
            continue;
        }
        char escape[4];
        snprintf(escape, sizeof(escape), "%%%02X", static_cast<unsigned char>(bytes[i++]));
        text += escape;
    }
    return text;
}

Json findingsJson(const Findings& findings) {
    Json list = Json::array();
    for (const f2fs_snapshot_finding* finding : findings) {
        list.push_back({{"path", pathText(finding->path)},
                        {"kind", wordFor(KINDS, finding->kind)},
                        {"severity", wordFor(SEVERITIES, finding->severity)},
                        {"os_error", finding->os_error},
                        {"message", finding->message}});
    }
    return list;
}

Json infoJson(const f2fs_snapshot_info& info) {
    Json sources = Json::array();
    for (size_t i = 0; i < info.source_count; ++i) {
        sources.push_back(pathText(info.sources[i]));
    }
    return {
        {"name", pathText(info.name)},
        {"path", pathText(info.path)},
        {"sources", sources},
        {"created", utcTime(info.created)},
        {"instant",
         {{"earliest", utcTime(info.instant_earliest)}, {"latest", utcTime(info.instant_latest)}}},
        {"files", info.files},
        {"directories", info.directories},
        {"links", info.links},
        {"bytes", info.bytes},
        {"attempts", info.attempts},
        {"passes", info.passes},
        {"files_again", info.files_again},
        {"whole", info.whole != 0},
        {"links_blocked", info.links_blocked != 0},
        {"digests", info.has_digests != 0},
        {"temporary", info.temporary != 0},
        {"findings", findingsJson(findingsOf(info))}};
}

Json errorJson(const f2fs_snapshot_error& error) {
    return {{"code", wordFor(CODES, error.code)},
            {"os_error", error.os_error},
            {"path", pathText(error.path)},
            {"message", error.message}};
}

void addReport(Json& document, const f2fs_snapshot_report& report) {
    document["files"] = report.files;
    document["directories"] = report.directories;
    document["links"] = report.links;
    document["bytes"] = report.bytes;
    document["findings"] = findingsJson(findingsOf(report));
}

void print(const Json& document, FILE* out) {
    fprintf(out, "%s\n", document.dump(2).c_str());
}

}  // namespace ctl
