// SPDX-License-Identifier: Apache-2.0
// What the functions of the C interface share: options, and errors from exceptions.
#pragma once

#include <cstring>
#include <exception>
#include <new>
#include <type_traits>

#include "manager/failure.h"
#include "manager/store.h"

struct f2fs_snapshot_store {
    manager::Store store;
};

struct f2fs_snapshot_hold {
    manager::UniqueFd lock;
};

namespace manager {

// Fills in the caller's error from the exception that is being handled; returns its code.
int32_t reportFailure(f2fs_snapshot_error* error) noexcept;

// Runs the body of a function of the C interface. Returns the function's result.
template <typename Body>
int32_t guarded(f2fs_snapshot_error* error, Body body) noexcept {
    try {
        body();
        return F2FS_SNAPSHOT_OK;
    } catch (...) {
        return reportFailure(error);
    }
}

// A copy of the caller's options. Members that an older caller's structure lacks are zero.
template <typename Options>
Options optionsOf(const Options* given) {
    static_assert(std::is_trivially_copyable_v<Options>);
    Options options = {};
    if (given != nullptr) {
        const size_t size = given->size < sizeof(Options) ? given->size : sizeof(Options);
        if (size < sizeof(size_t)) {
            throw Failure(F2FS_SNAPSHOT_ERROR_ARGUMENT, "", "an options structure has no size");
        }
        memcpy(static_cast<void*>(&options), given, size);
    }
    options.size = sizeof(Options);
    return options;
}

// Throws ERROR_ARGUMENT if a pointer that must be given is NULL.
void requireArgument(const void* pointer, const char* what);

}  // namespace manager
