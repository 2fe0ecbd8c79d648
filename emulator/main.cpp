// SPDX-License-Identifier: Apache-2.0
// f2fs_emulator: shows a folder as a volume of the driver.
#include <fcntl.h>
#include <getopt.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "emulator/file_state.h"
#include "emulator/inode.h"
#include "emulator/operations.h"

namespace fs = std::filesystem;

namespace {

using emulator::ProcPath;
using emulator::UniqueFd;
using emulator::Volume;

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

struct Options {
    std::string backing;
    std::string mount_point;
    fs::path mount_path;  // the mount point, absolute: the daemon leaves for the root folder
    bool foreground = false;
    bool shares_blocks = false;  // the backing file system can
    fuse_args mount_arguments = FUSE_ARGS_INIT(0, nullptr);
};

// The one line of a failed start. Returns false for its callers to return.
bool fail(const char* doing, const std::string& object,
          const std::string& reason = strerror(errno)) {
    fprintf(stderr, "f2fs_emulator: cannot %s %s: %s\n", doing, object.c_str(), reason.c_str());
    return false;
}

bool openBacking(Options& options, Volume& volume) {
    errno = emulator::openVolume(options.backing.c_str(), volume);
    if (errno != 0) {
        return fail("open the backing folder", options.backing);
    }
    const ProcPath path(volume.root->fd.get());
    const UniqueFd one(open(path.text, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    const UniqueFd other(open(path.text, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!one.valid() || !other.valid()) {
        return fail("make an unnamed temporary file in", options.backing);
    }
    if (fsetxattr(one.get(), emulator::STATE_ATTRIBUTE, "", 0, 0) != 0) {
        return fail("keep user attributes on files in", options.backing);
    }
    options.shares_blocks = ioctl(other.get(), FICLONE, one.get()) == 0;
    return true;
}

bool checkMountPoint(Options& options, const Volume& volume) {
    const UniqueFd fd(open(options.mount_point.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // Not synchronized: a mount there may belong to a daemon that is gone or hangs.
    struct statx attributes;
    if (!fd.valid() ||
        statx(fd.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE, &attributes) != 0) {
        return fail("mount on", options.mount_point);
    }
    if ((attributes.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
        return fail("mount on", options.mount_point,
                    "it is a mount point already, to be freed with fusermount3 -u");
    }
    // A mount below the backing folder would have the emulator ask itself and wait for its own
    // answer. The backing folder itself is fine: its descriptor leads below the mount.
    options.mount_path = fs::read_symlink(ProcPath(fd.get()).text);
    const fs::path backing = fs::read_symlink(ProcPath(volume.root->fd.get()).text);
    const fs::path way = options.mount_path.lexically_relative(backing);
    if (way != "." && *way.begin() != "..") {
        return fail("mount on", options.mount_point, "it is inside the backing folder");
    }
    return true;
}

// Runs `call` and returns what it, and the programs it starts, wrote to standard error: its first
// line, without the name of the program in front.
template <typename Call>
std::string captureErrors(Call call) {
    const UniqueFd memory(memfd_create("errors", MFD_CLOEXEC));
    const UniqueFd original(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    dup2(memory.get(), STDERR_FILENO);
    call();
    dup2(original.get(), STDERR_FILENO);
    char text[1024] = {};
    pread(memory.get(), text, sizeof(text) - 1, 0);
    const std::string line(text, strcspn(text, "\n"));
    const size_t name_end = line.find(": ");
    return name_end == std::string::npos ? line : line.substr(name_end + 2);
}

bool mountVolume(Options& options, Volume& volume) {
    const fuse_lowlevel_ops table = emulator::operations();
    bool mounted = false;
    const std::string reason = captureErrors([&] {
        volume.session = fuse_session_new(&options.mount_arguments, &table, sizeof(table), &volume);
        mounted = volume.session != nullptr &&
                  fuse_session_mount(volume.session, options.mount_path.c_str()) == 0;
    });
    return mounted || fail("mount on", options.mount_point, reason);
}

// One message after the other, until unmounted or told to end. The signals are blocked and come
// through a descriptor: none can slip in between a look at a flag and the wait.
bool serve(fuse_session* session, int signals) {
    const int device = fuse_session_fd(session);
    // A message can be withdrawn between poll and read.
    fcntl(device, F_SETFL, fcntl(device, F_GETFL) | O_NONBLOCK);
    pollfd waits[] = {{device, POLLIN, 0}, {signals, POLLIN, 0}};
    fuse_buf message = {};
    int received = 0;
    while (fuse_session_exited(session) == 0 && (poll(waits, 2, -1) < 0 || waits[1].revents == 0)) {
        received = fuse_session_receive_buf(session, &message);
        if (received > 0) {
            emulator::serveMessage(session, message);
        } else if (received != -EAGAIN && received != -EINTR) {
            break;
        }
    }
    free(message.mem);
    return received >= 0 || received == -EAGAIN || received == -EINTR;
}

bool serveMount(const Options& options, Volume& volume, int signals) {
    // The number that users of the mount see as its device, asked for without a call to the
    // emulator, which does not serve yet.
    struct statx attributes;
    if (statx(AT_FDCWD, options.mount_path.c_str(), AT_STATX_DONT_SYNC, STATX_TYPE, &attributes) !=
        0) {
        return fail("look at the mount on", options.mount_point);
    }
    volume.mount_device = makedev(attributes.stx_dev_major, attributes.stx_dev_minor);
    if (!options.shares_blocks) {
        fprintf(stderr,
                "f2fs_emulator: the file system of %s cannot share blocks, so snapshots are plain "
                "copies\n",
                options.backing.c_str());
    }
    if (fuse_daemonize(options.foreground ? 1 : 0) != 0) {
        return fail("go to the background for", options.mount_point);
    }
    return serve(volume.session, signals);
}

bool run(Options& options) {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ends, signal);
    }
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    signal(SIGPIPE, SIG_IGN);
    umask(0);  // the kernel has applied the caller's
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const UniqueFd signals(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals.valid()) {
        return fail("wait for", "signals");
    }
    Volume volume;
    if (!openBacking(options, volume) || !checkMountPoint(options, volume)) {
        return false;
    }
    bool served = false;
    if (mountVolume(options, volume)) {
        served = serveMount(options, volume, signals.get());
        fuse_session_unmount(volume.session);
    }
    if (volume.session != nullptr) {
        fuse_session_destroy(volume.session);
    }
    return served;
}

void addMountOption(Options& options, const char* words) {
    fuse_opt_add_arg(&options.mount_arguments, "-o");
    fuse_opt_add_arg(&options.mount_arguments, words);
}

// Returns the exit status to end with, or -1 to go on.
int parseOptions(int argc, char** argv, Options& options) {
    const option long_options[] = {{"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    fuse_opt_add_arg(&options.mount_arguments, "f2fs_emulator");
    addMountOption(options, "default_permissions,fsname=f2fs_emulator,subtype=f2fs_emulator");
    if (geteuid() == 0) {
        addMountOption(options, "allow_other");
    }
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
    int status = parseOptions(argc, argv, options);
    if (status < 0) {
        status = run(options) ? 0 : 1;
    }
    fuse_opt_free_args(&options.mount_arguments);
    return status;
}
