// f2fs_emulator: shows a folder as a volume of the driver.
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "copy.h"
#include "fuse_api.h"
#include "inode.h"
#include "message.h"
#include "operations.h"

namespace {

using emulator::ProcPath;
using emulator::UniqueFd;
using emulator::Volume;

constexpr char kUsage[] =
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
    std::string mount_path;  // the mount point, absolute: the daemon leaves for the root folder
    bool foreground = false;
    std::vector<std::string> mount_options;
};

// The one line of a failed start. Returns false for its callers to return.
bool fail(const char* doing, const std::string& object, const std::string& reason,
          const char* advice = "") {
    fprintf(stderr, "f2fs_emulator: cannot %s %s: %s%s%s\n", doing, object.c_str(), reason.c_str(),
            *advice != '\0' ? "; " : "", advice);
    return false;
}

bool fail(const char* doing, const std::string& object, int error, const char* advice = "") {
    return fail(doing, object, std::string(strerror(error)), advice);
}

// Directories and open files hold a descriptor each.
void raiseDescriptorLimit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return;
    }
    unsigned long allowed = 0;
    FILE* const file = fopen("/proc/sys/fs/nr_open", "re");
    if (file != nullptr) {
        if (fscanf(file, "%lu", &allowed) == 1 && allowed > limit.rlim_max) {
            const rlimit raised = {allowed, allowed};
            setrlimit(RLIMIT_NOFILE, &raised);  // for root; else the next one counts
        }
        fclose(file);
    }
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

bool openBacking(const Options& options, Volume& volume) {
    if (const int error = emulator::openVolume(options.backing.c_str(), volume)) {
        return fail("open the backing folder", options.backing, error);
    }
    const char* missing = "";
    const ProcPath path(volume.root->fd.get());
    if (const int error = emulator::probeBacking(path.text, missing, volume.shares_blocks)) {
        return fail(missing, options.backing, error);
    }
    volume.owns_as_caller = geteuid() == 0;
    return true;
}

