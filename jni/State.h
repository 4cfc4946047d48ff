// SPDX-License-Identifier: Apache-2.0
//
// The state that the library keeps between calls. TavrelPowerStatsHalDataProviderNative.cpp defines
// these objects in the order of their construction; they are destroyed in the reverse order.
// `gPowerStatsMutex` guards every one of them. A process uses one backend only, so both backends
// never fill the same cache.

#pragma once

#include <aidl/android/hardware/power/stats/Channel.h>
#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/binder_auto_utils.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>
#include <jni.h>
#include <utils/StrongPointer.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace ferrolith {

namespace stats_aidl = ::aidl::android::hardware::power::stats;
namespace stats_V1_0 = ::android::hardware::power::stats::V1_0;

class PowerStatsDeathRecipientV1_0;

// The library is built with hidden visibility; these are exported.
#pragma GCC visibility push(default)

/// The collectors of the chosen backend; empty until the first call of the process chooses one.
extern std::function<jbyteArray(JNIEnv*, jclass)> gGetResidenciesImpl;
extern std::function<jbyteArray(JNIEnv*, jclass)> gGetRailEnergyImpl;

extern std::mutex gPowerStatsMutex;

/// Power entity id to its name, and to its states' names by state id. A service's unsigned ids are
/// kept as the `int` with the same bits. An empty cache has not been filled; an entry is never
/// replaced. A death of the AIDL service clears both. With HIDL they outlive the connection: names
/// from an earlier connection win.
extern std::unordered_map<int, std::string> gEntityNames;
extern std::unordered_map<int, std::unordered_map<int, std::string>> gStateNames;

/// AIDL energy meter channels by id. A death of the service clears them.
extern std::unordered_map<int, stats_aidl::Channel> gChannels;

/// The connected HIDL service, or null, and the recipient that every connection is linked to.
extern ::android::sp<stats_V1_0::IPowerStats> gPowerStatsHalV1_0;
extern ::android::sp<PowerStatsDeathRecipientV1_0> gDeathRecipientV1_0;

/// The connected AIDL service, or null, and the recipient that every connection is linked to. While
/// this is null the three caches are empty, if the backend is AIDL.
extern std::shared_ptr<stats_aidl::IPowerStats> gPowerStatsHalAidl;
extern ::ndk::ScopedAIBinder_DeathRecipient gDeathRecipientAidl;

#pragma GCC visibility pop

// The one global of this file alone: not exported, and shared by the parts of the one translation
// unit.
namespace {
/// The name under which the service manager has the AIDL service.
extern std::string gPowerStatsAidlInstance;
}  // namespace

}  // namespace ferrolith
