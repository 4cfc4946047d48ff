// SPDX-License-Identifier: Apache-2.0
//
// The connection to the AIDL service: made when a collector needs it, dropped when it dies.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <android/binder_manager.h>

#include <mutex>

#include "jni/Log.h"
#include "jni/State.h"

namespace ferrolith {

/// Told by the platform, on a thread of its own, that a linked service has died: forgets it and all
/// that was learnt from it. A collection that is running has the mutex, so this waits for it.
static void binderDiedCallbackAidl(void* /*cookie*/) {
    std::lock_guard<std::mutex> lock(gPowerStatsMutex);
    gPowerStatsHalAidl = nullptr;
    gEntityNames.clear();
    gStateNames.clear();
    gChannels.clear();
}

/// Connects if there is no connection.
/// REQUIRES: gPowerStatsMutex is held
/// @return whether there is one now; when not, why is in the log.
static bool initPowerStatsAidl() {
    if (gPowerStatsHalAidl != nullptr) return true;
    {
        const ::ndk::SpAIBinder binder(AServiceManager_getService(gPowerStatsAidlInstance.c_str()));
        gPowerStatsHalAidl = stats_aidl::IPowerStats::fromBinder(binder);
    }
    if (gPowerStatsHalAidl == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag, "Unable to get power stats AIDL service!");
        return false;
    }
    // A connection that could not be linked is still one: its reads go on until they fail.
    AIBinder_linkToDeath(gPowerStatsHalAidl->asBinder().get(), gDeathRecipientAidl.get(), nullptr);
    return true;
}

}  // namespace ferrolith
