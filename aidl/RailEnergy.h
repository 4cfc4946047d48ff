// SPDX-License-Identifier: Apache-2.0
//
// The rail energy collector of the AIDL backend.

#pragma once

#include <aidl/android/hardware/power/stats/Channel.h>
#include <aidl/android/hardware/power/stats/EnergyMeasurement.h>
#include <jni.h>

#include <cstdint>
#include <vector>

#include "aidl/Connection.h"
#include "jni/Log.h"
#include "jni/Result.h"
#include "jni/State.h"
#include "jni/Strict.h"

namespace ferrolith {

/// Fills gChannels if it is empty. Of two channels with one id the first stays.
/// REQUIRES: gPowerStatsMutex is held
/// @return whether it holds any channel now, which implies a connection.
static bool initChannelsAidl() {
    if (!gChannels.empty()) return true;
    if (!initPowerStatsAidl()) return false;
    std::vector<stats_aidl::Channel> channels;
    if (!gPowerStatsHalAidl->getEnergyMeterInfo(&channels).isOk()) return false;
    for (const auto& channel : channels) gChannels.emplace(channel.id, channel);
    return !gChannels.empty();
}

/// Reads every energy meter once.
/// REQUIRES: gPowerStatsMutex is held
/// @return a new local reference to a Java array with the result, or null when there is none.
static jbyteArray getRailEnergyAidl(JNIEnv* env, jclass /*clazz*/) {
    if (!initChannelsAidl()) {
        __android_log_print(ANDROID_LOG_INFO, kLogTag, "Power stats rail energy init failed");
        return nullptr;
    }

    std::vector<stats_aidl::EnergyMeasurement> measurements;
    if (!gPowerStatsHalAidl->readEnergyMeter({}, &measurements).isOk()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Error reading energy meter");
        return nullptr;
    }

    proto::PowerDataResult result;
    const int64_t timestampMs = bootTimeMs();
    for (const auto& measurement : measurements) {
        // Only energy accumulated over the whole time since boot counts: a meter that was started
        // or reset later has a shorter duration.
        if (measurement.durationMs != measurement.timestampMs) continue;
        appendRail(&result, strictAt(gChannels, measurement.id).name, timestampMs,
                   toMillijoules(static_cast<float>(measurement.energyUWs)));
    }
    return railsToJava(env, result);
}

}  // namespace ferrolith
