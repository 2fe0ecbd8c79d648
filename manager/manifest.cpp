// SPDX-License-Identifier: Apache-2.0
#include "manager/manifest.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <sstream>

#include "manager/failure.h"
#include "manager/file.h"
#include "manager/walk.h"

namespace manager {

namespace {

constexpr int64_t SECOND = 1000000000;
constexpr size_t DIGEST_SIZE = 32;

using EntryPointer = std::unique_ptr<archive_entry, void (*)(archive_entry*)>;

[[noreturn]] void failArchive(archive* archive, const std::string& path, f2fs_snapshot_code code) {
    const char* reason = archive_error_string(archive);
    throw Failure(code, path,
                  (code == F2FS_SNAPSHOT_ERROR_FORMAT ? shown(path) + " is damaged: "
                                                      : "cannot write " + shown(path) + ": ") +
                      (reason == nullptr ? "unknown reason" : reason),
                  archive_errno(archive));
}

EntryPointer entryOf(const Recorded& line) {
    EntryPointer entry(archive_entry_new(), archive_entry_free);
    if (!entry) {
        throw std::bad_alloc();
    }
    archive_entry_set_pathname(entry.get(), ("." + line.path).c_str());
    archive_entry_set_mode(entry.get(), line.mode);
    archive_entry_set_uid(entry.get(), line.owner);
    archive_entry_set_gid(entry.get(), line.group);
    const int64_t rest = (line.modified % SECOND + SECOND) % SECOND;
    // A time_t of 32 bits ends in 2038.
    const int64_t seconds =
        std::min<int64_t>((line.modified - rest) / SECOND, std::numeric_limits<time_t>::max());
    archive_entry_set_mtime(entry.get(), static_cast<time_t>(seconds), static_cast<long>(rest));
    archive_entry_set_ino64(entry.get(), static_cast<int64_t>(line.inode));
    archive_entry_set_nlink(entry.get(), line.names);
    archive_entry_set_size(entry.get(), static_cast<int64_t>(line.size));
    if (S_ISLNK(line.mode)) {
        archive_entry_set_symlink(entry.get(), line.link.c_str());
    }
    return entry;
}

std::unique_ptr<archive, int (*)(archive*)> newWriter(const std::string& path, bool has_digests) {
    std::unique_ptr<archive, int (*)(archive*)> writer(archive_write_new(), archive_write_free);
    if (!writer) {
        throw std::bad_alloc();
    }
    const char* options = has_digests ? "!all,type,mode,uid,gid,time,inode,nlink,size,link,sha256"
                                      : "!all,type,mode,uid,gid,time,inode,nlink,size,link";
    if (archive_write_set_format_mtree(writer.get()) != ARCHIVE_OK ||
        archive_write_set_options(writer.get(), options) != ARCHIVE_OK) {
        failArchive(writer.get(), path, F2FS_SNAPSHOT_ERROR_SYSTEM);
    }
    return writer;
}

std::unique_ptr<archive, int (*)(archive*)> newReader() {
    std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
    if (!reader) {
        throw std::bad_alloc();
    }
    archive_read_support_format_mtree(reader.get());
    return reader;
}

std::string digestIn(archive_entry* entry) {
    const unsigned char* digest = archive_entry_digest(entry, ARCHIVE_ENTRY_DIGEST_SHA256);
    const std::string bytes(reinterpret_cast<const char*>(digest), DIGEST_SIZE);
    return bytes == std::string(DIGEST_SIZE, '\0') ? "" : bytes;
}

Recorded lineOf(archive_entry* entry) {
    Recorded line;
    const char* path = archive_entry_pathname(entry);
    line.path = path == nullptr ? "" : path;
    line.mode = archive_entry_mode(entry);
    line.owner = static_cast<uint32_t>(archive_entry_uid(entry));
    line.group = static_cast<uint32_t>(archive_entry_gid(entry));
    line.modified = archive_entry_mtime(entry) * SECOND + archive_entry_mtime_nsec(entry);
    line.inode = static_cast<uint64_t>(archive_entry_ino64(entry));
    line.names = archive_entry_nlink(entry);
    line.size = static_cast<uint64_t>(archive_entry_size(entry));
    const char* link = archive_entry_symlink(entry);
    line.link = link == nullptr ? "" : link;
    line.digest = digestIn(entry);
    return line;
}

// content  of a regular file, to be read from its start; -1: none
void addEntry(archive* writer, const std::string& path, const Recorded& line, int content,
              const std::function<void()>& on_progress) {
    if (archive_write_header(writer, entryOf(line).get()) != ARCHIVE_OK) {
        failArchive(writer, path, F2FS_SNAPSHOT_ERROR_SYSTEM);
    }
    if (content < 0) {
        return;
    }
    // Most files are small: a large buffer for each would take longer than its digest.
    constexpr uint64_t MOST = 1 << 18;
    std::vector<char> buffer(static_cast<size_t>(std::clamp(line.size, UINT64_C(1), MOST)));
    off_t offset = 0;
    for (ssize_t length; (length = pread(content, buffer.data(), buffer.size(), offset)) != 0;) {
        if (length < 0) {
            failSystem("read the snapshot of", line.path);
        }
        if (archive_write_data(writer, buffer.data(), static_cast<size_t>(length)) < 0) {
            failArchive(writer, path, F2FS_SNAPSHOT_ERROR_SYSTEM);
        }
        offset += length;
        on_progress();
    }
}

}  // namespace

ManifestWriter::ManifestWriter(int directory, const std::string& path, bool has_digests)
    : path_(path + "/" + MANIFEST_FILE),
      has_digests_(has_digests),
      fd_(openat(directory, MANIFEST_FILE, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                 S_IRUSR | S_IWUSR)),
      archive_(nullptr, archive_write_free) {
    if (!fd_.valid()) {
        failSystem("make", path_);
    }
    open();
}

void ManifestWriter::open() {
    archive_ = newWriter(path_, has_digests_);
    if (archive_write_open_fd(archive_.get(), fd_.get()) != ARCHIVE_OK) {
        failArchive(archive_.get(), path_, F2FS_SNAPSHOT_ERROR_SYSTEM);
    }
    held_ = 0;
}

void ManifestWriter::add(const Recorded& line, int content,
                         const std::function<void()>& on_progress) {
    // libarchive writes nothing before the end, and keeps some hundred bytes per line until then.
    constexpr size_t MOST_HELD = 4096;
    if (held_ == MOST_HELD) {
        close();
        open();
    }
    ++held_;
    addEntry(archive_.get(), path_, line, content, on_progress);
}

void ManifestWriter::close() {
    if (archive_write_close(archive_.get()) != ARCHIVE_OK) {
        failArchive(archive_.get(), path_, F2FS_SNAPSHOT_ERROR_SYSTEM);
    }
}

ManifestReader::ManifestReader(int directory, const std::string& path)
    : path_(path + "/" + MANIFEST_FILE),
      fd_(openat(directory, MANIFEST_FILE, O_RDONLY | O_NOFOLLOW | O_CLOEXEC)) {
    if (!fd_.valid()) {
        throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, path_,
                      shown(path_) + " is damaged: " + reasonOf(errno), errno);
    }
}

