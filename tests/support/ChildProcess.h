// SPDX-License-Identifier: Apache-2.0
//
// Runs what is expected to end its process in a process of its own, and gives back all that it
// wrote. For use before the caller has started any thread.

#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace support {

struct Ended {
    pid_t pid = 0;
    int signal = 0;    ///< that ended it, or 0
    int exitCode = 0;  ///< kReturned when `run` returned
    /// What it wrote to standard error, and "abort message: " with the message for a crash report.
    std::string errors;
};

inline constexpr int kReturned = 7;

/// @param run [in] what the child does. An exception that leaves it is written to standard error,
///     as "reached the caller".
Ended runInChild(const std::function<void()>& run);

}  // namespace support
