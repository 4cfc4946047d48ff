// SPDX-License-Identifier: Apache-2.0
//
// The connection to the AIDL service. A collector makes it if needed; a death of the service drops
// it.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <android/binder_manager.h>

#include <mutex>

#include "jni/Log.h"
#include "jni/State.h"

namespace ferrolith {

/// Drops the connection and clears the caches. The platform calls this, on a thread of its own,
/// when a linked service has died. A collection in progress holds the mutex, so this waits for it.
static void binderDiedCallbackAidl(void* /*cookie*/) {
    std::lock_guard<std::mutex> lock(gPowerStatsMutex);
    gPowerStatsHalAidl = nullptr;
    gEntityNames.clear();
    gStateNames.clear();
    gChannels.clear();
}

/// Connects if there is no connection.
/// REQUIRES: gPowerStatsMutex is held
/// @return whether there is one now; if not, the log says why.
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
    // Deliberately unchecked: a connection without a death link works until its reads fail.
    AIBinder_linkToDeath(gPowerStatsHalAidl->asBinder().get(), gDeathRecipientAidl.get(), nullptr);
    return true;
}

}  // namespace ferrolith
