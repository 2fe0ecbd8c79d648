// SPDX-License-Identifier: Apache-2.0
// What all verbs share: the store, progress and cancel, and how failures are told.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "manager/ctl/library.h"
#include "manager/ctl/options.h"
#include "manager/ctl/progress.h"

namespace ctl {

// From now on, signals that end a program make the calls of the library end with
// F2FS_SNAPSHOT_ERROR_CANCELLED instead. Those that are ignored stay so.
void catchSignals();

// The first of them that has come; 0: none.
int caughtSignal();

class Session {
  public:
    // flags  for f2fs_snapshot_store_open
    explicit Session(const Options& options, uint32_t flags = 0);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    f2fs_snapshot_store* store() const {
        return store_.get();
    }
    const f2fs_snapshot_callbacks* callbacks() const {
        return &callbacks_;
    }

    // Create and check what the options say.
    Owned<f2fs_snapshot_info> create(bool is_temporary = false);
    Owned<f2fs_snapshot_report> check();
    Owned<f2fs_snapshot_list> list() const;
    Owned<f2fs_snapshot_info> info(const std::string& name) const;
    uint64_t diskUsage(const std::string& name) const;
    void destroy(const std::string& name, const f2fs_snapshot_callbacks* callbacks) const;
    Owned<f2fs_snapshot_hold> hold(const std::string& name) const;

    // Calls `call`, which may throw CallFailed, and repeats it while it fails because another call
    // is at work: for as long as --wait says.
    template <typename Call>
    auto whenFree(Call call) {
        return whenFree(std::chrono::seconds(options_.wait), call);
    }
    template <typename Call>
    auto whenFree(std::chrono::seconds wait, Call call) {
        bool is_told = false;
        for (const auto begin = std::chrono::steady_clock::now();;) {
            try {
                return call();
            } catch (const CallFailed& failure) {
                if (failure.error.code != F2FS_SNAPSHOT_ERROR_BUSY ||
                    std::chrono::steady_clock::now() - begin >= wait) {
                    throw;
                }
                pause(failure, is_told);
            }
        }
    }

    // Before anything is printed while a bar may be there.
    void clearProgress() {
        progress_.clear();
    }

    // As obtain().
    template <typename T, typename Call>
    Owned<T> obtainWhenFree(Call call) {
        return whenFree([&] { return obtain<T>(call); });
    }

  private:
    void pause(const CallFailed& failure, bool& is_told);

    const Options& options_;
    Progress progress_;
    f2fs_snapshot_callbacks callbacks_ = F2FS_SNAPSHOT_CALLBACKS_INIT;
    bool has_made_store_;
    Owned<f2fs_snapshot_store> store_;
};

// Tells about a failure on standard error, and as a document if that is asked for. Returns the exit
// status.
int report(const CallFailed& failure, const Options& options, const char* verb);

// The arguments as the library takes them. They point into the strings.
std::vector<const char*> pointers(const std::vector<std::string>& words);

}  // namespace ctl
