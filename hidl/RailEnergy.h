// SPDX-License-Identifier: Apache-2.0
//
// The rail energy collector of the HIDL 1.0 backend.

#pragma once

#include <android/hardware/power/stats/1.0/IPowerStats.h>
#include <hidl/HidlSupport.h>
#include <jni.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

#include "hidl/Connection.h"
#include "jni/Log.h"
#include "jni/Result.h"
#include "jni/State.h"
#include "jni/Strict.h"

namespace ferrolith {

/// Rail index to (subsystem name, rail name).
using RailNamesV1_0 = std::unordered_map<uint32_t, std::pair<std::string, std::string>>;

/// Asks for the rails. Rails that come with an error are used: only "not supported" means that
/// there are none. The transport result is deliberately unchecked: if the call failed, its
/// destructor ends the process. REQUIRES: gPowerStatsMutex is held, gPowerStatsHalV1_0 is set
/// @return the rails; of two with one index the first stays.
static RailNamesV1_0 readRailNamesV1_0() {
    RailNamesV1_0 railNamesV1_0;
    gPowerStatsHalV1_0->getRailInfo([&railNamesV1_0](const auto& rails, stats_V1_0::Status status) {
        if (status == stats_V1_0::Status::NOT_SUPPORTED) {
            __android_log_print(ANDROID_LOG_WARN, kLogTag, "getRailInfo() is not supported.");
            return;
        }
        for (const auto& rail : rails) {
            railNamesV1_0.emplace(rail.index,
                                  RailNamesV1_0::mapped_type(rail.subsysName, rail.railName));
        }
    });
    return railNamesV1_0;
}

/// Reads the energy of every rail once. Each call asks for the rails again; nothing is kept.
/// REQUIRES: gPowerStatsMutex is held
/// @return a new local reference to a Java array with the result, or null when there is none.
static jbyteArray getRailEnergyV1_0(JNIEnv* env, jclass /*clazz*/) {
    if (!initPowerStatsV1_0()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Power stats HAL not loaded!");
        return nullptr;
    }

    const RailNamesV1_0 railNamesV1_0 = readRailNamesV1_0();
    if (railNamesV1_0.empty()) {
        __android_log_print(ANDROID_LOG_WARN, kLogTag,
                            "Rail names are empty because rail energy is not supported.");
        return nullptr;
    }

    ::android::hardware::hidl_vec<stats_V1_0::EnergyData> records;
    stats_V1_0::Status energyStatus = stats_V1_0::Status::SUCCESS;
    // Deliberately unchecked, as in readRailNamesV1_0().
    gPowerStatsHalV1_0->getEnergyData(
        {}, [&records, &energyStatus](const auto& data, stats_V1_0::Status status) {
            energyStatus = status;
            records = data;
        });
    if (energyStatus != stats_V1_0::Status::SUCCESS) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Error getting rail energy data.");
        return nullptr;
    }

    proto::PowerDataResult result;
    const int64_t timestampMs = bootTimeMs();
    for (const auto& record : records) {
        appendRail(&result, strictAt(railNamesV1_0, record.index).second, timestampMs,
                   toMillijoules(static_cast<float>(record.energy)));
    }
    return railsToJava(env, result);
}

}  // namespace ferrolith
