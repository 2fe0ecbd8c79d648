// SPDX-License-Identifier: Apache-2.0
// The command-line tool: one command, one engine call, one verdict.
#include "tool/main.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "snapshot/log.h"
#include "snapshot/snapshot.h"
#include "tool/paths.h"

namespace {

constexpr char HELP[] =
    "Help:\n"
    "-------------precreatedirsnapshot-------------\n"
    "f2fs_snapshot pre [src_path_list]\n"
    "ex:      f2fs_snapshot pre /data/media/0/DCIM\n"
    "ex:      f2fs_snapshot pre \"/data/media/0/DCIM;/data/media/0/Download\"\n"
    "\n"
    "-------------createdirsnapshot-------------\n"
    "f2fs_snapshot create [src_path_list] [target_path]\n"
    "ex:      f2fs_snapshot create /data/media/0/DCIM /data/media/0/snapshotdir\n"
    "ex:      f2fs_snapshot create \"/data/media/0/DCIM;/data/media/0/Download\" "
    "/data/media/0/snapshotdir\n"
    "\n"
    "-------------destroydirsnapshot-------------\n"
    "f2fs_snapshot destroy [target_path]\n"
    "ex:      f2fs_snapshot destroy /data/media/0/snapshotdir\n"
    "\n"
    "-------------testcase-------------\n"
    "f2fs_snapshot testcase\n"
    "ex:      f2fs_snapshot testcase\n";

std::vector<std::string> pathList(const char* text) {
    std::vector<std::string> paths;
    splitDirsString(text, ';', paths);
    return paths;
}

struct command {
    const char* word;
    int argc;  // counts the program's name and the word
    int32_t (*run)(char** argv);
};

// A known word with another argument count is not a command.
constexpr command COMMANDS[] = {
    {"pre", 3, [](char** argv) { return PreCreateDirSnapshot(pathList(argv[2])); }},
    {"create", 4, [](char** argv) { return CreateDirSnapshot(pathList(argv[2]), argv[3]); }},
    {"destroy", 3, [](char** argv) { return DestroyDirSnapshot(argv[2]); }},
    {"testcase", 2, [](char**) { return default_testcase(); }},
};

int32_t runCommand(int argc, char** argv) {
    if (argc < 2 || argc > 4) {
        puts(HELP);
        printf("invalid argument number = %d\n", argc);
        return -EINVAL;
    }
    for (const command& candidate : COMMANDS) {
        if (strcmp(argv[1], candidate.word) == 0 && argc == candidate.argc) {
            return candidate.run(argv);
        }
    }
    puts(HELP);
    puts("invalid argument command");
    return -EINVAL;
}

}  // namespace

int32_t default_testcase() {
    const std::vector<std::string> sources = {"/data/media/0/DCIM", "/data/media/0/Documents"};
    const std::string target = "/data/media/0/snapshotdir_001";
    LOG_INFO("---defaulttestcase enter---\n");
    int32_t ret = PreCreateDirSnapshot(sources);
    if (ret != 0) {
        return ret;
    }
    ret = CreateDirSnapshot(sources, target);
    if (ret != 0) {
        return ret;
    }
    ret = DestroyDirSnapshot(target);
    if (ret != 0) {
        return ret;
    }
    LOG_INFO("---defaulttestcase exit---\n");
    return 0;
}

int main(int argc, char** argv) {
    const int32_t ret = runCommand(argc, argv);
    if (ret != 0) {
        printf("execute fail ret = %d\n", ret);
        return ret;
    }
    puts("execute sucess");
    return 0;
}
