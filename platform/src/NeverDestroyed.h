// SPDX-License-Identifier: Apache-2.0

#pragma once

namespace host {

/// Returns the one object of a type. It is made at first use and never destroyed, because the
/// platform's threads and the caller's destructors may use it until the process has ended.
template <typename T>
T& neverDestroyed() {
    static auto* const object = new T;
    return *object;
}

}  // namespace host
