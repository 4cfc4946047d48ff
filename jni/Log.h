// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <android/log.h>

namespace ferrolith {

/// The tag of every log line of the library.
constexpr char kLogTag[] = "TavrelPowerStatsHalDataProviderNative";

}  // namespace ferrolith
