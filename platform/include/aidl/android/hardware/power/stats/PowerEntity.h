// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/State.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace aidl::android::hardware::power::stats {

/// A part of the device whose power states are accounted.
class PowerEntity {
  public:
    int32_t id = 0;  ///< unique in the device
    std::string name;
    std::vector<State> states;  ///< all that it can be in

    bool operator==(const PowerEntity& rhs) const {
        return std::tie(id, name, states) == std::tie(rhs.id, rhs.name, rhs.states);
    }
    bool operator!=(const PowerEntity& rhs) const { return !(*this == rhs); }
};

}  // namespace aidl::android::hardware::power::stats
