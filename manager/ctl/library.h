// SPDX-License-Identifier: Apache-2.0
// The manager's C interface, with owners for what it returns and exceptions for its failures.
#pragma once

#include <exception>
#include <memory>
#include <vector>

#include "manager/f2fs_snapshot_manager.h"

namespace ctl {

struct Release {
    void operator()(f2fs_snapshot_store* store) const {
        f2fs_snapshot_store_close(store);
    }
    void operator()(f2fs_snapshot_hold* hold) const {
        f2fs_snapshot_hold_release(hold);
    }
    void operator()(f2fs_snapshot_info* info) const {
        f2fs_snapshot_info_free(info);
    }
    void operator()(f2fs_snapshot_report* report) const {
        f2fs_snapshot_report_free(report);
    }
    void operator()(f2fs_snapshot_list* list) const {
        f2fs_snapshot_list_free(list);
    }
    void operator()(f2fs_snapshot_prune_result* result) const {
        f2fs_snapshot_prune_result_free(result);
    }
};
template <typename T>
using Owned = std::unique_ptr<T, Release>;

// A call of the library that failed.
class CallFailed : public std::exception {
  public:
    explicit CallFailed(const f2fs_snapshot_error& failure) : error(failure) {}
    const char* what() const noexcept override {
        return error.message;
    }
    f2fs_snapshot_error error;
};

// Calls call(&error).
template <typename Call>
void require(Call call) {
    f2fs_snapshot_error error = F2FS_SNAPSHOT_ERROR_INIT;
    if (call(&error) != F2FS_SNAPSHOT_OK) {
        throw CallFailed(error);
    }
}

// The same for a call that returns something: call(&result, &error).
template <typename T, typename Call>
Owned<T> obtain(Call call) {
    T* result = nullptr;
    require([&](f2fs_snapshot_error* error) { return call(&result, error); });
    return Owned<T>(result);
}

// The elements of an array of the library, whose elements may be larger than this program knows.
template <typename T>
std::vector<const T*> elements(const T* first, size_t count, size_t size) {
    std::vector<const T*> list;
    const char* element = reinterpret_cast<const char*>(first);
    for (size_t i = 0; i < count; ++i, element += size) {
        list.push_back(reinterpret_cast<const T*>(element));
    }
    return list;
}

using Findings = std::vector<const f2fs_snapshot_finding*>;

// Of a report or of a snapshot's info.
template <typename T>
Findings findingsOf(const T& holder) {
    return elements(holder.findings, holder.finding_count, holder.finding_size);
}

}  // namespace ctl
