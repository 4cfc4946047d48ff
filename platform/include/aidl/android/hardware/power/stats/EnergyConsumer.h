// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/EnergyConsumerType.h>

#include <cstdint>
#include <string>

namespace aidl::android::hardware::power::stats {

/// A part of the device whose energy is modelled or measured as a whole.
class EnergyConsumer {
  public:
    int32_t id = 0;       ///< unique in the device
    int32_t ordinal = 0;  ///< distinguishes consumers of one type, from 0
    EnergyConsumerType type = EnergyConsumerType::OTHER;
    std::string name;
};

}  // namespace aidl::android::hardware::power::stats
