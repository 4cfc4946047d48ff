// SPDX-License-Identifier: Apache-2.0
//
// The native half of com.tavrel.android.ferrolith.TavrelPowerStatsHalDataProvider.
//
// Java calls one of the two entry points at the end of this file. It takes `gPowerStatsMutex` for
// the whole call. The first call of the process chooses a backend for good: AIDL when that service
// is registered, HIDL 1.0 otherwise. The backend's collector connects if needed, asks the service,
// builds one PowerDataResult and returns its bytes as a Java array, or null when it collected
// nothing. Between calls the library runs only when the platform reports the death of the service,
// on one of the platform's threads, under the same mutex.
//
// Three things end the process: a service that reports an id it did not announce (jni/Strict.h), a
// HIDL data call that did not reach the service (hidl/RailEnergy.h, hidl/Residencies.h), and a
// failure of the C++ runtime, such as running out of memory. On a device the C++ library throws no
// exceptions: it prints a message and aborts. On a host the library is built without unwind tables,
// so the runtime finds no handler for an exception thrown beneath it, and aborts.

#include <android/binder_ibinder.h>
#include <android/binder_manager.h>
#include <jni.h>

#include <mutex>

#include "aidl/Connection.h"
#include "aidl/RailEnergy.h"
#include "aidl/Residencies.h"
#include "hidl/Connection.h"
#include "hidl/RailEnergy.h"
#include "hidl/Residencies.h"
#include "jni/Log.h"
#include "jni/State.h"
#include "jni/Strict.h"

namespace ferrolith {

// The order of these definitions is the order of construction, and in reverse of destruction: the
// AIDL recipient goes before the service it is linked to.
std::function<jbyteArray(JNIEnv*, jclass)> gGetResidenciesImpl;
std::function<jbyteArray(JNIEnv*, jclass)> gGetRailEnergyImpl;
std::mutex gPowerStatsMutex;
std::unordered_map<int, std::string> gEntityNames;
std::unordered_map<int, std::unordered_map<int, std::string>> gStateNames;
std::unordered_map<int, stats_aidl::Channel> gChannels;
::android::sp<stats_V1_0::IPowerStats> gPowerStatsHalV1_0;
::android::sp<PowerStatsDeathRecipientV1_0> gDeathRecipientV1_0 = new PowerStatsDeathRecipientV1_0;
namespace {
std::string gPowerStatsAidlInstance =
    std::string() + stats_aidl::IPowerStats::descriptor + "/default";
}  // namespace
std::shared_ptr<stats_aidl::IPowerStats> gPowerStatsHalAidl;
::ndk::ScopedAIBinder_DeathRecipient gDeathRecipientAidl(
    AIBinder_DeathRecipient_new(binderDiedCallbackAidl));

/// Chooses the backend and binds both callables to its collectors. Connects to nothing.
/// REQUIRES: gPowerStatsMutex is held
static void getPowerStatsImpl() {
    // Never released: one reference per process is kept on purpose.
    if (AServiceManager_getService(gPowerStatsAidlInstance.c_str()) != nullptr) {
        __android_log_print(ANDROID_LOG_INFO, kLogTag, "Using power.stats AIDL");
        gGetRailEnergyImpl = getRailEnergyAidl;
        gGetResidenciesImpl = getResidenciesAidl;
    } else {
        __android_log_print(ANDROID_LOG_INFO, kLogTag, "Using power.stats 1.0");
        gGetRailEnergyImpl = getRailEnergyV1_0;
        gGetResidenciesImpl = getResidenciesV1_0;
    }
}

/// Serves one call from Java.
/// @param collector [in] one of the two callables; if it is empty, the selection binds it.
static jbyteArray collect(const std::function<jbyteArray(JNIEnv*, jclass)>& collector, JNIEnv* env,
                          jclass clazz) {
    std::lock_guard<std::mutex> lock(gPowerStatsMutex);
    if (!collector) getPowerStatsImpl();
    if (!collector) abortWithMessage("bad_function_call was thrown in -fno-exceptions mode");
    return collector(env, clazz);
}

}  // namespace ferrolith

/// Returns the time that each power entity spent in each of its states since boot.
/// @return a serialized PowerDataResult; an empty array when the service reported no entity; null
///     when nothing could be collected, and then the log says why.
extern "C" JNIEXPORT jbyteArray JNICALL
Java_com_tavrel_android_ferrolith_TavrelPowerStatsHalDataProvider_getResidenciesNative(
    JNIEnv* env, jclass clazz) {
    return ferrolith::collect(ferrolith::gGetResidenciesImpl, env, clazz);
}

/// Returns the energy that each power rail used since boot.
/// @return a serialized PowerDataResult, empty when no rail is measured since boot; null when
///     nothing could be collected, and then the log says why.
extern "C" JNIEXPORT jbyteArray JNICALL
Java_com_tavrel_android_ferrolith_TavrelPowerStatsHalDataProvider_getRailEnergyNative(
    JNIEnv* env, jclass clazz) {
    return ferrolith::collect(ferrolith::gGetRailEnergyImpl, env, clazz);
}
