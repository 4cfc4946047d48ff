// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>

namespace aidl::android::hardware::power::stats {

/// The proxy. It forwards to the service while that lives and answers STATUS_DEAD_OBJECT once it is
/// dead; a service that dies before it has answered has not answered. As over a real transport the
/// caller's result is written only when the call succeeded.
///
/// The two energy consumer methods answer STATUS_UNKNOWN_TRANSACTION.
class BpPowerStats : public ::ndk::BpCInterface<IPowerStats> {
  public:
    explicit BpPowerStats(const ::ndk::SpAIBinder& binder);
    ~BpPowerStats() override;

    ::ndk::ScopedAStatus getPowerEntityInfo(std::vector<PowerEntity>* _aidl_return) override;
    ::ndk::ScopedAStatus getStateResidency(
        const std::vector<int32_t>& in_powerEntityIds,
        std::vector<StateResidencyResult>* _aidl_return) override;
    ::ndk::ScopedAStatus getEnergyConsumerInfo(std::vector<EnergyConsumer>* _aidl_return) override;
    ::ndk::ScopedAStatus getEnergyConsumed(
        const std::vector<int32_t>& in_energyConsumerIds,
        std::vector<EnergyConsumerResult>* _aidl_return) override;
    ::ndk::ScopedAStatus getEnergyMeterInfo(std::vector<Channel>* _aidl_return) override;
    ::ndk::ScopedAStatus readEnergyMeter(const std::vector<int32_t>& in_channelIds,
                                         std::vector<EnergyMeasurement>* _aidl_return) override;
};

}  // namespace aidl::android::hardware::power::stats