// Walks up from the mount point. A mount below the backing folder would have the emulator ask
// itself and wait for its own answer. The backing folder itself is fine: its descriptor was opened
// before and leads below the mount.
bool isBelowBacking(const Volume& volume, const UniqueFd& mount_point) {
    UniqueFd at;
    struct stat below = {};
    for (;;) {
        const int from = at.valid() ? at.get() : mount_point.get();
        UniqueFd up(openat(from, "..", O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat above;
        if (!up.valid() || fstat(up.get(), &above) != 0 ||
            (above.st_ino == below.st_ino && above.st_dev == below.st_dev)) {
            return false;  // the root folder is its own parent
        }
        if (above.st_ino == volume.root->number && above.st_dev == volume.backing_device) {
            return true;
        }
        below = above;
        at = std::move(up);
    }
}

bool checkMountPoint(Options& options, const Volume& volume) {
    constexpr char kMount[] = "mount on";
    const UniqueFd fd(open(options.mount_point.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // Not synchronized: a mount there may belong to a daemon that is gone or hangs.
    struct statx attributes;
    if (!fd.valid() ||
        statx(fd.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE, &attributes) != 0) {
        return fail(kMount, options.mount_point, errno);
    }
    if ((attributes.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
        return fail(kMount, options.mount_point, EBUSY,
                    "it is a mount point already, to be freed with fusermount3 -u");
    }
    if (isBelowBacking(volume, fd)) {
        return fail(kMount, options.mount_point, "it is inside the backing folder");
    }
    char* const absolute = realpath(options.mount_point.c_str(), nullptr);
    if (absolute == nullptr) {
        return fail(kMount, options.mount_point, errno);
    }
    options.mount_path = absolute;
    free(absolute);
    return true;
}

bool checkDevice() {
    const UniqueFd device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (device.valid()) {
        return true;
    }
    const bool missing = errno == ENOENT || errno == ENODEV || errno == ENXIO;
    return fail("open", "/dev/fuse", errno,
                missing ? "load it with modprobe fuse, or pass it to the container"
                        : "FUSE mounts are not permitted here");
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
    char text[1024];
    const ssize_t length = pread(memory.get(), text, sizeof(text), 0);
    std::string line(text, length > 0 ? static_cast<size_t>(length) : 0);
    line.resize(std::min(line.find('\n'), line.size()));
    for (const char* const prefix : {"fuse: ", "fusermount3: "}) {
        if (line.compare(0, strlen(prefix), prefix) == 0) {
            line.erase(0, strlen(prefix));
        }
    }
    return line;
}

bool mountVolume(const Options& options, Volume& volume) {
    std::string own = "default_permissions,fsname=f2fs_emulator,subtype=f2fs_emulator";
    if (geteuid() == 0) {
        own += ",allow_other";
    }
    std::vector<std::string> arguments = {"f2fs_emulator", "-o", own};
    for (const std::string& given : options.mount_options) {
        arguments.insert(arguments.end(), {"-o", given});
    }
    std::vector<char*> pointers;
    pointers.reserve(arguments.size());
    for (std::string& argument : arguments) {
        pointers.push_back(argument.data());
    }
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(pointers.size()), pointers.data());
    const fuse_lowlevel_ops table = emulator::operations();
    bool mounted = false;
    const std::string reason = captureErrors([&] {
        volume.session = fuse_session_new(&args, &table, sizeof(table), &volume);
        mounted = volume.session != nullptr &&
                  fuse_session_mount(volume.session, options.mount_path.c_str()) == 0;
    });
    fuse_opt_free_args(&args);
    if (!mounted) {
        const bool denied = reason.find(strerror(EPERM)) != std::string::npos;
        return fail("mount on", options.mount_point,
                    reason.empty() ? "FUSE gave no reason" : reason,
                    denied ? "FUSE mounts are not permitted here" : "");
    }
    return true;
}

// The number that users of the mount see as its device, asked for without a call to the emulator,
// which does not serve yet.
bool learnMountDevice(const Options& options, Volume& volume) {
    struct statx attributes;
    if (statx(AT_FDCWD, options.mount_path.c_str(), AT_STATX_DONT_SYNC, STATX_TYPE, &attributes) !=
        0) {
        return fail("look at the mount on", options.mount_point, errno);
    }
    volume.mount_device = makedev(attributes.stx_dev_major, attributes.stx_dev_minor);
    return true;
}

// One message after the other, until unmounted or told to end. The signals are blocked and come
// through a descriptor: none can slip in between a look at a flag and the wait.
bool serve(Volume& volume, int signals) {
    const int device = fuse_session_fd(volume.session);
    // A message can be withdrawn between poll and read.
    fcntl(device, F_SETFL, fcntl(device, F_GETFL) | O_NONBLOCK);
    pollfd waits[] = {{device, POLLIN, 0}, {signals, POLLIN, 0}};
    fuse_buf message = {};
    int received = 0;
    while (fuse_session_exited(volume.session) == 0) {
        if (poll(waits, 2, -1) < 0 && errno != EINTR) {
            received = -errno;
            break;
        }
        if (waits[1].revents != 0) {
            break;
        }
        received = fuse_session_receive_buf(volume.session, &message);
        if (received > 0) {
            emulator::serveMessage(volume, message);
        } else if (received != -EAGAIN && received != -EINTR) {
            break;
        }
    }
    free(message.mem);
    return received >= 0 || received == -EAGAIN || received == -EINTR;
}

bool serveInPlace(const Options& options, Volume& volume, int signals) {
    if (!learnMountDevice(options, volume)) {
        return false;
    }
    if (!volume.shares_blocks) {
        fprintf(stderr,
                "f2fs_emulator: the file system of %s cannot share blocks, so snapshots are plain "
                "copies\n",
                options.backing.c_str());
    }
    if (fuse_daemonize(options.foreground ? 1 : 0) != 0) {
        return fail("go to the background for", options.mount_point, errno);
    }
    return serve(volume, signals);
}

bool run(Options& options) {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ends, signal);
    }
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);  // a file size limit of the daemon is an error to report
    raiseDescriptorLimit();
    const UniqueFd signals(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals.valid()) {
        return fail("wait for", "signals", errno);
    }
    Volume volume;
    if (!openBacking(options, volume) || !checkMountPoint(options, volume) || !checkDevice()) {
        return false;
    }
    bool served = false;
    if (mountVolume(options, volume)) {
        served = serveInPlace(options, volume, signals.get());
        fuse_session_unmount(volume.session);
    }
    if (volume.session != nullptr) {
        fuse_session_destroy(volume.session);
    }
    return served;
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
                options.mount_options.emplace_back(optarg);
                break;
            case 'h':
                fputs(kUsage, stdout);
                return 0;
            case 'V':
                puts("f2fs_emulator " F2FS_EMULATOR_VERSION);
                return 0;
            default:
                fputs(kUsage, stderr);
                return 2;
        }
    }
    if (argc - optind != 2) {
        fputs(kUsage, stderr);
        return 2;
    }
    options.backing = argv[optind];
    options.mount_point = argv[optind + 1];
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int status = parseOptions(argc, argv, options);
    if (status >= 0) {
        return status;
    }
    return run(options) ? 0 : 1;
}
