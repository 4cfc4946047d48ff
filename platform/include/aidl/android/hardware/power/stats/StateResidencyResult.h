// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/StateResidency.h>

#include <cstdint>
#include <vector>

namespace aidl::android::hardware::power::stats {

/// The residencies of one power entity.
class StateResidencyResult {
  public:
    int32_t id = 0;  ///< of the PowerEntity
    std::vector<StateResidency> stateResidencyData;
};

}  // namespace aidl::android::hardware::power::stats
