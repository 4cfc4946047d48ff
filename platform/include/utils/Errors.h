// SPDX-License-Identifier: Apache-2.0
//
// The status codes of the device's native libraries.

#pragma once

#include <errno.h>
#include <stdint.h>

#include <string>

namespace android {

typedef int32_t status_t;

enum {
    OK = 0,
    UNKNOWN_ERROR = (-2147483647 - 1),
    NO_MEMORY = -ENOMEM,
    INVALID_OPERATION = -ENOSYS,
    BAD_VALUE = -EINVAL,
    NAME_NOT_FOUND = -ENOENT,
    PERMISSION_DENIED = -EPERM,
    DEAD_OBJECT = -EPIPE,
    FAILED_TRANSACTION = (UNKNOWN_ERROR + 2),
    TIMED_OUT = -ETIMEDOUT,
    UNKNOWN_TRANSACTION = -EBADMSG,
    UNEXPECTED_NULL = (UNKNOWN_ERROR + 8),
};

/// Returns the code's name, such as "DEAD_OBJECT". For a code without a name, returns its number
/// and the text of the errno value that it negates, such as "-77 (File descriptor in bad state)".
std::string statusToString(status_t status);

}  // namespace android
