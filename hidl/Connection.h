// SPDX-License-Identifier: Apache-2.0
//
// The connection to the HIDL 1.0 service. A collector makes it if needed, and with it reads the
// names that both collectors use. It is dropped when the service dies or a name query finds it
// dead.

#pragma once

#include <android/hardware/power/stats/1.0/IPowerStats.h>
#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "jni/Log.h"
#include "jni/State.h"

namespace ferrolith {

static void deinitPowerStatsV1_0();

/// Drops the connection. The platform calls it, on a thread of its own, when a linked service has
/// died. A collection in progress holds the mutex, so this waits for it.
class PowerStatsDeathRecipientV1_0 : public ::android::hardware::hidl_death_recipient {
  public:
    void serviceDied(uint64_t /*cookie*/,
                     const ::android::wp<::android::hidl::base::V1_0::IBase>& /*who*/) override {
        std::lock_guard<std::mutex> lock(gPowerStatsMutex);
        deinitPowerStatsV1_0();
    }
};

/// Drops the connection, if there is one. The names stay, for the next connection.
/// REQUIRES: gPowerStatsMutex is held
static void deinitPowerStatsV1_0() {
    if (gPowerStatsHalV1_0 == nullptr) return;
    gPowerStatsHalV1_0->unlinkToDeath(gDeathRecipientV1_0);  // OK even if the peer is dead
    gPowerStatsHalV1_0 = nullptr;
}

/// Returns whether a name query reached the service. If not, logs why, and drops a dead service.
/// REQUIRES: gPowerStatsMutex is held
static bool checkResultV1_0(const ::android::hardware::Return<void>& ret) {
    if (ret.isOk()) return true;
    __android_log_print(
        ANDROID_LOG_ERROR, kLogTag,
        "Failed to init state info: requested HAL service not available. Description: %s",
        ret.description().c_str());
    if (ret.isDeadObject()) deinitPowerStatsV1_0();
    return false;
}

/// Adds the service's entity and state names to the caches. Of two entries with one id the first
/// stays, even if it is from an earlier connection; state maps are never merged. So cached names
/// make this succeed even when the service reports no names, or an error.
/// REQUIRES: gPowerStatsMutex is held, gPowerStatsHalV1_0 is set
/// @return whether both queries reached the service and both caches hold any names now.
static bool initPowerEntityStateInfoV1_0() {
    const auto cacheEntities = [](const auto& entities, stats_V1_0::Status status) {
        if (status != stats_V1_0::Status::SUCCESS) {
            __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Failed to get power entity info.");
            return;
        }
        for (const auto& entity : entities) {
            gEntityNames.emplace(static_cast<int>(entity.powerEntityId), entity.powerEntityName);
        }
    };
    const auto cacheStates = [](const auto& entities, stats_V1_0::Status status) {
        if (status != stats_V1_0::Status::SUCCESS) {
            __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Failed to get state info.");
            return;
        }
        for (const auto& entity : entities) {
            std::unordered_map<int, std::string> states;
            for (const auto& state : entity.states) {
                states.emplace(static_cast<int>(state.powerEntityStateId),
                               state.powerEntityStateName);
            }
            gStateNames.emplace(static_cast<int>(entity.powerEntityId), std::move(states));
        }
    };

    if (!checkResultV1_0(gPowerStatsHalV1_0->getPowerEntityInfo(cacheEntities)) ||
        gEntityNames.empty()) {
        return false;
    }
    return checkResultV1_0(gPowerStatsHalV1_0->getPowerEntityStateInfo({}, cacheStates)) &&
           !gStateNames.empty();
}

/// Connects if there is no connection.
/// REQUIRES: gPowerStatsMutex is held
/// @return whether there is one now, with names in both caches; if not, the log says why, except
///     for a service without entities or states.
static bool initPowerStatsV1_0() {
    if (gPowerStatsHalV1_0 != nullptr) return true;
    gPowerStatsHalV1_0 = stats_V1_0::IPowerStats::getService("default", false);
    if (gPowerStatsHalV1_0 == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Unable to get power stats HAL service!");
        return false;
    }
    // The bool is deliberately unchecked: a connection without a death link can be used.
    const auto linked = gPowerStatsHalV1_0->linkToDeath(gDeathRecipientV1_0, 0);
    if (!linked.isOk()) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "Transaction error in linking to PowerStatsHAL death: %s",
                            linked.description().c_str());
    }
    if (initPowerEntityStateInfoV1_0()) return true;
    deinitPowerStatsV1_0();
    return false;
}

}  // namespace ferrolith
