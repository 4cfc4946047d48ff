// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <tuple>

namespace aidl::android::hardware::power::stats {

/// How long a power entity has been in one of its states since boot.
class StateResidency {
  public:
    int32_t id = 0;                    ///< of the State
    int64_t totalTimeInStateMs = 0;    ///< milliseconds
    int64_t totalStateEntryCount = 0;  ///< times that the state was entered
    int64_t lastEntryTimestampMs = 0;  ///< when it was last entered, milliseconds since boot

    bool operator==(const StateResidency& rhs) const {
        return std::tie(id, totalTimeInStateMs, totalStateEntryCount, lastEntryTimestampMs) ==
               std::tie(rhs.id, rhs.totalTimeInStateMs, rhs.totalStateEntryCount,
                        rhs.lastEntryTimestampMs);
    }
    bool operator!=(const StateResidency& rhs) const { return !(*this == rhs); }
};

}  // namespace aidl::android::hardware::power::stats
