// SPDX-License-Identifier: Apache-2.0
// f2fs_snapshot_helper: runs the library for one snapshot, in a process of its own. The caller
// survives if this process hangs or dies. Started by libf2fs_snapshot_manager.so only.
#include <android/log.h>
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "manager/helper_protocol.h"
#include "snapshot/snapshot.h"

namespace {

using manager::Message;

void send(Message::Type type, int32_t value, const char* text = "") {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    Message message = {type, value, now.tv_sec * INT64_C(1000000000) + now.tv_nsec,
                       static_cast<uint32_t>(strlen(text)), 0};
    iovec parts[] = {{&message, sizeof message}, {const_cast<char*>(text), message.length}};
    for (size_t i = 0; i < 2;) {
        const ssize_t sent = writev(manager::REPORT_FD, parts + i, static_cast<int>(2 - i));
        if (sent < 0) {
            _exit(1);  // the caller has closed the pipe
        }
        size_t rest = static_cast<size_t>(sent);
        for (; i < 2 && rest >= parts[i].iov_len; ++i) {
            rest -= parts[i].iov_len;
        }
        if (i < 2) {
            parts[i].iov_base = static_cast<char*>(parts[i].iov_base) + rest;
            parts[i].iov_len -= rest;
        }
    }
}

// Has the kernel kill this process when the parent ends. Returns false if it has ended already.
bool dieWithParent(const char* parent) {
    return prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && getppid() == atoi(parent);
}

// Other threads of the parent can have left descriptors without O_CLOEXEC.
void closeFrom(int first) {
    DIR* stream = opendir("/proc/self/fd");
    if (stream == nullptr) {
        return;
    }
    std::vector<int> leaked;
    while (const dirent* entry = readdir(stream)) {
        const int fd = atoi(entry->d_name);
        if (fd >= first && fd != dirfd(stream)) {
            leaked.push_back(fd);
        }
    }
    closedir(stream);
    for (const int fd : leaked) {
        close(fd);
    }
}

void raiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Keeps this process from following symbolic links. A user without the right to mount gets it in a
// user namespace, where the system allows one. Returns false if it is not possible.
bool blockLinks() {
    struct {
        uint64_t attr_set, attr_clr, propagation, userns_fd;
    } attributes = {0x00200000 /* MOUNT_ATTR_NOSYMFOLLOW */, 0, MS_PRIVATE, 0};
    constexpr long MOUNT_SETATTR = 442;
    constexpr int RECURSIVE = 0x8000;  // AT_RECURSIVE
    return (unshare(CLONE_NEWNS) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0) &&
           syscall(MOUNT_SETATTR, AT_FDCWD, "/", RECURSIVE, &attributes, sizeof attributes) == 0;
}

// As liblog declares it from API level 30 on. The earlier form, which Debian's liblog has, lacks
// `message`: the logger gets the text as a second argument.
struct LogMessage {
    size_t struct_size;
    int32_t buffer_id;
    int32_t priority;
    const char* tag;
    const char* file;
    uint32_t line;
    const char* message;
};

constexpr char TAG[] = "f2fs_snapshot_native";
constexpr char PROBE[] = "f2fs_snapshot_helper";

bool probe_seen = false;

void onText(const LogMessage* line, const char* text) {
    if (strcmp(text, PROBE) == 0) {
        probe_seen = true;
    } else {
        send(Message::LOG, line->priority, text);
    }
}

void onMessage(const LogMessage* line) {
    onText(line, line->message);
}

template <typename Function>
Function* find(const char* name) {
    // NOLINTNEXTLINE(google-readability-casting): dlsym returns a function's address as a void*
    return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}

// Captures the library's log lines. Returns false if some would be missing: a logger cannot be set,
// or lines of information are filtered out.
bool captureLog() {
    constexpr char SET_LOGGER[] = "__android_log_set_logger";
    if (const auto set = find<void(void (*)(const LogMessage*))>(SET_LOGGER);
        set != nullptr && find<void()>("__android_log_write_log_message") != nullptr) {
        set(onMessage);
    } else if (const auto set_early =
                   find<void(void (*)(const LogMessage*, const char*))>(SET_LOGGER);
               set_early != nullptr && find<void()>("__android_log_write_logger_data") != nullptr) {
        set_early(onText);
    } else {
        return false;
    }
    __android_log_print(ANDROID_LOG_INFO, TAG, "%s", PROBE);
    return probe_seen;
}

// Runs one more check pass. Returns false if it finds a change or cannot read a directory.
bool isConfirmed(const std::vector<std::string>& sources, const std::string& target) {
    std::vector<file_info> modified;
    for (const std::string& source : sources) {
        if (checkModifyFiles(source, modified, target + "/snapshot") != 0) {
            return false;
        }
    }
    return modified.empty();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 5 || fcntl(manager::REPORT_FD, F_GETFD) < 0 || !dieWithParent(argv[1])) {
        fputs("f2fs_snapshot_helper: started by libf2fs_snapshot_manager.so only\n", stderr);
        return 2;
    }
    const std::string target = argv[3];
    const std::vector<std::string> sources(argv + 4, argv + argc);
    closeFrom(atoi(argv[2]));
    umask(S_IRWXG | S_IRWXO);
    raiseDescriptorLimit();
    send(Message::LINKS, blockLinks() ? 1 : 0);
    if (!dieWithParent(argv[1])) {  // once more: a new user namespace may clear it
        return 2;
    }
    const bool is_captured = captureLog();
    send(Message::READY, is_captured ? 1 : 0);
    const int32_t ret = CreateDirSnapshot(sources, target);
    if (ret == 0 && !is_captured && !isConfirmed(sources, target)) {
        send(Message::UNSURE, 0);
    }
    send(Message::RESULT, ret);
    return 0;
}
