// SPDX-License-Identifier: Apache-2.0
//
// The clients' side of the two interfaces.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <memory>

#include "power/Reading.h"

namespace powerstats {

/// The service that look-ups find now, or null.
std::shared_ptr<aidl::android::hardware::power::stats::IPowerStats> findAidl();
android::sp<android::hardware::power::stats::V1_0::IPowerStats> findHidl();

/// Why a call failed; kNone when it succeeded. The text is safe, and cut where it is long.
Failure failureOf(const ndk::ScopedAStatus& status);
Failure failureOf(const android::hardware::Return<void>& result);

}  // namespace powerstats
