// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <tuple>

namespace aidl::android::hardware::power::stats {

/// The share of one user id in a consumer's energy.
class EnergyConsumerAttribution {
  public:
    int32_t uid = 0;
    int64_t energyUWs = 0;  ///< microwatt-seconds

    bool operator==(const EnergyConsumerAttribution& rhs) const {
        return std::tie(uid, energyUWs) == std::tie(rhs.uid, rhs.energyUWs);
    }
    bool operator!=(const EnergyConsumerAttribution& rhs) const { return !(*this == rhs); }
};

}  // namespace aidl::android::hardware::power::stats
