// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/BnPowerStats.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "hal/LinuxCounters.h"

namespace powerstats {

/// A Linux machine's counters as the AIDL power stats service.
///
/// An empty list of ids asks for everything. Another list is answered in its order; one with an
/// unknown id, a repeated id or more ids than there are fails with EX_ILLEGAL_ARGUMENT and a
/// message that says which. Rails and entities that cannot be read now are left out.
class LinuxPowerStatsAidl : public aidl::android::hardware::power::stats::BnPowerStats {
  public:
    explicit LinuxPowerStatsAidl(std::shared_ptr<const LinuxCounters> counters);

    ndk::ScopedAStatus getPowerEntityInfo(
        std::vector<aidl::android::hardware::power::stats::PowerEntity>* entities) override;

    /// `lastEntryTimestampMs` is 0: the kernel does not tell when a state was entered.
    ndk::ScopedAStatus getStateResidency(
        const std::vector<int32_t>& entityIds,
        std::vector<aidl::android::hardware::power::stats::StateResidencyResult>* residencies)
        override;

    /// There are none: a Linux kernel does not divide energy among consumers.
    ndk::ScopedAStatus getEnergyConsumerInfo(
        std::vector<aidl::android::hardware::power::stats::EnergyConsumer>* consumers) override;
    ndk::ScopedAStatus getEnergyConsumed(
        const std::vector<int32_t>& consumerIds,
        std::vector<aidl::android::hardware::power::stats::EnergyConsumerResult>* energies)
        override;

    ndk::ScopedAStatus getEnergyMeterInfo(
        std::vector<aidl::android::hardware::power::stats::Channel>* channels) override;

    /// `durationMs` equals `timestampMs` for a channel that is since boot; see EnergyReading.
    ndk::ScopedAStatus readEnergyMeter(
        const std::vector<int32_t>& channelIds,
        std::vector<aidl::android::hardware::power::stats::EnergyMeasurement>* measurements)
        override;

  private:
    const std::shared_ptr<const LinuxCounters> mCounters;
};

}  // namespace powerstats
