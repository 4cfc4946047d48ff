// SPDX-License-Identifier: Apache-2.0

#include "tests/support/FakeServices.h"

#include <gtest/gtest.h>

namespace support {
namespace {

/// One record for each thing.
template <typename Record, typename Thing, typename Convert>
std::vector<Record> convert(const std::vector<Thing>& things, Convert convertOne) {
    std::vector<Record> records;
    records.reserve(things.size());
    for (const auto& thing : things) records.push_back(convertOne(thing));
    return records;
}

constexpr char kSubsystem[] = "a subsystem";

}  // namespace

// A client asks for everything with an empty list of ids.

FakeAidl::Status FakeAidl::finish(const std::string& method) {
    if (onCall) onCall(method);
    const auto status = failing.find(method);
    return status != failing.end() ? status->second() : Status::ok();
}

FakeAidl::Status FakeAidl::getPowerEntityInfo(Vector<stats::PowerEntity>* answer) {
    const auto toState = [](const State& state) {
        return stats::State{static_cast<int32_t>(state.id), state.name};
    };
    *answer = convert<stats::PowerEntity>(machine.entities, [&](const Entity& entity) {
        return stats::PowerEntity{static_cast<int32_t>(entity.id), entity.name,
                                  convert<stats::State>(entity.states, toState)};
    });
    return finish("getPowerEntityInfo");
}

FakeAidl::Status FakeAidl::getStateResidency(const Ids& ids,
                                             Vector<stats::StateResidencyResult>* answer) {
    EXPECT_TRUE(ids.empty());
    const auto toResidency = [](const StateTotals& state) {
        return stats::StateResidency{
            static_cast<int32_t>(state.id), static_cast<int64_t>(state.timeMs),
            static_cast<int64_t>(state.entries), static_cast<int64_t>(state.lastEntryMs)};
    };
    *answer = convert<stats::StateResidencyResult>(machine.totals, [&](const EntityTotals& entity) {
        return stats::StateResidencyResult{
            static_cast<int32_t>(entity.id),
            convert<stats::StateResidency>(entity.states, toResidency)};
    });
    return finish("getStateResidency");
}

FakeAidl::Status FakeAidl::getEnergyConsumerInfo(Vector<stats::EnergyConsumer>*) {
    return Status::ok();
}

FakeAidl::Status FakeAidl::getEnergyConsumed(const Ids&, Vector<stats::EnergyConsumerResult>*) {
    return Status::ok();
}

FakeAidl::Status FakeAidl::getEnergyMeterInfo(Vector<stats::Channel>* answer) {
    *answer = convert<stats::Channel>(machine.rails, [](const Rail& rail) {
        return stats::Channel{static_cast<int32_t>(rail.id), rail.name, kSubsystem};
    });
    return finish("getEnergyMeterInfo");
}

FakeAidl::Status FakeAidl::readEnergyMeter(const Ids& ids,
                                           Vector<stats::EnergyMeasurement>* answer) {
    EXPECT_TRUE(ids.empty());
    *answer = convert<stats::EnergyMeasurement>(machine.energies, [](const Energy& energy) {
        return stats::EnergyMeasurement{static_cast<int32_t>(energy.id), energy.timestampMs,
                                        energy.durationMs,
                                        static_cast<int64_t>(energy.microwattSeconds)};
    });
    return finish("readEnergyMeter");
}

template <typename Callback, typename Record>
FakeHidl::Result FakeHidl::deliver(const std::string& method, const Callback& callback,
                                   const std::vector<Record>& records) {
    if (onCall) onCall(method);
    const auto status = statuses.find(method);
    callback(records, status != statuses.end() ? status->second : Status::SUCCESS);
    if (onAnswered) onAnswered(method);
    return android::hardware::Void();
}

FakeHidl::Result FakeHidl::getRailInfo(getRailInfo_cb callback) {
    const auto toInfo = [](const Rail& rail) {
        return stats_V1_0::RailInfo{rail.id, rail.name, kSubsystem, 10};
    };
    return deliver("getRailInfo", callback, convert<stats_V1_0::RailInfo>(machine.rails, toInfo));
}

FakeHidl::Result FakeHidl::getEnergyData(const Ids& ids, getEnergyData_cb callback) {
    EXPECT_EQ(ids.size(), 0u);
    const auto toData = [](const Energy& energy) {
        return stats_V1_0::EnergyData{energy.id, static_cast<uint64_t>(energy.timestampMs),
                                      energy.microwattSeconds};
    };
    return deliver("getEnergyData", callback,
                   convert<stats_V1_0::EnergyData>(machine.energies, toData));
}

FakeHidl::Result FakeHidl::streamEnergyData(uint32_t, uint32_t, streamEnergyData_cb) {
    return android::hardware::Void();
}

FakeHidl::Result FakeHidl::getPowerEntityInfo(getPowerEntityInfo_cb callback) {
    const auto toInfo = [](const Entity& entity) {
        return stats_V1_0::PowerEntityInfo{entity.id, entity.name};
    };
    return deliver("getPowerEntityInfo", callback,
                   convert<stats_V1_0::PowerEntityInfo>(machine.entities, toInfo));
}

FakeHidl::Result FakeHidl::getPowerEntityStateInfo(const Ids& ids,
                                                   getPowerEntityStateInfo_cb callback) {
    EXPECT_EQ(ids.size(), 0u);
    using Info = stats_V1_0::PowerEntityStateInfo;
    const auto toSpace = [](const Entity& entity) {
        return stats_V1_0::PowerEntityStateSpace{
            entity.id, convert<Info>(entity.states, [](const State& state) {
                return Info{state.id, state.name};
            })};
    };
    return deliver("getPowerEntityStateInfo", callback,
                   convert<stats_V1_0::PowerEntityStateSpace>(
                       stateSpaces.value_or(machine.entities), toSpace));
}

FakeHidl::Result FakeHidl::getPowerEntityStateResidencyData(
    const Ids& ids, getPowerEntityStateResidencyData_cb callback) {
    EXPECT_EQ(ids.size(), 0u);
    using Data = stats_V1_0::PowerEntityStateResidencyData;
    using Residencies = stats_V1_0::PowerEntityStateResidencyResult;
    const auto toResidencies = [](const EntityTotals& entity) {
        return Residencies{
            entity.id, convert<Data>(entity.states, [](const StateTotals& state) {
                return Data{state.id, state.timeMs, state.entries, state.lastEntryMs};
            })};
    };
    return deliver("getPowerEntityStateResidencyData", callback,
                   convert<Residencies>(machine.totals, toResidencies));
}

}  // namespace support
