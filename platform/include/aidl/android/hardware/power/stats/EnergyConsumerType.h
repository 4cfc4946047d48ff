// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>

namespace aidl::android::hardware::power::stats {

enum class EnergyConsumerType : int32_t {
    OTHER = 0,
    BLUETOOTH = 1,
    CPU_CLUSTER = 2,
    DISPLAY = 3,
    GNSS = 4,
    MOBILE_RADIO = 5,
    WIFI = 6,
    CAMERA = 7,
};

}  // namespace aidl::android::hardware::power::stats