bool ManifestReader::next(Recorded& line) {
    while (next_ == part_.size()) {
        if (!readPart()) {
            return false;
        }
    }
    line = std::move(part_[next_++]);
    if (!last_.empty() && comparePaths(last_, line.path) >= 0) {
        throw Failure(
            F2FS_SNAPSHOT_ERROR_FORMAT, path_,
            shown(path_) + " is damaged: it has " + shown(line.path) + " behind " + shown(last_));
    }
    last_ = line.path;
    return true;
}

// False: there is none.
bool ManifestReader::readPart() {
    const std::string text = partText();
    part_.clear();
    next_ = 0;
    if (text.empty()) {
        return false;
    }
    const auto reader = newReader();
    archive_entry* entry = nullptr;
    int ret = archive_read_open_memory(reader.get(), text.data(), text.size());
    while (ret == ARCHIVE_OK &&
           (ret = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
        append(entry);
    }
    if (ret != ARCHIVE_EOF) {
        failArchive(reader.get(), path_, F2FS_SNAPSHOT_ERROR_FORMAT);
    }
    std::sort(part_.begin(), part_.end(), [](const Recorded& one, const Recorded& other) {
        return comparePaths(one.path, other.path) < 0;
    });
    return true;
}

// The file's text to the beginning of the next part, or to its end.
std::string ManifestReader::partText() {
    constexpr char START[] = "\n#mtree";
    char buffer[1 << 16];
    for (size_t searched = 0;;) {
        const size_t end = text_.find(START, searched);
        const ssize_t length =
            end == std::string::npos ? read(fd_.get(), buffer, sizeof buffer) : 0;
        if (length < 0) {
            failSystem("read", path_);
        }
        if (length == 0) {
            std::string part = text_.substr(0, end == std::string::npos ? end : end + 1);
            text_.erase(0, part.size());
            return part;
        }
        searched = text_.size() - std::min(text_.size(), sizeof START);
        text_.append(buffer, static_cast<size_t>(length));
    }
}

void ManifestReader::append(archive_entry* entry) {
    part_.push_back(lineOf(entry));
    if (part_.back().path.compare(0, 2, "./") != 0) {
        throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, path_,
                      shown(path_) + " is damaged: a path does not begin with \"./\"");
    }
    part_.back().path.erase(0, 1);
}

