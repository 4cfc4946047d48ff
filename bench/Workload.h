// SPDX-License-Identifier: Apache-2.0
//
// The collection that is measured.

#pragma once

#include <string>

#include "tests/support/FakeServices.h"

namespace bench {

using support::Backend;
using support::Call;

struct Workload {
    Backend backend;
    Call call;
    int elements;    ///< rails, or power entities
    int states;      ///< of each entity; 0 for rails
    int nameLength;  ///< of every name, in bytes

    /// "aidl/residencies/50x8/12", as in the names of benchmarks.
    std::string text() const;
    /// The number of items: rails, or states of all entities.
    int size() const { return call == Call::kRails ? elements : elements * states; }
    /// The content of the service: values of the sizes that a device has after a day.
    support::Machine machine() const;
};

}  // namespace bench
