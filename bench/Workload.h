// SPDX-License-Identifier: Apache-2.0
//
// What is collected in a measurement.

#pragma once

#include <string>
#include <vector>

namespace bench {

enum class Backend { kAidl, kHidl };
enum class Call { kRails, kResidencies };

struct Workload {
    Backend backend;
    Call call;
    int elements;    ///< rails, or power entities
    int states;      ///< of each entity; 0 for rails
    int nameLength;  ///< of every name, in bytes

    /// "aidl/residencies/50x8/12", as in the names of benchmarks.
    std::string text() const;
    /// What is counted as one: rails, or states of all entities.
    int size() const { return call == Call::kRails ? elements : elements * states; }
};

/// The names that a service announces, by position, and each a string of its own.
struct Names {
    explicit Names(const Workload& workload);

    std::vector<std::string> elements;
    std::vector<std::vector<std::string>> states;
};

}  // namespace bench
