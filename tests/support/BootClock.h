// SPDX-License-Identifier: Apache-2.0
//
// A boot clock that a test sets: this program's own `clock_gettime`, which the library finds before
// the C library's. Other clocks are passed through.

#pragma once

#include <time.h>

#include <functional>
#include <optional>

namespace support {

struct BootClock {
    /// The clock's time. Without a value, reading it fails.
    std::optional<timespec> now;
    /// Called at every reading.
    std::function<void()> onRead;
};

/// The clock of this process. It fails until it is set.
BootClock& bootClock();

}  // namespace support
