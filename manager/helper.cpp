// SPDX-License-Identifier: Apache-2.0
#include "manager/helper.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "manager/failure.h"
#include "manager/helper_protocol.h"
#include "manager/walk.h"

namespace manager {

namespace {

using Clock = std::chrono::steady_clock;

constexpr char PROGRAM[] = "f2fs_snapshot_helper";
constexpr int POLL_MILLISECONDS = 100;
constexpr Clock::duration COUNT_INTERVAL = std::chrono::milliseconds(500);

// The installed helper program, or else the one beside this library, as in a build directory.
std::string defaultProgram() {
    Dl_info self = {};
    // NOLINTNEXTLINE(google-readability-casting): dladdr takes a function's address as a void*
    if (dladdr(reinterpret_cast<void*>(&f2fs_snapshot_create), &self) == 0) {
        return PROGRAM;
    }
    const std::string library = self.dli_fname;
    const std::string directory = library.substr(0, library.find_last_of('/') + 1);
    const std::string installed = directory + F2FS_SNAPSHOT_HELPER_DIR "/" + PROGRAM;
    return access(installed.c_str(), X_OK) == 0 ? installed : directory + PROGRAM;
}

// A pipe from the helper. Reading from it does not block.
struct Pipe {
    explicit Pipe(const char* name) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            failSystem("make a pipe for", name);
        }
        reader = UniqueFd(ends[0]);
        writer = UniqueFd(ends[1]);
        fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    }
    UniqueFd reader;
    UniqueFd writer;
};

// Maps descriptors of this process to numbers in the helper.
class FileActions {
  public:
    explicit FileActions(size_t count) : first_free_(REPORT_FD + static_cast<int>(count)) {
        posix_spawn_file_actions_init(&actions_);
    }
    ~FileActions() {
        posix_spawn_file_actions_destroy(&actions_);
    }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;

    void add(int fd, int to) {
        // A copy above the helper's numbers, so that no dup2 overwrites one that is still to come.
        copies_.emplace_back(fcntl(fd, F_DUPFD_CLOEXEC, first_free_));
        if (!copies_.back().valid()) {
            failSystem("hand a descriptor to", PROGRAM);
        }
        posix_spawn_file_actions_adddup2(&actions_, copies_.back().get(), to);
    }
    posix_spawn_file_actions_t* get() {
        return &actions_;
    }

  private:
    int first_free_;
    std::vector<UniqueFd> copies_;
    posix_spawn_file_actions_t actions_;
};

// Default signals, and a process group of its own: the terminal interrupts the caller only.
struct Attributes {
    Attributes() {
        posix_spawnattr_init(&value);
        posix_spawnattr_setflags(
            &value, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
        sigset_t set;
        sigemptyset(&set);
        posix_spawnattr_setsigmask(&value, &set);
        sigfillset(&set);
        posix_spawnattr_setsigdefault(&value, &set);
        posix_spawnattr_setpgroup(&value, 0);
    }
    ~Attributes() {
        posix_spawnattr_destroy(&value);
    }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    posix_spawnattr_t value;
};

// The number of regular files below a path, as far as it can be read.
uint64_t countFiles(const std::string& path, Monitor& monitor) {
    uint64_t files = 0;
    try {
        TreeWalk walk(openDirectory(AT_FDCWD, path.c_str(), path), path);
        while (walk.next()) {
            files += walk.type() == S_IFREG ? 1 : 0;
            monitor.poll();
        }
    } catch (const Failure& failure) {
        if (failure.code == F2FS_SNAPSHOT_ERROR_CANCELLED) {
            throw;
        }
    }
    return files;
}

class Helper {
  public:
    Helper(const HelperCall& call, Monitor& monitor, HelperResult& result)
        : call_(call), monitor_(monitor), result_(result) {
        start();
    }
    ~Helper() {
        end();
    }
    Helper(const Helper&) = delete;
    Helper& operator=(const Helper&) = delete;

    // Reads the helper's messages until it closes their pipe.
    void follow();
    // Kills the helper unless it has closed the pipe. Returns its status as waitpid has it.
    int end();
    bool hasResult() const {
        return has_result_;
    }

  private:
    void start();
    bool readMessages();
    void takeMessages();
    void take(const Message& message, const std::string& text);
    void readErrors();
    void report(const LibraryLog& log);
    void countFilesMade();

