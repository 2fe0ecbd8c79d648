// SPDX-License-Identifier: Apache-2.0
// Compares the engine with bare loops of the same system calls, and with itself without its log.
//
// usage: bench_engine SOURCE TARGET     both on one file system; SOURCE holds directories of files
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <vector>

#include "bench/bench.h"
#include "bench/stub.h"
#include "snapshot/snapshot.h"

namespace {

std::string source;
std::string target;
std::string root;    // of the snapshot
std::string mirror;  // of the source in it
long lines = 0;      // that the last measured operation logged

// The paths that the engine will form, in the order in which the streams yield the names.
struct Entry {
    std::string path;
    std::string snapshot;
};
struct Directory {
    Entry entry;
    std::vector<Entry> files;
};
using Plan = std::vector<Directory>;

std::vector<Entry> list(const std::string& directory) {
    std::vector<Entry> entries;
    DIR* const stream = opendir(directory.c_str());
    require(stream != nullptr, directory);
    while (const dirent* entry = readdir(stream)) {
        if (entry->d_name[0] != '.') {
            const std::string path = directory + "/" + entry->d_name;
            entries.push_back({path, root + path});
        }
    }
    closedir(stream);
    return entries;
}

Plan plan(const std::string& top) {
    Plan directories;
    for (const Entry& entry : list(top)) {
        directories.push_back({entry, list(entry.path)});
    }
    return directories;
}

DIR* readWhole(const std::string& directory) {
    DIR* const stream = opendir(directory.c_str());
    while (readdir(stream) != nullptr) {
    }
    return stream;
}

// The calls of a walk and nothing else.
template <typename OnDirectory, typename OnFile>
void bareWalk(const std::string& top, const Plan& directories, OnDirectory onDirectory,
              OnFile onFile) {
    DIR* const top_stream = readWhole(top);
    for (const Directory& directory : directories) {
        onDirectory(directory.entry);
        DIR* const stream = readWhole(directory.entry.path);
        for (const Entry& file : directory.files) {
            onFile(directory, file);
        }
        closedir(stream);
    }
    closedir(top_stream);
}

void nothing(const Entry& /*directory*/) {}

void bareFilePrepare(const Directory& directory, const Entry& file) {
    const int source_fd = open(file.path.c_str(), O_RDWR);
    if (!stub_layered) {
        close(open(directory.entry.path.c_str(), O_RDWR | O_TMPFILE, 0770));
    }
    close(source_fd);
}

void bareFileSnapshot(const Entry& file) {
    const int source_fd = open(file.path.c_str(), O_RDONLY);
    struct stat source_stat;
    stat(file.path.c_str(), &source_stat);
    const int fd = open(file.snapshot.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0440);
    require(fallocate(fd, 0, 0, source_stat.st_size) == 0, file.snapshot);
    close(fd);
    close(source_fd);
}

void bareFileCheck(const Entry& file) {
    close(open(file.path.c_str(), O_RDONLY));
    struct stat snapshot_stat;
    require(stat(file.snapshot.c_str(), &snapshot_stat) == 0, file.snapshot);
}

void barePrepare(const Plan& directories) {
    bareWalk(source, directories, nothing, bareFilePrepare);
}

void bareCheck(const Plan& directories) {
    bareWalk(source, directories, nothing,
             [](const Directory&, const Entry& file) { bareFileCheck(file); });
}

void makeMissing(const std::string& path) {
    struct stat attributes;
    for (size_t end = 1; end != std::string::npos;) {
        end = path.find('/', end + 1);
        const std::string directory = path.substr(0, end);
        require(stat(directory.c_str(), &attributes) == 0 || mkdir(directory.c_str(), 0770) == 0,
                directory);
    }
}

void bareCreate(const Plan& directories) {
    struct stat root_stat;
    require(stat(root.c_str(), &root_stat) != 0, root + " is gone");
    makeMissing(root);
    makeMissing(mirror);
    const auto makeDirectory = [](const Entry& directory) {
        mkdir(directory.snapshot.c_str(), 0770);
    };
    bareWalk(source, directories, makeDirectory, [](const Directory& directory, const Entry& file) {
        bareFilePrepare(directory, file);
        bareFileSnapshot(file);
    });
    bareCheck(directories);
}

void bareDestroy(const Plan& directories) {
    std::vector<DIR*> above;
    for (size_t end = root.size(); end != std::string::npos; end = mirror.find('/', end + 1)) {
        above.push_back(readWhole(mirror.substr(0, end)));
    }
    bareWalk(mirror, directories, nothing,
             [](const Directory&, const Entry& file) { unlink(file.path.c_str()); });
    for (const Directory& directory : directories) {
        rmdir(directory.entry.path.c_str());
    }
    rmdir(mirror.c_str());
    for (std::string path = mirror; !above.empty(); above.pop_back()) {
        path.resize(path.rfind('/'));
        closedir(above.back());
        require(rmdir(path.c_str()) == 0, path);
    }
}

void prepare() {
    require(PreCreateDirSnapshot({source}) == 0, "prepare");
}
void create() {
    require(CreateDirSnapshot({source}, target) == 0, "create");
}
void check() {
    std::vector<file_info> modified;
    require(checkModifyFiles(source, modified, root) == 0 && modified.empty(), "check");
}
void destroy() {
    require(DestroyDirSnapshot(target) == 0, "destroy");
}
void nothingBefore() {}

struct Operation {
    const char* name;
    bool layered;
    int times;  // in one measurement; more than once only if nothing is changed
    void (*before)();
    void (*engine)();
    void (*bare)(const Plan&);
    void (*after)();
};

constexpr Operation OPERATIONS[] = {
    {"prepare", false, 1, nothingBefore, prepare, barePrepare, nothingBefore},
    {"prepare, layered before", true, 5, nothingBefore, prepare, barePrepare, nothingBefore},
    {"create", false, 1, nothingBefore, create, bareCreate, destroy},
    {"create, layered before", true, 1, nothingBefore, create, bareCreate, destroy},
    {"check", false, 5, create, check, bareCheck, destroy},
    {"destroy", false, 1, create, destroy, bareDestroy, nothingBefore},
};

// Measures one of the two forms of an operation, between its preparation and its cleanup.
Cost perform(const Operation& operation, bool bare, bool log = false) {
    stub_layered = operation.layered;
    operation.before();
    const Plan directories = plan(operation.bare == bareDestroy ? mirror : source);
    usleep(50'000);  // the kernel frees removed files in the background
    stub_log_on = log;
    stub_log_lines = 0;
    const Cost cost = measure([&] {
        for (int i = 0; i < operation.times; ++i) {
            bare ? operation.bare(directories) : operation.engine();
        }
    });
    stub_log_on = false;
    lines = stub_log_lines;
    operation.after();
    return cost;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    require(argc == 3, "usage: bench_engine SOURCE TARGET");
    source = argv[1];
    target = argv[2];
    root = target + "/snapshot";
    mirror = root + source;
    // The log library writes to standard error; the report goes to standard output.
    require(freopen("/dev/null", "w", stderr) != nullptr, "/dev/null");
    double files = 0;
    for (const Directory& directory : plan(source)) {
        files += static_cast<double>(directory.files.size());
    }
    for (const Operation& operation : OPERATIONS) {
        registerContest(
            operation.name, files * operation.times, [&] { return perform(operation, false); },
            [&] { return perform(operation, true); });
    }
    for (const Operation& operation : {OPERATIONS[0], OPERATIONS[2]}) {
        perform(operation, false);
        const std::string per_file = std::to_string(static_cast<double>(lines) / files);
        registerContest(
            std::string("log/") + operation.name + "/" + per_file, files,
            [=] { return perform(operation, false, true); },
            [=] { return perform(operation, false); });
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
