// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <string>
#include <tuple>

namespace aidl::android::hardware::power::stats {

/// One state that a power entity can be in.
class State {
  public:
    int32_t id = 0;  ///< unique within the entity
    std::string name;

    bool operator==(const State& rhs) const {
        return std::tie(id, name) == std::tie(rhs.id, rhs.name);
    }
    bool operator!=(const State& rhs) const { return !(*this == rhs); }
};

}  // namespace aidl::android::hardware::power::stats
