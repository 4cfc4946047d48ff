// SPDX-License-Identifier: Apache-2.0
//
// Counts what is allocated: this program's own operator new, which the library and the message
// classes find before the C++ library's.

#pragma once

#include <cstdint>
#include <functional>

namespace bench {

struct Allocations {
    int64_t count = 0;
    int64_t bytes = 0;
};

/// What `run` allocates on this thread.
Allocations countAllocations(const std::function<void()>& run);

}  // namespace bench
