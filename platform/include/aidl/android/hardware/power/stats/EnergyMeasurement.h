// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

namespace aidl::android::hardware::power::stats {

/// One reading of a channel's energy meter.
class EnergyMeasurement {
  public:
    int32_t id = 0;           ///< of the Channel
    int64_t timestampMs = 0;  ///< when it was read, milliseconds since boot
    int64_t durationMs = 0;   ///< milliseconds over which the energy was accumulated
    int64_t energyUWs = 0;    ///< microwatt-seconds
};

}  // namespace aidl::android::hardware::power::stats