std::string digestOf(int file, uint64_t size, const std::string& path,
                     const std::function<void()>& on_progress) {
    // libarchive computes digests for the lines of a manifest only.
    char text[1024];
    size_t used = 0;
    const auto writer = newWriter(path, true);
    if (archive_write_open_memory(writer.get(), text, sizeof text, &used) != ARCHIVE_OK) {
        failArchive(writer.get(), path, F2FS_SNAPSHOT_ERROR_INTERNAL);
    }
    Recorded line;
    line.path = "/file";
    line.mode = S_IFREG;
    line.size = size;
    addEntry(writer.get(), path, line, file, on_progress);
    if (archive_write_close(writer.get()) != ARCHIVE_OK) {
        failArchive(writer.get(), path, F2FS_SNAPSHOT_ERROR_INTERNAL);
    }
    const auto reader = newReader();
    archive_entry* entry = nullptr;
    if (archive_read_open_memory(reader.get(), text, used) != ARCHIVE_OK ||
        archive_read_next_header(reader.get(), &entry) != ARCHIVE_OK) {
        failArchive(reader.get(), path, F2FS_SNAPSHOT_ERROR_INTERNAL);
    }
    std::string digest = digestIn(entry);
    if (digest.empty()) {
        throw Failure(F2FS_SNAPSHOT_ERROR_UNSUPPORTED, path,
                      "the libarchive of this system was built without SHA-256");
    }
    return digest;
}

namespace {

std::string escapedForDump(const std::string& text, bool is_name) {
    std::string escaped;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '\\' || character == '\n' || character == '\r' ||
            (is_name && character == '=')) {
            char octal[5];
            snprintf(octal, sizeof octal, "\\%03o", byte);
            escaped += octal;
        } else {
            escaped += character;
        }
    }
    return escaped;
}

// Undoes escapedForDump. Returns false for an incomplete escape.
bool unescapeDump(const std::string& text, std::string& plain) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            plain += text[i];
            continue;
        }
        unsigned value = 0;
        for (size_t digit = 1; digit <= 3; ++digit) {
            if (i + digit >= text.size() || text[i + digit] < '0' || text[i + digit] > '7') {
                return false;
            }
            value = value * 8 + static_cast<unsigned>(text[i + digit] - '0');
        }
        plain += static_cast<char>(value);
        i += 3;
    }
    return true;
}

// Converts "0x616263" to "abc". Returns false for text of another form.
bool fromHex(const std::string& text, std::string& bytes) {
    if (text.compare(0, 2, "0x") != 0 || text.size() % 2 != 0) {
        return false;
    }
    const auto digit = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    for (size_t i = 2; i < text.size(); i += 2) {
        const int high = digit(text[i]);
        const int low = digit(text[i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes += static_cast<char>(high * 16 + low);
    }
    return true;
}

std::string toHex(const std::string& bytes) {
    std::string text = "0x";
    for (const char byte : bytes) {
        text += "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4];
        text += "0123456789abcdef"[byte & 0xF];
    }
    return text;
}

// Returns false if the attribute cannot be read.
bool readAttribute(const std::string& target, const char* name, std::string& value) {
    value.resize(XATTR_SIZE_MAX);
    const ssize_t length = lgetxattr(target.c_str(), name, value.data(), value.size());
    value.resize(length < 0 ? 0 : static_cast<size_t>(length));
    return length >= 0;
}

}  // namespace

void collectAttributes(int parent, const char* name, const std::string& path,
                       Attributes& attributes) {
    // These calls take no directory descriptor.
    const std::string target = procPath(parent) + "/" + name;
    char names[XATTR_LIST_MAX];
    const ssize_t size = llistxattr(target.c_str(), names, sizeof names);
    for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(strlen(names + at)) + 1) {
        std::string value;
        if (strcmp(names + at, "security.selinux") != 0 &&
            readAttribute(target, names + at, value)) {
            attributes[path][names + at] = value;
        }
    }
}

void writeAttributes(int directory, const std::string& path, const Attributes& attributes) {
    if (attributes.empty()) {
        return;
    }
    std::string text;
    for (const auto& [file, values] : attributes) {
        text += "# file: " + escapedForDump("." + file, false) + "\n";
        for (const auto& [name, value] : values) {
            text += escapedForDump(name, true) + "=" + toHex(value) + "\n";
        }
        text += "\n";
    }
    writeFile(directory, ATTRIBUTES_FILE, path + "/" + ATTRIBUTES_FILE, text);
}

Attributes readAttributes(int directory, const std::string& path) {
    const std::string file = path + "/" + ATTRIBUTES_FILE;
    Attributes attributes;
    struct statx ignored = {};
    if (attributesOf(directory, ATTRIBUTES_FILE, ignored) == ENOENT) {
        return attributes;
    }
    constexpr char START[] = "# file: .";
    constexpr size_t START_LENGTH = sizeof START - 1;
    std::istringstream lines(readFile(directory, ATTRIBUTES_FILE, file));
    std::map<std::string, std::string>* values = nullptr;
    for (std::string line; std::getline(lines, line);) {
        std::string name;
        std::string value;
        const size_t split = line.find('=');
        if (line.empty()) {
            values = nullptr;
        } else if (line.compare(0, START_LENGTH, START) == 0 &&
                   unescapeDump(line.substr(START_LENGTH), name)) {
            values = &attributes[name];
        } else if (values != nullptr && split != std::string::npos &&
                   unescapeDump(line.substr(0, split), name) &&
                   fromHex(line.substr(split + 1), value)) {
            (*values)[name] = value;
        } else {
            throw Failure(F2FS_SNAPSHOT_ERROR_FORMAT, file,
                          shown(file) + " is damaged at \"" + shown(line.substr(0, 80)) + "\"");
        }
    }
    return attributes;
}

}  // namespace manager
