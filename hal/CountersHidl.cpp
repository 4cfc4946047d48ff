// SPDX-License-Identifier: Apache-2.0

#include "hal/CounterServices.h"

#include <algorithm>
#include <utility>

namespace powerstats {

using android::hardware::hidl_vec;
using android::hardware::MQDescriptorSync;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::power::stats::V1_0::EnergyData;
using android::hardware::power::stats::V1_0::PowerEntityInfo;
using android::hardware::power::stats::V1_0::PowerEntityStateInfo;
using android::hardware::power::stats::V1_0::PowerEntityStateResidencyData;
using android::hardware::power::stats::V1_0::PowerEntityStateResidencyResult;
using android::hardware::power::stats::V1_0::PowerEntityStateSpace;
using android::hardware::power::stats::V1_0::PowerEntityType;
using android::hardware::power::stats::V1_0::RailInfo;
using android::hardware::power::stats::V1_0::Status;

namespace {

/// An id above the greatest int32_t becomes negative here, and no negative id is known.
std::vector<int32_t> toIds(const hidl_vec<uint32_t>& ids) {
    return std::vector<int32_t>(ids.begin(), ids.end());
}

/// There are records with SUCCESS, and none with another status.
template <typename Record>
Status statusOf(const Answer<Record>& answer) {
    if (answer.refusal) return Status::INVALID_INPUT;
    return answer.records.empty() ? Status::FILESYSTEM_ERROR : Status::SUCCESS;
}

PowerEntityType toHidl(EntityType type) {
    switch (type) {
        case EntityType::kSystem:
            return PowerEntityType::SUBSYSTEM;
        case EntityType::kCpu:
            return PowerEntityType::POWER_DOMAIN;
        case EntityType::kDevice:
            break;
    }
    return PowerEntityType::PERIPHERAL;
}

PowerEntityStateSpace toHidl(const Entity& entity) {
    std::vector<PowerEntityStateInfo> states;
    for (const State& state : entity.states) {
        states.push_back({static_cast<uint32_t>(state.id), state.name});
    }
    return {static_cast<uint32_t>(entity.id), states};
}

PowerEntityStateResidencyResult toHidl(const EntityResidency& entity) {
    std::vector<PowerEntityStateResidencyData> states;
    for (const auto& [id, residency] : entity.states) {
        states.push_back({static_cast<uint32_t>(id), static_cast<uint64_t>(residency.totalTimeMs),
                          static_cast<uint64_t>(residency.entryCount),
                          static_cast<uint64_t>(residency.lastEntryMs)});
    }
    return {static_cast<uint32_t>(entity.id), states};
}

}  // namespace

CountersHidl::CountersHidl(std::shared_ptr<const Counters> counters, HidlRails rails)
    : mCounters(std::move(counters)) {
    if (rails == HidlRails::kNotServed) return;
    const std::vector<Rail>& all = mCounters->rails();
    for (size_t i = 0; i < all.size(); ++i) {
        if (mCounters->isSinceBoot(i)) mAnnouncedRails.insert(all[i].id);
    }
}

/// The rails in the order of the counters; none when none is since boot any more.
std::vector<const Rail*> CountersHidl::announcedRails() const {
    std::vector<const Rail*> rails;
    bool anySinceBoot = false;
    const std::vector<Rail>& all = mCounters->rails();
    for (size_t i = 0; i < all.size(); ++i) {
        if (mAnnouncedRails.count(all[i].id) == 0) continue;
        rails.push_back(&all[i]);
        anySinceBoot = anySinceBoot || mCounters->isSinceBoot(i);
    }
    if (!anySinceBoot) rails.clear();
    return rails;
}

Return<void> CountersHidl::getRailInfo(getRailInfo_cb callback) {
    std::vector<RailInfo> infos;
    for (const Rail* rail : announcedRails()) {
        infos.push_back({static_cast<uint32_t>(rail->id), rail->name, rail->subsystem, 0});
    }
    callback(infos, infos.empty() ? Status::NOT_SUPPORTED : Status::SUCCESS);
    return Void();
}

Return<void> CountersHidl::getEnergyData(const hidl_vec<uint32_t>& railIndices,
                                         getEnergyData_cb callback) {
    const std::vector<const Rail*> announced = announcedRails();
    if (announced.empty()) {
        callback({}, Status::NOT_SUPPORTED);
        return Void();
    }
    std::vector<int32_t> ids;
    if (railIndices.size() == 0) {
        for (const Rail* rail : announced) ids.push_back(rail->id);
    } else {
        ids = toIds(railIndices);
    }
    const bool areAnnounced = std::all_of(
        ids.begin(), ids.end(), [this](int32_t id) { return mAnnouncedRails.count(id) != 0; });
    if (!areAnnounced) {
        callback({}, Status::INVALID_INPUT);
        return Void();
    }
    const Answer<RailEnergy> answer = mCounters->readRails(ids);
    std::vector<EnergyData> energies;
    for (const auto& [id, reading] : answer.records) {
        if (!reading.isSinceBoot()) continue;
        energies.push_back({static_cast<uint32_t>(id), static_cast<uint64_t>(reading.timestampMs),
                            static_cast<uint64_t>(reading.energyUWs)});
    }
    const bool noneSinceBoot = energies.empty() && !answer.records.empty();
    callback(energies, noneSinceBoot ? Status::NOT_SUPPORTED : statusOf(answer));
    return Void();
}

Return<void> CountersHidl::streamEnergyData(uint32_t /*timeMs*/, uint32_t /*samplingRate*/,
                                            streamEnergyData_cb callback) {
    callback(MQDescriptorSync<EnergyData>(), 0, 0, Status::NOT_SUPPORTED);
    return Void();
}

Return<void> CountersHidl::getPowerEntityInfo(getPowerEntityInfo_cb callback) {
    std::vector<PowerEntityInfo> entities;
    for (const Entity& entity : mCounters->entities()) {
        entities.push_back({static_cast<uint32_t>(entity.id), entity.name, toHidl(entity.type)});
    }
    callback(entities, Status::SUCCESS);
    return Void();
}

Return<void> CountersHidl::getPowerEntityStateInfo(const hidl_vec<uint32_t>& entityIds,
                                                   getPowerEntityStateInfo_cb callback) {
    const Answer<const Entity*> answer = mCounters->selectEntities(toIds(entityIds));
    std::vector<PowerEntityStateSpace> spaces;
    for (const Entity* entity : answer.records) spaces.push_back(toHidl(*entity));
    callback(spaces, statusOf(answer));
    return Void();
}

Return<void> CountersHidl::getPowerEntityStateResidencyData(
    const hidl_vec<uint32_t>& entityIds, getPowerEntityStateResidencyData_cb callback) {
    const Answer<EntityResidency> answer = mCounters->readEntities(toIds(entityIds));
    std::vector<PowerEntityStateResidencyResult> results;
    for (const EntityResidency& entity : answer.records) results.push_back(toHidl(entity));
    callback(results, statusOf(answer));
    return Void();
}

}  // namespace powerstats
