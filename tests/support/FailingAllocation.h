// SPDX-License-Identifier: Apache-2.0
//
// The operator new of a program that is linked with FailingAllocation.cpp, and of the libraries it
// loads.

#pragma once

#include <atomic>

namespace support {

/// Counted down at every allocation; the one that brings it to 0 fails. At 0 none does.
extern std::atomic<int> gFailingAllocation;

}  // namespace support
