// SPDX-License-Identifier: Apache-2.0
// f2fs_emulator: shows a directory as a volume of the driver. Reads the command line.
#include <getopt.h>
#include <unistd.h>

#include <cstdio>

#include "emulator/serve.h"

namespace {

using emulator::Options;

constexpr char USAGE[] =
    "Usage: f2fs_emulator BACKING_DIR MOUNT_POINT [-f] [-o FUSE_OPTIONS]\n"
    "Show BACKING_DIR at MOUNT_POINT as a volume of the F2FS driver with its snapshot requests.\n"
    "\n"
    "  -f             stay in the foreground\n"
    "  -o OPTIONS     mount options of FUSE, separated by commas\n"
    "  -h, --help     print this help\n"
    "  -V, --version  print the version\n"
    "\n"
    "Ends with SIGINT, SIGTERM or SIGHUP, or when unmounted: fusermount3 -u MOUNT_POINT\n";

void addMountOption(Options& options, const char* words) {
    fuse_opt_add_arg(&options.mount_arguments, "-o");
    fuse_opt_add_arg(&options.mount_arguments, words);
}

void addDefaults(Options& options) {
    fuse_opt_add_arg(&options.mount_arguments, "f2fs_emulator");
    addMountOption(options, "default_permissions,fsname=f2fs_emulator,subtype=f2fs_emulator");
    if (geteuid() == 0) {
        addMountOption(options, "allow_other");
    }
}

// Returns the exit status to end with, or -1 to go on.
int parseOptions(int argc, char** argv, Options& options) {
    const option long_options[] = {{"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int word; (word = getopt_long(argc, argv, "fo:hV", long_options, nullptr)) != -1;) {
        switch (word) {
            case 'f':
                options.foreground = true;
                break;
            case 'o':
                addMountOption(options, optarg);
                break;
            case 'h':
                fputs(USAGE, stdout);
                return 0;
            case 'V':
                puts("f2fs_emulator " F2FS_EMULATOR_VERSION);
                return 0;
            default:
                fputs(USAGE, stderr);
                return 2;
        }
    }
    if (argc - optind != 2) {
        fputs(USAGE, stderr);
        return 2;
    }
    options.backing = argv[optind];
    options.mount_point = argv[optind + 1];
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    addDefaults(options);
    int status = parseOptions(argc, argv, options);
    if (status < 0) {
        status = emulator::serve(options) == 0 ? 0 : 1;
    }
    fuse_opt_free_args(&options.mount_arguments);
    return status;
}
