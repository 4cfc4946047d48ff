// SPDX-License-Identifier: Apache-2.0
//
// Ends the process when a rule of the library is broken. A C++ library built without exceptions
// prints a message and aborts. One that throws would carry the exception through an entry point
// into the caller, with the mutex still held. So the message and the abort are here, and do not
// depend on the C++ library.

#pragma once

#include <android/set_abort_message.h>

#include <cstdio>
#include <cstdlib>

namespace ferrolith {

/// Ends the process.
/// @param message [in] one line for standard error and for the crash report, not for the log. An
///     app's standard error goes nowhere.
[[noreturn]] static void abortWithMessage(const char* message) {
    std::fprintf(stderr, "%s\n", message);
    android_set_abort_message(message);
    std::abort();
}

/// Returns the value of a key. Ends the process if the key is missing: a service that reports an id
/// it never announced has broken its interface, and no result is better than half a result.
template <typename Map>
static const typename Map::mapped_type& strictAt(const Map& map,
                                                 const typename Map::key_type& key) {
    const auto entry = map.find(key);
    if (entry == map.end()) {
        abortWithMessage(
            "out_of_range was thrown in -fno-exceptions mode with message "
            "\"unordered_map::at: key not found\"");
    }
    return entry->second;
}

}  // namespace ferrolith
