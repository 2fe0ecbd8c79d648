// SPDX-License-Identifier: Apache-2.0
// Compares the emulator with bindfs, operation by operation on one backing directory, each time on
// files that the kernel has not seen through the mount before.
//
// usage: bench_operations BACKING_DIR EMULATOR_MOUNT BINDFS_MOUNT FILES ENTRIES
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "bench/bench.h"

namespace {

constexpr int BLOCK = 4096;

std::string fileName(const std::string& directory, int number) {
    return directory + "/IMG_20250101_" + std::to_string(100'000 + number) + ".jpg";
}

void createFiles(const std::string& directory, int count) {
    for (int i = 0; i < count; ++i) {
        const int fd = open(fileName(directory, i).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
        require(close(fd) == 0, directory);
    }
}

void statFiles(const std::string& directory, int count) {
    struct stat file_stat;
    for (int i = 0; i < count; ++i) {
        require(stat(fileName(directory, i).c_str(), &file_stat) == 0, directory);
    }
}

void readFiles(const std::string& directory, int count) {
    char data[BLOCK];
    for (int i = 0; i < count; ++i) {
        const int fd = open(fileName(directory, i).c_str(), O_RDONLY);
        require(read(fd, data, sizeof data) == BLOCK && close(fd) == 0, directory);
    }
}

void writeBlocks(const std::string& directory, int count) {
    const char data[BLOCK] = {};
    const int fd = open(fileName(directory, 0).c_str(), O_WRONLY);
    for (int i = 0; i < count; ++i) {
        require(pwrite(fd, data, sizeof data, i * off_t{BLOCK}) == BLOCK, directory);
    }
    close(fd);
}

void unlinkFiles(const std::string& directory, int count) {
    for (int i = 0; i < count; ++i) {
        require(unlink(fileName(directory, i).c_str()) == 0, directory);
    }
}

void listFiles(const std::string& directory, int count) {
    DIR* const stream = opendir(directory.c_str());
    int entries = -2;  // without "." and ".."
    while (readdir(stream) != nullptr) {
        ++entries;
    }
    closedir(stream);
    require(entries == count, directory);
}

struct Operation {
    const char* name;
    void (*act)(const std::string& directory, int count);
    int size;  // of the files that exist before; -1 for none
};

constexpr Operation OPERATIONS[] = {
    {"create", createFiles, -1},
    {"stat", statFiles, 0},
    {"open, read, close", readFiles, BLOCK},
    {"write", writeBlocks, 0},
    {"unlink", unlinkFiles, 0},
    {"readdir", listFiles, 0},
};

Cost perform(const Operation& operation, const std::string& backing, const std::string& mount,
             int count) {
    static int number = 0;
    const std::string name = "/directory" + std::to_string(++number);
    std::filesystem::create_directory(backing + name);
    for (int i = 0; operation.size >= 0 && i < count; ++i) {
        std::ofstream(fileName(backing + name, i))
            << std::string(static_cast<size_t>(operation.size), 'x');
    }
    const Cost cost = measure([&] { operation.act(mount + name, count); });
    std::filesystem::remove_all(mount + name);
    return cost;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    require(argc == 6, "usage: bench_operations BACKING EMULATOR BINDFS FILES ENTRIES");
    const std::string backing = argv[1];
    const std::string mounts[] = {argv[2], argv[3]};
    for (const Operation& operation : OPERATIONS) {
        const int count = atoi(argv[operation.act == listFiles ? 5 : 4]);
        registerContest(
            operation.name, count,
            [&, count] { return perform(operation, backing, mounts[0], count); },
            [&, count] { return perform(operation, backing, mounts[1], count); });
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
