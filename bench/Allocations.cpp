// SPDX-License-Identifier: Apache-2.0

#include "bench/Allocations.h"

#include <cstdlib>
#include <new>

namespace {

thread_local bench::Allocations* counting = nullptr;

}  // namespace

bench::Allocations bench::countAllocations(const std::function<void()>& run) {
    Allocations counted;
    counting = &counted;
    run();
    counting = nullptr;
    return counted;
}

void* operator new(size_t size) {
    if (counting != nullptr) {
        ++counting->count;
        counting->bytes += static_cast<int64_t>(size);
    }
    void* const memory = std::malloc(size != 0 ? size : 1);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, size_t /*size*/) noexcept {
    std::free(memory);
}
