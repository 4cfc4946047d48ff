// SPDX-License-Identifier: Apache-2.0
//
// Runs a function that ends its process in a child process, and returns all that it wrote.

#pragma once

#include <functional>
#include <string>

namespace support {

struct Ended {
    int signal = 0;    ///< that ended it, or 0
    int exitCode = 0;  ///< kReturned when `run` returned
    /// Its standard error, with "abort message: " and a message for the crash report.
    std::string errors;
};

inline constexpr int kReturned = 7;

/// Runs a function in a child process, and waits for its end.
/// REQUIRES: the caller has started no thread
/// @param run [in] the child's work. An exception that leaves it is written to standard error, as
///     "reached the caller".
Ended runInChild(const std::function<void()>& run);

}  // namespace support
