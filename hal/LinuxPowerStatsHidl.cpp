// SPDX-License-Identifier: Apache-2.0

#include "hal/LinuxPowerStatsHidl.h"

#include <utility>
#include <vector>

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

PowerEntityStateSpace toHidl(const EntitySource& entity) {
    std::vector<PowerEntityStateInfo> states;
    for (const StateSource& state : entity.states) {
        states.push_back({static_cast<uint32_t>(state.id), state.name});
    }
    return {static_cast<uint32_t>(entity.id), states};
}

PowerEntityStateResidencyResult toHidl(const EntityResidency& entity) {
    std::vector<PowerEntityStateResidencyData> states;
    for (const auto& [id, residency] : entity.states) {
        states.push_back({static_cast<uint32_t>(id), static_cast<uint64_t>(residency.totalTimeMs),
                          static_cast<uint64_t>(residency.entryCount), 0});
    }
    return {static_cast<uint32_t>(entity.id), states};
}

}  // namespace

LinuxPowerStatsHidl::LinuxPowerStatsHidl(std::shared_ptr<const LinuxCounters> counters,
                                         HidlRails rails)
    : mCounters(std::move(counters)), mRails(rails) {}

bool LinuxPowerStatsHidl::hasRails() const {
    return mRails == HidlRails::kServed && !mCounters->rails().empty();
}

Return<void> LinuxPowerStatsHidl::getRailInfo(getRailInfo_cb callback) {
    if (!hasRails()) {
        callback({}, Status::NOT_SUPPORTED);
        return Void();
    }
    std::vector<RailInfo> rails;
    for (const Rail& rail : mCounters->rails()) {
        rails.push_back({static_cast<uint32_t>(rail.id), rail.name, rail.source.subsystem, 0});
    }
    callback(rails, Status::SUCCESS);
    return Void();
}

Return<void> LinuxPowerStatsHidl::getEnergyData(const hidl_vec<uint32_t>& railIndices,
                                                getEnergyData_cb callback) {
    if (!hasRails()) {
        callback({}, Status::NOT_SUPPORTED);
        return Void();
    }
    const auto timestampMs = static_cast<uint64_t>(mCounters->timestampMs());
    const Answer<RailEnergy> answer = mCounters->readRails(toIds(railIndices));
    std::vector<EnergyData> energies;
    for (const auto& [id, energyUWs] : answer.records) {
        energies.push_back(
            {static_cast<uint32_t>(id), timestampMs, static_cast<uint64_t>(energyUWs)});
    }
    callback(energies, answer.refusal ? Status::INVALID_INPUT : Status::SUCCESS);
    return Void();
}

Return<void> LinuxPowerStatsHidl::streamEnergyData(uint32_t /*timeMs*/, uint32_t /*samplingRate*/,
                                                   streamEnergyData_cb callback) {
    callback(MQDescriptorSync<EnergyData>(), 0, 0, Status::NOT_SUPPORTED);
    return Void();
}

Return<void> LinuxPowerStatsHidl::getPowerEntityInfo(getPowerEntityInfo_cb callback) {
    std::vector<PowerEntityInfo> entities;
    for (const EntitySource& entity : mCounters->entities()) {
        entities.push_back({static_cast<uint32_t>(entity.id), entity.name, toHidl(entity.type)});
    }
    callback(entities, Status::SUCCESS);
    return Void();
}

Return<void> LinuxPowerStatsHidl::getPowerEntityStateInfo(const hidl_vec<uint32_t>& entityIds,
                                                          getPowerEntityStateInfo_cb callback) {
    const Answer<const EntitySource*> answer = mCounters->selectEntities(toIds(entityIds));
    std::vector<PowerEntityStateSpace> spaces;
    for (const EntitySource* entity : answer.records) spaces.push_back(toHidl(*entity));
    callback(spaces, answer.refusal ? Status::INVALID_INPUT : Status::SUCCESS);
    return Void();
}

Return<void> LinuxPowerStatsHidl::getPowerEntityStateResidencyData(
    const hidl_vec<uint32_t>& entityIds, getPowerEntityStateResidencyData_cb callback) {
    const Answer<EntityResidency> answer = mCounters->readEntities(toIds(entityIds));
    std::vector<PowerEntityStateResidencyResult> results;
    for (const EntityResidency& entity : answer.records) results.push_back(toHidl(entity));
    callback(results, answer.refusal ? Status::INVALID_INPUT : Status::SUCCESS);
    return Void();
}

}  // namespace powerstats
