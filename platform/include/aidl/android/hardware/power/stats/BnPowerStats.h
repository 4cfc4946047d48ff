// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>

namespace aidl::android::hardware::power::stats {

/// Base of services. Derive from it and override the interface's methods.
class BnPowerStats : public IPowerStats {};

}  // namespace aidl::android::hardware::power::stats
