// SPDX-License-Identifier: Apache-2.0
// Makes the C++ allocations of a test fail after a given number.
#include <stdlib.h>

#include <new>

thread_local long allocations_left = -1;  // -1: no limit

// Not inlined: compilers would warn of a malloc that delete frees.
[[gnu::noinline]] void* operator new(size_t size) {
    void* const memory = allocations_left == 0 ? nullptr : malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    allocations_left -= allocations_left > 0 ? 1 : 0;
    return memory;
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t /*size*/) noexcept {
    free(memory);
}
