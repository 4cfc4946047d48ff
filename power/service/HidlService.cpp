// SPDX-License-Identifier: Apache-2.0

#include <algorithm>

#include "power/service/Services.h"

namespace powerstats {

using android::hardware::Return;
using android::hardware::Void;
using stats_V1_0::PowerEntityType;
using stats_V1_0::Status;

namespace {

uint32_t toHidl(int64_t id) {
    return static_cast<uint32_t>(id);
}

uint64_t toHidl(nanoseconds time) {
    return static_cast<uint64_t>(toMilliseconds(time));
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

/// Finds the positions of a request. An id above the greatest int32_t becomes negative here, and no
/// negative id is known.
/// @return whether the request is granted.
bool select(const ServedIds& known, const HidlService::Ids& ids, Positions* positions) {
    return !known.select(std::vector<int32_t>(ids.begin(), ids.end()), positions);
}

/// There are records with SUCCESS, and none with another status.
template <typename Records>
Status statusOf(bool isGranted, const Records& records) {
    if (!isGranted) return Status::INVALID_INPUT;
    return records.empty() ? Status::FILESYSTEM_ERROR : Status::SUCCESS;
}

}  // namespace

HidlService::HidlService(std::shared_ptr<Source> source, HidlRails rails)
    : mSource(std::move(source)),
      mLists(mSource->read(kNothing, kNothing).lists),
      mEntities(mLists->entities, "power entity") {
    std::vector<Rail> announced;
    const Reading reading = mSource->read(std::nullopt, kNothing);
    for (size_t i = 0; i < mLists->rails.size() && rails == HidlRails::kServed; ++i) {
        if (!reading.rails[i] || !reading.rails[i]->isSinceBoot()) continue;
        mAnnounced.push_back(i);
        announced.push_back(mLists->rails[i]);
    }
    mRails.emplace(announced, "rail");
}

/// Whether an announced rail may still be since boot: one that cannot be read now may.
bool HidlService::anySinceBoot() const {
    const Reading reading = mSource->read(mAnnounced, kNothing);
    return std::any_of(mAnnounced.begin(), mAnnounced.end(), [&](size_t i) {
        return !reading.rails[i] || reading.rails[i]->isSinceBoot();
    });
}

Return<void> HidlService::getRailInfo(getRailInfo_cb callback) {
    std::vector<stats_V1_0::RailInfo> infos;
    if (anySinceBoot()) {
        for (const size_t i : mAnnounced) {
            const Rail& rail = mLists->rails[i];
            infos.push_back({toHidl(rail.id), rail.name, rail.subsystem, 0});
        }
    }
    callback(infos, infos.empty() ? Status::NOT_SUPPORTED : Status::SUCCESS);
    return Void();
}

Return<void> HidlService::getEnergyData(const Ids& railIndices, getEnergyData_cb callback) {
    Positions asked;
    if (!anySinceBoot()) {
        callback({}, Status::NOT_SUPPORTED);
        return Void();
    }
    const bool isGranted = select(*mRails, railIndices, &asked);
    std::vector<size_t> positions;
    forPositions(asked, mAnnounced.size(), [&](size_t i) { positions.push_back(mAnnounced[i]); });
    const Reading reading = mSource->read(positions, kNothing);
    std::vector<stats_V1_0::EnergyData> energies;
    bool anyRead = false;
    for (const size_t i : positions) {
        anyRead = anyRead || reading.rails[i];
        if (!reading.rails[i] || !reading.rails[i]->isSinceBoot()) continue;
        energies.push_back({toHidl(mLists->rails[i].id), toHidl(reading.rails[i]->time),
                            static_cast<uint64_t>(reading.rails[i]->energyUWs)});
    }
    callback(energies,
             energies.empty() && anyRead ? Status::NOT_SUPPORTED : statusOf(isGranted, energies));
    return Void();
}

Return<void> HidlService::streamEnergyData(uint32_t /*timeMs*/, uint32_t /*samplingRate*/,
                                           streamEnergyData_cb callback) {
    callback({}, 0, 0, Status::NOT_SUPPORTED);
    return Void();
}

Return<void> HidlService::getPowerEntityInfo(getPowerEntityInfo_cb callback) {
    std::vector<stats_V1_0::PowerEntityInfo> entities;
    for (const Entity& entity : mLists->entities) {
        entities.push_back({toHidl(entity.id), entity.name, toHidl(entity.type)});
    }
    callback(entities, Status::SUCCESS);
    return Void();
}

Return<void> HidlService::getPowerEntityStateInfo(const Ids& entityIds,
                                                  getPowerEntityStateInfo_cb callback) {
    Positions positions;
    const bool isGranted = select(mEntities, entityIds, &positions);
    std::vector<stats_V1_0::PowerEntityStateSpace> spaces;
    forPositions(positions, mLists->entities.size(), [&](size_t i) {
        const Entity& entity = mLists->entities[i];
        std::vector<stats_V1_0::PowerEntityStateInfo> states;
        for (const State& state : entity.states) states.push_back({toHidl(state.id), state.name});
        spaces.push_back({toHidl(entity.id), states});
    });
    callback(spaces, statusOf(isGranted, spaces));
    return Void();
}

Return<void> HidlService::getPowerEntityStateResidencyData(
    const Ids& entityIds, getPowerEntityStateResidencyData_cb callback) {
    Positions positions;
    const bool isGranted = select(mEntities, entityIds, &positions);
    std::vector<stats_V1_0::PowerEntityStateResidencyResult> results;
    const Reading reading = mSource->read(kNothing, positions);
    forPositions(positions, mLists->entities.size(), [&](size_t i) {
        if (!reading.entities[i]) return;
        const Entity& entity = mLists->entities[i];
        std::vector<stats_V1_0::PowerEntityStateResidencyData> states;
        for (size_t j = 0; j < entity.states.size(); ++j) {
            const Residency& from = reading.entities[i]->states[j];
            states.push_back({toHidl(entity.states[j].id), toHidl(from.totalTime),
                              static_cast<uint64_t>(from.entryCount), toHidl(from.lastEntry)});
        }
        results.push_back({toHidl(entity.id), states});
    });
    callback(results, statusOf(isGranted, results));
    return Void();
}

}  // namespace powerstats
