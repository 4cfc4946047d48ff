// SPDX-License-Identifier: Apache-2.0

#include "power/service/Services.h"

namespace powerstats {

using ndk::ScopedAStatus;

namespace {

ScopedAStatus refused(const std::string& message) {
    return ScopedAStatus::fromExceptionCodeWithMessage(EX_ILLEGAL_ARGUMENT, message.c_str());
}

int32_t toAidl(int64_t id) {
    return static_cast<int32_t>(id);
}

}  // namespace

std::optional<std::string> ServedIds::select(const std::vector<int32_t>& ids,
                                             Positions* positions) const {
    *positions = ids.empty() ? Positions() : kNothing;
    if (ids.empty()) return std::nullopt;
    // The length first: a request of any size costs no more than the list.
    if (ids.size() > mPositions.size()) {
        return "the request has " + std::to_string(ids.size()) + " ids, for " +
               std::to_string(mPositions.size()) + " known (" + mKind +
               "); ask for each once, or for all by an empty list";
    }
    std::vector<size_t> granted;
    std::vector<bool> chosen(mPositions.size(), false);
    for (const int32_t id : ids) {
        const auto found = mPositions.find(id);
        if (found == mPositions.end()) return "no " + mKind + " has the id " + std::to_string(id);
        if (chosen[found->second]) {
            return "the request repeats the id " + std::to_string(id) + " (" + mKind +
                   "); ask for each once";
        }
        chosen[found->second] = true;
        granted.push_back(found->second);
    }
    *positions = std::move(granted);
    return std::nullopt;
}

AidlService::AidlService(std::shared_ptr<Source> source)
    : mSource(std::move(source)),
      mLists(mSource->read(kNothing, kNothing).lists),
      mRails(mLists->rails, "rail"),
      mEntities(mLists->entities, "power entity") {}

ScopedAStatus AidlService::getPowerEntityInfo(std::vector<stats_aidl::PowerEntity>* entities) {
    entities->clear();
    for (const Entity& from : mLists->entities) {
        stats_aidl::PowerEntity& entity = entities->emplace_back();
        entity.id = toAidl(from.id);
        entity.name = from.name;
        for (const State& state : from.states) {
            entity.states.emplace_back();
            entity.states.back().id = toAidl(state.id);
            entity.states.back().name = state.name;
        }
    }
    return ScopedAStatus::ok();
}

ScopedAStatus AidlService::getStateResidency(
    const std::vector<int32_t>& entityIds,
    std::vector<stats_aidl::StateResidencyResult>* residencies) {
    residencies->clear();
    Positions positions;
    if (const auto refusal = mEntities.select(entityIds, &positions)) return refused(*refusal);
    const Reading reading = mSource->read(kNothing, positions);
    forPositions(positions, mLists->entities.size(), [&](size_t i) {
        if (!reading.entities[i]) return;
        stats_aidl::StateResidencyResult& result = residencies->emplace_back();
        result.id = toAidl(mLists->entities[i].id);
        for (size_t j = 0; j < reading.entities[i]->states.size(); ++j) {
            const Residency& from = reading.entities[i]->states[j];
            auto& state = result.stateResidencyData.emplace_back();
            state.id = toAidl(mLists->entities[i].states[j].id);
            state.totalTimeInStateMs = toMilliseconds(from.totalTime);
            state.totalStateEntryCount = from.entryCount;
            state.lastEntryTimestampMs = toMilliseconds(from.lastEntry);
        }
    });
    return ScopedAStatus::ok();
}

ScopedAStatus AidlService::getEnergyConsumerInfo(
    std::vector<stats_aidl::EnergyConsumer>* consumers) {
    consumers->clear();
    return ScopedAStatus::ok();
}

ScopedAStatus AidlService::getEnergyConsumed(
    const std::vector<int32_t>& consumerIds,
    std::vector<stats_aidl::EnergyConsumerResult>* energies) {
    energies->clear();
    if (!consumerIds.empty()) return refused("there are no energy consumers");
    return ScopedAStatus::ok();
}

ScopedAStatus AidlService::getEnergyMeterInfo(std::vector<stats_aidl::Channel>* channels) {
    channels->clear();
    for (const Rail& rail : mLists->rails) {
        stats_aidl::Channel& channel = channels->emplace_back();
        channel.id = toAidl(rail.id);
        channel.name = rail.name;
        channel.subsystem = rail.subsystem;
    }
    return ScopedAStatus::ok();
}

ScopedAStatus AidlService::readEnergyMeter(
    const std::vector<int32_t>& channelIds,
    std::vector<stats_aidl::EnergyMeasurement>* measurements) {
    measurements->clear();
    Positions positions;
    if (const auto refusal = mRails.select(channelIds, &positions)) return refused(*refusal);
    const Reading reading = mSource->read(positions, kNothing);
    forPositions(positions, mLists->rails.size(), [&](size_t i) {
        if (!reading.rails[i]) return;
        stats_aidl::EnergyMeasurement& measurement = measurements->emplace_back();
        measurement.id = toAidl(mLists->rails[i].id);
        measurement.timestampMs = toMilliseconds(reading.rails[i]->time);
        measurement.durationMs = toMilliseconds(reading.rails[i]->duration);
        measurement.energyUWs = reading.rails[i]->energyUWs;
    });
    return ScopedAStatus::ok();
}

}  // namespace powerstats
