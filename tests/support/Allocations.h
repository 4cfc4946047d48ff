// SPDX-License-Identifier: Apache-2.0
//
// The operator new of a program that is built with Allocations.cpp, and of the libraries that it
// loads: it counts, and it can fail.

#pragma once

#include <cstdint>

namespace support {

struct Allocations {
    int64_t count = 0;
    int64_t bytes = 0;
    /// The allocation that brings `count` to this number fails. 0: none does.
    int64_t failing = 0;
};

/// Returns the calling thread's allocations since it started.
Allocations& allocations();

}  // namespace support
