// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/State.h>

#include <cstdint>
#include <string>
#include <vector>

namespace aidl::android::hardware::power::stats {

/// A part of the device whose power states are accounted.
class PowerEntity {
  public:
    int32_t id = 0;  ///< unique in the device
    std::string name;
    std::vector<State> states;  ///< all states of the entity
};

}  // namespace aidl::android::hardware::power::stats
