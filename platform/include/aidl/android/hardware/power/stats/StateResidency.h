// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

namespace aidl::android::hardware::power::stats {

/// How long a power entity has been in one of its states since boot.
class StateResidency {
  public:
    int32_t id = 0;                    ///< of the State
    int64_t totalTimeInStateMs = 0;    ///< milliseconds
    int64_t totalStateEntryCount = 0;  ///< times that the state was entered
    int64_t lastEntryTimestampMs = 0;  ///< when it was last entered, milliseconds since boot
};

}  // namespace aidl::android::hardware::power::stats
