// SPDX-License-Identifier: Apache-2.0

#include "tests/support/FailingAllocation.h"

#include <cstdlib>
#include <new>

namespace support {

std::atomic<int> gFailingAllocation{0};

}  // namespace support

void* operator new(size_t size) {
    if (support::gFailingAllocation != 0 && --support::gFailingAllocation == 0) {
        throw std::bad_alloc();
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
