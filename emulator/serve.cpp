// SPDX-License-Identifier: Apache-2.0
#include "emulator/serve.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/fuse.h>
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
#include <fstream>

#include "emulator/operations.h"

namespace fs = std::filesystem;

namespace emulator {
namespace {

// Writes the line of a failed start and returns the error.
int fail(int error, const char* doing, const std::string& object, const std::string& reason = "") {
    fprintf(stderr, "f2fs_emulator: cannot %s %s: %s\n", doing, object.c_str(),
            reason.empty() ? strerror(error) : reason.c_str());
    return error;
}

// An emulator that was just unmounted may hold its lock for a moment longer.
int openWhenFree(const char* backing, Volume& volume) {
    int error = openVolume(backing, volume);
    for (int waits = 0; error == EWOULDBLOCK && waits < 200; ++waits) {
        usleep(10000);
        error = openVolume(backing, volume);
    }
    return error;
}

// Opens the backing directory and tries the features that the volume needs.
int openBacking(const std::string& backing, Volume& volume, bool& shares_blocks) {
    if (const int error = openWhenFree(backing.c_str(), volume)) {
        return fail(error, "open the backing directory", backing,
                    error == EWOULDBLOCK ? "another emulator shows it" : "");
    }
    const ProcPath path(volume.root->fd.get());
    const UniqueFd one(open(path.text, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    const UniqueFd other(open(path.text, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (!one.valid() || !other.valid()) {
        return fail(errno, "make an unnamed temporary file in", backing);
    }
    if (fsetxattr(one.get(), STATE_ATTRIBUTE, "", 0, 0) != 0) {
        return fail(errno, "keep user attributes on files in", backing);
    }
    shares_blocks = ioctl(other.get(), FICLONE, one.get()) == 0;
    return 0;
}

// Checks the mount point and returns its absolute path, since the daemon changes its directory.
int checkMountPoint(const std::string& mount_point, const Volume& volume, fs::path& mount_path) {
    const UniqueFd fd(open(mount_point.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    // Not synchronized: a mount there may belong to a daemon that has died or hangs.
    struct statx attributes;
    if (!fd.valid() ||
        statx(fd.get(), "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE, &attributes) != 0) {
        return fail(errno, "mount on", mount_point);
    }
    if ((attributes.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
        return fail(EBUSY, "mount on", mount_point,
                    "it is a mount point already, to be freed with fusermount3 -u");
    }
    // A mount point inside the volume would be useless: its entry is refused with EXDEV. The
    // backing directory itself can be the mount point, since its descriptor leads below the mount.
    mount_path = fs::read_symlink(ProcPath(fd.get()).text);
    const fs::path backing = fs::read_symlink(ProcPath(volume.root->fd.get()).text);
    const fs::path relative = mount_path.lexically_relative(backing);
    if (relative != "." && *relative.begin() != "..") {
        return fail(EINVAL, "mount on", mount_point, "it is inside the backing directory");
    }
    return 0;
}

// Runs `call` and returns the first line that it, and the programs it starts, wrote to standard
// error, without the program's name.
template <typename Call>
std::string captureErrors(Call call) {
    const UniqueFd memory(memfd_create("errors", MFD_CLOEXEC));
    const UniqueFd original(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
    dup2(memory.get(), STDERR_FILENO);
    call();
    dup2(original.get(), STDERR_FILENO);
    char text[1024] = {};
    if (pread(memory.get(), text, sizeof(text) - 1, 0) < 0) {
        return "";
    }
    const std::string line(text, strcspn(text, "\n"));
    const size_t name_end = line.find(": ");
    return name_end == std::string::npos ? line : line.substr(name_end + 2);
}

int mountVolume(Options& options, const fs::path& mount_path, Server& server) {
    const fuse_lowlevel_ops table = operations();
    bool mounted = false;
    const std::string reason = captureErrors([&] {
        server.session = fuse_session_new(&options.mount_arguments, &table, sizeof(table), &server);
        mounted = server.session != nullptr &&
                  fuse_session_mount(server.session, mount_path.c_str()) == 0;
    });
    return mounted ? 0 : fail(EIO, "mount on", options.mount_point, reason);
}

// Asks the mount table whether the volume is read-only: a call to the mount itself would wait for
// this thread. The words of a line: two ids, the device, ..., and last the volume's own options.
void updateReadOnly(Volume& volume) {
    const std::string device = " " + std::to_string(major(volume.mount_device)) + ":" +
                               std::to_string(minor(volume.mount_device)) + " ";
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        if (line.find(device) != std::string::npos) {
            volume.read_only = line.compare(line.rfind(' ') + 1, 3, "ro,") == 0;
            return;
        }
    }
}

// FUSE_TMPFILE, which libfuse 3.14 does not dispatch, is rewritten as FUSE_CREATE with an empty
// name. The two have the same message and reply, and no other FUSE_CREATE has an empty name.
void serveMessage(fuse_session* session, const fuse_buf& message) {
    constexpr size_t NAME_OFFSET = sizeof(fuse_in_header) + sizeof(fuse_create_in);
    auto* const header = static_cast<fuse_in_header*>(message.mem);
    if (message.size > NAME_OFFSET && header->opcode == FUSE_TMPFILE) {
        header->opcode = FUSE_CREATE;
        static_cast<char*>(message.mem)[NAME_OFFSET] = '\0';
    }
    fuse_session_process_buf(session, &message);
}

// Serves one message after the other until the volume is unmounted or a signal arrives. The signals
// are blocked and read from a descriptor, so that none is missed between a check and the wait.
int serveMessages(Server& server, int signals) {
    const int device = fuse_session_fd(server.session);
    // A message can be withdrawn between poll and read.
    fcntl(device, F_SETFL, fcntl(device, F_GETFL) | O_NONBLOCK);
    // The mount table comes last: a message that follows a remount then finds the change reported.
    const UniqueFd mounts(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
    pollfd waits[] = {{device, POLLIN, 0}, {signals, POLLIN, 0}, {mounts.get(), POLLPRI, 0}};
    fuse_buf message = {};
    int received = -EINTR;
    updateReadOnly(server.volume);
    while (fuse_session_exited(server.session) == 0 && waits[1].revents == 0 &&
           (received > 0 || received == -EAGAIN || received == -EINTR)) {
        if (poll(waits, 3, -1) > 0 && waits[2].revents != 0) {
            updateReadOnly(server.volume);
        }
        received = fuse_session_receive_buf(server.session, &message);
        if (received > 0) {
            serveMessage(server.session, message);
        }
    }
    free(message.mem);
    return received >= 0 || received == -EAGAIN || received == -EINTR ? 0 : -received;
}

int serveMount(const Options& options, const fs::path& mount_path, Server& server, int signals,
               bool shares_blocks) {
    // Not synchronized: nobody serves the mount yet.
    struct statx attributes;
    if (statx(AT_FDCWD, mount_path.c_str(), AT_STATX_DONT_SYNC, STATX_TYPE, &attributes) != 0) {
        return fail(errno, "look at the mount on", options.mount_point);
    }
    server.volume.mount_device = makedev(attributes.stx_dev_major, attributes.stx_dev_minor);
    if (!shares_blocks) {
        fprintf(stderr,
                "f2fs_emulator: the file system of %s cannot share blocks, so snapshots are plain "
                "copies\n",
                options.backing.c_str());
    }
    if (fuse_daemonize(options.foreground ? 1 : 0) != 0) {
        return fail(errno, "go to the background for", options.mount_point);
    }
    return serveMessages(server, signals);
}

// Prepares the process. `signals` becomes readable when a signal asks the daemon to end.
int setUpProcess(UniqueFd& signals) {
    sigset_t ends;
    sigemptyset(&ends);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&ends, number);
    }
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);  // a write beyond `ulimit -f` fails with EFBIG instead
    umask(0);                  // the kernel has applied the caller's
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    signals.reset(signalfd(-1, &ends, SFD_CLOEXEC | SFD_NONBLOCK));
    return signals.valid() ? 0 : fail(errno, "wait for", "signals");
}

}  // namespace

int serve(Options& options) {
    UniqueFd signals;
    if (const int error = setUpProcess(signals)) {
        return error;
    }
    Server server;
    bool shares_blocks = false;
    if (const int error = openBacking(options.backing, server.volume, shares_blocks)) {
        return error;
    }
    fs::path mount_path;
    if (const int error = checkMountPoint(options.mount_point, server.volume, mount_path)) {
        return error;
    }
    int error = mountVolume(options, mount_path, server);
    if (error == 0) {
        error = serveMount(options, mount_path, server, signals.get(), shares_blocks);
        fuse_session_unmount(server.session);
    }
    if (server.session != nullptr) {
        fuse_session_destroy(server.session);
    }
    return error;
}

}  // namespace emulator
