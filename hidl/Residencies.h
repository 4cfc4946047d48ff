// SPDX-License-Identifier: Apache-2.0
//
// The residency collector of the HIDL 1.0 backend.

#pragma once

#include <android/hardware/power/stats/1.0/IPowerStats.h>
#include <jni.h>

#include <cstdint>
#include <string>

#include "hidl/Connection.h"
#include "jni/Log.h"
#include "jni/Result.h"
#include "jni/State.h"

namespace ferrolith {

/// Reads the state residencies of every power entity once.
/// REQUIRES: gPowerStatsMutex is held
/// @return a new local reference to a Java array with the result, or null when there is none.
static jbyteArray getResidenciesV1_0(JNIEnv* env, jclass /*clazz*/) {
    if (!initPowerStatsV1_0()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Power stats HAL not loaded!");
        return nullptr;
    }

    std::string bytes;
    const auto serialize = [&bytes](const auto& entities, stats_V1_0::Status status) {
        if (status == stats_V1_0::Status::NOT_SUPPORTED) {
            __android_log_print(ANDROID_LOG_WARN, kLogTag,
                                "getPowerEntityStateResidencyData is not supported.");
            return;
        }
        // Records that come with any other status are used, as if the call had succeeded.
        proto::PowerDataResult result;
        const int64_t timestampMs = bootTimeMs();
        for (const auto& entity : entities) {
            const auto entityId = static_cast<int>(entity.powerEntityId);
            proto::PowerData* data =
                appendEntity(&result, entityId, timestampMs, entity.stateResidencyData.size());
            for (const auto& state : entity.stateResidencyData) {
                appendResidency(data, entityId, static_cast<int>(state.powerEntityStateId),
                                static_cast<int64_t>(state.totalTimeInStateMs),
                                static_cast<int64_t>(state.totalStateEntryCount));
            }
        }
        result.SerializeToString(&bytes);  // cannot fail: no field is required
    };
    // Deliberately unchecked: if the call failed, the destructor aborts on return, after the log
    // line about the empty result.
    const auto unexamined = gPowerStatsHalV1_0->getPowerEntityStateResidencyData({}, serialize);
    return residenciesToJava(env, bytes, __func__, "HAL");
}

}  // namespace ferrolith
