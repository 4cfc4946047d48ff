// SPDX-License-Identifier: Apache-2.0
//
// The residency collector of the AIDL backend.

#pragma once

#include <aidl/android/hardware/power/stats/PowerEntity.h>
#include <aidl/android/hardware/power/stats/StateResidencyResult.h>
#include <jni.h>

#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "aidl/Connection.h"
#include "jni/Log.h"
#include "jni/Result.h"
#include "jni/State.h"

namespace ferrolith {

/// Fills gEntityNames and gStateNames if either is empty. Of two entities with one id, and of two
/// states with one id in an entity, the first stays; state maps are never merged.
/// REQUIRES: gPowerStatsMutex is held
/// @return whether both hold any names now, which implies a connection.
static bool initNamesAidl() {
    if (!gEntityNames.empty() && !gStateNames.empty()) return true;
    if (!initPowerStatsAidl()) return false;
    std::vector<stats_aidl::PowerEntity> entities;
    if (!gPowerStatsHalAidl->getPowerEntityInfo(&entities).isOk()) return false;
    for (const auto& entity : entities) {
        std::unordered_map<int, std::string> states;
        for (const auto& state : entity.states) states.emplace(state.id, state.name);
        gEntityNames.emplace(entity.id, entity.name);
        gStateNames.emplace(entity.id, std::move(states));
    }
    return !gEntityNames.empty() && !gStateNames.empty();
}

/// Reads the state residencies of every power entity once.
/// REQUIRES: gPowerStatsMutex is held
/// @return a new local reference to a Java array with the result, or null when there is none.
static jbyteArray getResidenciesAidl(JNIEnv* env, jclass /*clazz*/) {
    if (!initNamesAidl()) {
        __android_log_print(ANDROID_LOG_INFO, kLogTag, "Power stats residencies init failed");
        return nullptr;
    }

    std::vector<stats_aidl::StateResidencyResult> entities;
    if (!gPowerStatsHalAidl->getStateResidency({}, &entities).isOk()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Error reading getting state residency");
        return nullptr;
    }

    proto::PowerDataResult result;
    const int64_t timestampMs = bootTimeMs();
    for (const auto& entity : entities) {
        proto::PowerData* data =
            appendEntity(&result, entity.id, timestampMs, entity.stateResidencyData.size());
        for (const auto& state : entity.stateResidencyData) {
            appendResidency(data, entity.id, state.id, state.totalTimeInStateMs,
                            state.totalStateEntryCount);
        }
    }
    std::string bytes;
    result.SerializeToString(&bytes);  // cannot fail: no field is required
    return residenciesToJava(env, bytes, __func__, "AIDL");
}

}  // namespace ferrolith
