// SPDX-License-Identifier: Apache-2.0
//
// The clients' side of the two interfaces: their services, failures of their calls, and our records
// from those of AIDL. Times of the interfaces are milliseconds.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <cstdint>
#include <memory>

#include "power/Reading.h"

namespace powerstats {

namespace stats_aidl = ::aidl::android::hardware::power::stats;
namespace stats_V1_0 = ::android::hardware::power::stats::V1_0;

/// The service that look-ups find now, or null.
std::shared_ptr<stats_aidl::IPowerStats> findAidl();
android::sp<stats_V1_0::IPowerStats> findHidl();

/// Why a call failed; kNone when it succeeded. The text is safe.
Failure failureOf(const ndk::ScopedAStatus& status);
Failure failureOf(const android::hardware::Return<void>& result);

inline Rail fromHal(const stats_aidl::Channel& channel) {
    return {channel.id, channel.name, channel.subsystem};
}

inline Entity fromHal(const stats_aidl::PowerEntity& from) {
    Entity entity{from.id, from.name};
    for (const auto& state : from.states) entity.states.push_back({state.id, state.name});
    return entity;
}

inline Energy fromHal(const stats_aidl::EnergyMeasurement& energy) {
    return {fromMilliseconds(energy.timestampMs), fromMilliseconds(energy.durationMs),
            energy.energyUWs};
}

inline Residency fromHal(const stats_aidl::StateResidency& state) {
    return {fromMilliseconds(state.totalTimeInStateMs), state.totalStateEntryCount,
            fromMilliseconds(state.lastEntryTimestampMs)};
}

}  // namespace powerstats
