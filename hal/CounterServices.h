// SPDX-License-Identifier: Apache-2.0
//
// Counters as a power stats service, over either interface.

#pragma once

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <cstdint>
#include <memory>
#include <unordered_set>
#include <vector>

#include "hal/Counters.h"

namespace powerstats {

/// Counters as the AIDL power stats service.
///
/// An empty list of ids asks for everything. Another list is answered in its order; one with an
/// unknown id, a repeated id or more ids than there are fails with EX_ILLEGAL_ARGUMENT and a
/// message that says which. Rails and entities that cannot be read now are left out.
class CountersAidl : public aidl::android::hardware::power::stats::BnPowerStats {
  public:
    explicit CountersAidl(std::shared_ptr<const Counters> counters);

    ndk::ScopedAStatus getPowerEntityInfo(
        std::vector<aidl::android::hardware::power::stats::PowerEntity>* entities) override;

    ndk::ScopedAStatus getStateResidency(
        const std::vector<int32_t>& entityIds,
        std::vector<aidl::android::hardware::power::stats::StateResidencyResult>* residencies)
        override;

    /// There are none: the counters do not divide energy among consumers.
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
    const std::shared_ptr<const Counters> mCounters;
};

/// Whether the HIDL service has rails. The system bus cannot guard a single HIDL method: a refusal
/// by the bus is a failed transaction, and that ends the client's process. Energy is for privileged
/// clients only, so there it is served over AIDL alone.
enum class HidlRails { kServed, kNotServed };

/// Counters as the HIDL 1.0 power stats service.
///
/// An empty list of ids asks for everything. Another list is answered in its order; one with an
/// unknown id, a repeated id or more ids than there are is answered with INVALID_INPUT and no
/// records. Rails and entities that cannot be read now are left out; when that leaves none, the
/// answer is FILESYSTEM_ERROR.
///
/// A HIDL record has no duration, so all energy is since boot here. Only the rails that are since
/// boot when this object is made are announced and known, and one that stops being so is left out
/// of the answers. When none is left, or rails are not served, both calls for rails answer
/// NOT_SUPPORTED.
class CountersHidl : public android::hardware::power::stats::V1_0::IPowerStats {
  public:
    explicit CountersHidl(std::shared_ptr<const Counters> counters,
                          HidlRails rails = HidlRails::kServed);

    /// `samplingRate` is 0, because it is not known.
    android::hardware::Return<void> getRailInfo(getRailInfo_cb callback) override;
    android::hardware::Return<void> getEnergyData(
        const android::hardware::hidl_vec<uint32_t>& railIndices,
        getEnergyData_cb callback) override;
    /// Answers NOT_SUPPORTED.
    android::hardware::Return<void> streamEnergyData(uint32_t timeMs, uint32_t samplingRate,
                                                     streamEnergyData_cb callback) override;

    android::hardware::Return<void> getPowerEntityInfo(getPowerEntityInfo_cb callback) override;
    android::hardware::Return<void> getPowerEntityStateInfo(
        const android::hardware::hidl_vec<uint32_t>& entityIds,
        getPowerEntityStateInfo_cb callback) override;
    android::hardware::Return<void> getPowerEntityStateResidencyData(
        const android::hardware::hidl_vec<uint32_t>& entityIds,
        getPowerEntityStateResidencyData_cb callback) override;

  private:
    std::vector<const Rail*> announcedRails() const;

    const std::shared_ptr<const Counters> mCounters;
    std::unordered_set<int32_t> mAnnouncedRails;
};

}  // namespace powerstats
