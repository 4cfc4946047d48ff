// SPDX-License-Identifier: Apache-2.0

#include "tests/support/Allocations.h"

#include <cstdlib>
#include <new>

support::Allocations& support::allocations() {
    thread_local Allocations ofThread;
    return ofThread;
}

void* operator new(size_t size) {
    auto& allocations = support::allocations();
    allocations.bytes += static_cast<int64_t>(size);
    const bool fails = ++allocations.count == allocations.failing;
    void* const memory = fails ? nullptr : std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}
