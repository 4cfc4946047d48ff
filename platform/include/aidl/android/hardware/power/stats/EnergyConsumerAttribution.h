// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

namespace aidl::android::hardware::power::stats {

/// The part of a consumer's energy that one user id caused.
class EnergyConsumerAttribution {
  public:
    int32_t uid = 0;
    int64_t energyUWs = 0;  ///< microwatt-seconds
};

}  // namespace aidl::android::hardware::power::stats
