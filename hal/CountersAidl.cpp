// SPDX-License-Identifier: Apache-2.0

#include "hal/CounterServices.h"

#include <string>
#include <utility>

namespace powerstats {

using aidl::android::hardware::power::stats::Channel;
using aidl::android::hardware::power::stats::EnergyConsumer;
using aidl::android::hardware::power::stats::EnergyConsumerResult;
using aidl::android::hardware::power::stats::EnergyMeasurement;
using aidl::android::hardware::power::stats::PowerEntity;
using aidl::android::hardware::power::stats::StateResidencyResult;
using ndk::ScopedAStatus;

namespace {

ScopedAStatus refused(const std::string& message) {
    return ScopedAStatus::fromExceptionCodeWithMessage(EX_ILLEGAL_ARGUMENT, message.c_str());
}

}  // namespace

CountersAidl::CountersAidl(std::shared_ptr<const Counters> counters)
    : mCounters(std::move(counters)) {}

ScopedAStatus CountersAidl::getPowerEntityInfo(std::vector<PowerEntity>* entities) {
    entities->clear();
    for (const Entity& source : mCounters->entities()) {
        PowerEntity entity;
        entity.id = source.id;
        entity.name = source.name;
        for (const State& state : source.states) {
            entity.states.emplace_back();
            entity.states.back().id = state.id;
            entity.states.back().name = state.name;
        }
        entities->push_back(std::move(entity));
    }
    return ScopedAStatus::ok();
}

ScopedAStatus CountersAidl::getStateResidency(const std::vector<int32_t>& entityIds,
                                              std::vector<StateResidencyResult>* residencies) {
    residencies->clear();
    const Answer<EntityResidency> answer = mCounters->readEntities(entityIds);
    if (answer.refusal) return refused(*answer.refusal);
    for (const EntityResidency& entity : answer.records) {
        StateResidencyResult result;
        result.id = entity.id;
        for (const StateResidency& state : entity.states) {
            result.stateResidencyData.emplace_back();
            result.stateResidencyData.back().id = state.id;
            result.stateResidencyData.back().totalTimeInStateMs = state.residency.totalTimeMs;
            result.stateResidencyData.back().totalStateEntryCount = state.residency.entryCount;
            result.stateResidencyData.back().lastEntryTimestampMs = state.residency.lastEntryMs;
        }
        residencies->push_back(std::move(result));
    }
    return ScopedAStatus::ok();
}

ScopedAStatus CountersAidl::getEnergyConsumerInfo(std::vector<EnergyConsumer>* consumers) {
    consumers->clear();
    return ScopedAStatus::ok();
}

ScopedAStatus CountersAidl::getEnergyConsumed(const std::vector<int32_t>& consumerIds,
                                              std::vector<EnergyConsumerResult>* energies) {
    energies->clear();
    if (!consumerIds.empty()) return refused("there are no energy consumers");
    return ScopedAStatus::ok();
}

ScopedAStatus CountersAidl::getEnergyMeterInfo(std::vector<Channel>* channels) {
    channels->clear();
    for (const Rail& rail : mCounters->rails()) {
        channels->emplace_back();
        channels->back().id = rail.id;
        channels->back().name = rail.name;
        channels->back().subsystem = rail.subsystem;
    }
    return ScopedAStatus::ok();
}

ScopedAStatus CountersAidl::readEnergyMeter(const std::vector<int32_t>& channelIds,
                                            std::vector<EnergyMeasurement>* measurements) {
    measurements->clear();
    const Answer<RailEnergy> answer = mCounters->readRails(channelIds);
    if (answer.refusal) return refused(*answer.refusal);
    for (const auto& [id, reading] : answer.records) {
        measurements->emplace_back();
        measurements->back().id = id;
        measurements->back().timestampMs = reading.timestampMs;
        measurements->back().durationMs = reading.durationMs;
        measurements->back().energyUWs = reading.energyUWs;
    }
    return ScopedAStatus::ok();
}

}  // namespace powerstats
