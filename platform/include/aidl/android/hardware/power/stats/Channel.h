// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <string>
#include <tuple>

namespace aidl::android::hardware::power::stats {

/// One energy meter channel: a rail, or a group of rails, whose energy is measured.
class Channel {
  public:
    int32_t id = 0;         ///< named by measurements; unique in the device
    std::string name;       ///< the rail's
    std::string subsystem;  ///< the part of the device that the rail feeds

    bool operator==(const Channel& rhs) const {
        return std::tie(id, name, subsystem) == std::tie(rhs.id, rhs.name, rhs.subsystem);
    }
};

}  // namespace aidl::android::hardware::power::stats
