// SPDX-License-Identifier: Apache-2.0
//
// A source as a power stats service, over either interface.

#pragma once

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "power/Source.h"
#include "power/service/Interfaces.h"

namespace powerstats {

/// The ids of a list, for requests. A request is refused that has more ids than there are, an
/// unknown id, or an id twice. So the work that a client can cause is bounded by the list.
class ServedIds {
  public:
    /// @param kind [in] the word for a thing in a refusal.
    template <typename Thing>
    ServedIds(const std::vector<Thing>& things, std::string kind) : mKind(std::move(kind)) {
        for (const Thing& thing : things) mPositions.emplace(thing.id, mPositions.size());
    }

    /// Finds the positions of a request; no ids stand for all. A refused request has none.
    /// @return why the request is refused, in words.
    std::optional<std::string> select(const std::vector<int32_t>& ids, Positions* positions) const;

  private:
    const std::string mKind;
    std::unordered_map<int64_t, size_t> mPositions;
};

/// A source as the AIDL power stats service.
///
/// An empty list of ids asks for everything. Another list is answered in its order, or fails with
/// EX_ILLEGAL_ARGUMENT and a message; see ServedIds. Rails and entities that cannot be read now are
/// left out.
class AidlService : public stats_aidl::BnPowerStats {
  public:
    explicit AidlService(std::shared_ptr<Source> source);

    ndk::ScopedAStatus getPowerEntityInfo(std::vector<stats_aidl::PowerEntity>* entities) override;
    ndk::ScopedAStatus getStateResidency(
        const std::vector<int32_t>& entityIds,
        std::vector<stats_aidl::StateResidencyResult>* residencies) override;
    /// There are none: the counters do not divide energy among consumers.
    ndk::ScopedAStatus getEnergyConsumerInfo(
        std::vector<stats_aidl::EnergyConsumer>* consumers) override;
    ndk::ScopedAStatus getEnergyConsumed(
        const std::vector<int32_t>& consumerIds,
        std::vector<stats_aidl::EnergyConsumerResult>* energies) override;
    ndk::ScopedAStatus getEnergyMeterInfo(std::vector<stats_aidl::Channel>* channels) override;
    /// `durationMs` equals `timestampMs` for a channel that is since boot.
    ndk::ScopedAStatus readEnergyMeter(
        const std::vector<int32_t>& channelIds,
        std::vector<stats_aidl::EnergyMeasurement>* measurements) override;

  private:
    const std::shared_ptr<Source> mSource;
    const std::shared_ptr<const Lists> mLists;
    const ServedIds mRails;
    const ServedIds mEntities;
};

/// Whether the HIDL service has rails. The system bus cannot guard a single HIDL method: a refusal
/// by the bus is a failed transaction, and that ends the client's process. Energy is for privileged
/// clients only, so there it is served over AIDL alone.
enum class HidlRails { kServed, kNotServed };

/// A source as the HIDL 1.0 power stats service.
///
/// An empty list of ids asks for everything. Another list is answered in its order, or with
/// INVALID_INPUT and no records; see ServedIds. Rails and entities that cannot be read now are left
/// out; when that leaves none, the answer is FILESYSTEM_ERROR.
///
/// A HIDL record has no duration, so all energy is since boot here. Only the rails that are since
/// boot when this object is made are announced and known, and one that stops being so is left out
/// of the answers. When none is left, or rails are not served, both calls for rails answer
/// NOT_SUPPORTED.
class HidlService : public stats_V1_0::IPowerStats {
  public:
    using Ids = android::hardware::hidl_vec<uint32_t>;

    explicit HidlService(std::shared_ptr<Source> source, HidlRails rails = HidlRails::kServed);

    /// `samplingRate` is 0, because it is not known.
    android::hardware::Return<void> getRailInfo(getRailInfo_cb callback) override;
    android::hardware::Return<void> getEnergyData(const Ids& railIndices,
                                                  getEnergyData_cb callback) override;
    /// Answers NOT_SUPPORTED.
    android::hardware::Return<void> streamEnergyData(uint32_t timeMs, uint32_t samplingRate,
                                                     streamEnergyData_cb callback) override;
    android::hardware::Return<void> getPowerEntityInfo(getPowerEntityInfo_cb callback) override;
    android::hardware::Return<void> getPowerEntityStateInfo(
        const Ids& entityIds, getPowerEntityStateInfo_cb callback) override;
    android::hardware::Return<void> getPowerEntityStateResidencyData(
        const Ids& entityIds, getPowerEntityStateResidencyData_cb callback) override;

  private:
    bool anySinceBoot() const;

    const std::shared_ptr<Source> mSource;
    const std::shared_ptr<const Lists> mLists;
    /// The announced rails, by their positions in the lists, and in the order of ServedIds.
    std::vector<size_t> mAnnounced;
    std::optional<ServedIds> mRails;
    const ServedIds mEntities;
};

}  // namespace powerstats
