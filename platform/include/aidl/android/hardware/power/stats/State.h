// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <string>

namespace aidl::android::hardware::power::stats {

/// One state that a power entity can be in.
class State {
  public:
    int32_t id = 0;  ///< unique within the entity
    std::string name;
};

}  // namespace aidl::android::hardware::power::stats
