// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/EnergyConsumerAttribution.h>

#include <cstdint>
#include <vector>

namespace aidl::android::hardware::power::stats {

/// The energy of one consumer since boot.
class EnergyConsumerResult {
  public:
    int32_t id = 0;           ///< of the EnergyConsumer
    int64_t timestampMs = 0;  ///< milliseconds since boot
    int64_t energyUWs = 0;    ///< microwatt-seconds
    std::vector<EnergyConsumerAttribution> attribution;
};

}  // namespace aidl::android::hardware::power::stats