    const HelperCall& call_;
    Monitor& monitor_;
    HelperResult& result_;
    Pipe reports_{"the messages of f2fs_snapshot_helper"};
    Pipe errors_{"the errors of f2fs_snapshot_helper"};
    pid_t pid_ = -1;
    std::string unread_;  // the beginning of a message that is not complete yet
    bool has_result_ = false;
    bool is_ending_ = false;
    bool is_without_log_ = false;
    Clock::time_point next_count_;
};

void Helper::start() {
    const UniqueFd nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    FileActions actions(1 + call_.locks.size());
    actions.add(nothing.get(), STDIN_FILENO);
    actions.add(nothing.get(), STDOUT_FILENO);
    actions.add(errors_.writer.get(), STDERR_FILENO);
    actions.add(reports_.writer.get(), REPORT_FD);
    int next = REPORT_FD + 1;
    for (const int lock : call_.locks) {
        actions.add(lock, next++);
    }
    const std::string program = call_.program.empty() ? defaultProgram() : call_.program;
    std::vector<std::string> words = {program, std::to_string(getpid()), std::to_string(next),
                                      call_.target};
    words.insert(words.end(), call_.sources.begin(), call_.sources.end());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    Attributes attributes;
    const int error =
        posix_spawn(&pid_, program.c_str(), actions.get(), &attributes.value, argv.data(), environ);
    if (error != 0) {
        pid_ = -1;
        failSystem("start", program, error);
    }
    reports_.writer.reset();
    errors_.writer.reset();
}

void Helper::follow() {
    const Clock::time_point deadline = Clock::now() + call_.time_limit;
    for (;;) {
        pollfd waits[] = {{reports_.reader.get(), POLLIN, 0}, {errors_.reader.get(), POLLIN, 0}};
        poll(waits, 2, POLL_MILLISECONDS);
        readErrors();
        if (!readMessages()) {
            is_ending_ = true;
            return;
        }
        countFilesMade();
        monitor_.poll();
        if (Clock::now() > deadline) {
            throw Failure(F2FS_SNAPSHOT_ERROR_TIMEOUT, call_.sources.front(),
                          "the snapshot took longer than the " +
                              std::to_string(call_.time_limit.count()) +
                              " seconds that it was given");
        }
    }
}

// Returns false when the helper has closed the pipe.
bool Helper::readMessages() {
    char buffer[1 << 16];
    const ssize_t length = read(reports_.reader.get(), buffer, sizeof buffer);
    if (length > 0) {
        unread_.append(buffer, static_cast<size_t>(length));
        takeMessages();
    }
    return length > 0 || (length < 0 && (errno == EAGAIN || errno == EINTR));
}

void Helper::takeMessages() {
    size_t begin = 0;
    for (Message message; unread_.size() - begin >= sizeof message;) {
        memcpy(&message, &unread_[begin], sizeof message);
        const size_t end = begin + sizeof message + message.length;
        if (unread_.size() < end) {
            break;
        }
        take(message, unread_.substr(begin + sizeof message, message.length));
        begin = end;
    }
    unread_.erase(0, begin);
}

void Helper::take(const Message& message, const std::string& text) {
    switch (message.type) {
        case Message::LINKS:
            result_.links_blocked = message.value != 0;
            break;
        case Message::READY:
            result_.has_log = message.value != 0;
            is_without_log_ = !result_.has_log;
            break;
        case Message::LOG:
            result_.log.add(text, message.time);
            monitor_.log(message.value, text.c_str());
            report(result_.log);
            break;
        case Message::UNSURE:
            result_.is_unsure = true;
            break;
        case Message::RESULT:
            result_.result = message.value;
            has_result_ = true;
            break;
        default:
            break;
    }
}

void Helper::report(const LibraryLog& log) {
    f2fs_snapshot_progress& now = monitor_.now;
    const uint64_t total = now.files_total;
    now.files_again = log.files_taken > total ? log.files_taken - total : 0;
    if (log.passes != now.pass) {
        now.pass = log.passes;
        now.phase = F2FS_SNAPSHOT_PHASE_CHECK;
        monitor_.report();
        monitor_.throwIfCancelled();
    }
    now.files_done = now.pass == 0 ? log.files_taken : log.files_checked;
}

// Without the library's log, the number of files in the snapshot shows the progress.
void Helper::countFilesMade() {
    const Clock::time_point begin = Clock::now();
    if (!is_without_log_ || begin < next_count_) {
        return;
    }
    const uint64_t files = countFiles(call_.target + "/snapshot", monitor_);
    monitor_.now.files_done = std::min(files, monitor_.now.files_total);
    // Counting takes no more than a tenth of the time.
    const Clock::time_point end = Clock::now();
    next_count_ = end + std::max(COUNT_INTERVAL, 10 * (end - begin));
}

void Helper::readErrors() {
    char buffer[1 << 12];
    const ssize_t length = read(errors_.reader.get(), buffer, sizeof buffer);
    if (length > 0) {
        result_.log.addOther(std::string(buffer, static_cast<size_t>(length)));
    }
}

int Helper::end() {
    if (pid_ < 0) {
        return 0;
    }
    // A helper that has closed its pipe ends by itself. Where the caller ignores SIGCHLD, its
    // process ID may already belong to another process.
    if (!is_ending_) {
        kill(pid_, SIGKILL);
    }
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
}

}  // namespace

void runHelper(const HelperCall& call, Monitor& monitor, HelperResult& result) {
    Helper helper(call, monitor, result);
    helper.follow();
    const int status = helper.end();
    if (!helper.hasResult()) {
        throw Failure(F2FS_SNAPSHOT_ERROR_LIBRARY, call.sources.front(),
                      WIFSIGNALED(status)
                          ? std::string("the snapshot library died: ") + strsignal(WTERMSIG(status))
                          : "the snapshot library ended without a result");
    }
}

}  // namespace manager
