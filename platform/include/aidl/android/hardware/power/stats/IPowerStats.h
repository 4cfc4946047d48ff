// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/Channel.h>
#include <aidl/android/hardware/power/stats/EnergyConsumer.h>
#include <aidl/android/hardware/power/stats/EnergyConsumerResult.h>
#include <aidl/android/hardware/power/stats/EnergyMeasurement.h>
#include <aidl/android/hardware/power/stats/PowerEntity.h>
#include <aidl/android/hardware/power/stats/StateResidencyResult.h>
#include <android/binder_interface_utils.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace aidl::android::hardware::power::stats {

/// The power statistics service. Every method returns a status, and writes its result to its last
/// argument when that status is OK.
class IPowerStats : public ::ndk::ICInterface {
  public:
    /// "android.hardware.power.stats.IPowerStats"
    static const char* descriptor;

    /// Returns a proxy for the service behind a binder; null when the binder is null or of another
    /// interface, or when the service's process is dead.
    static std::shared_ptr<IPowerStats> fromBinder(const ::ndk::SpAIBinder& binder);

    /// Gets all power entities of the device, with their states.
    virtual ::ndk::ScopedAStatus getPowerEntityInfo(std::vector<PowerEntity>* _aidl_return) = 0;
    /// Gets the state residencies of the listed entities; of all when the list is empty.
    virtual ::ndk::ScopedAStatus getStateResidency(
        const std::vector<int32_t>& in_powerEntityIds,
        std::vector<StateResidencyResult>* _aidl_return) = 0;
    /// Gets all energy consumers of the device.
    virtual ::ndk::ScopedAStatus getEnergyConsumerInfo(
        std::vector<EnergyConsumer>* _aidl_return) = 0;
    /// Gets the energy of the listed consumers; of all when the list is empty.
    virtual ::ndk::ScopedAStatus getEnergyConsumed(
        const std::vector<int32_t>& in_energyConsumerIds,
        std::vector<EnergyConsumerResult>* _aidl_return) = 0;
    /// Gets all energy meter channels of the device.
    virtual ::ndk::ScopedAStatus getEnergyMeterInfo(std::vector<Channel>* _aidl_return) = 0;
    /// Reads the meters of the listed channels; of all when the list is empty.
    virtual ::ndk::ScopedAStatus readEnergyMeter(const std::vector<int32_t>& in_channelIds,
                                                 std::vector<EnergyMeasurement>* _aidl_return) = 0;
};

}  // namespace aidl::android::hardware::power::stats
