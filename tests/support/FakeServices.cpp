// SPDX-License-Identifier: Apache-2.0

#include "tests/support/FakeServices.h"

#include <host/ServiceControl.h>

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

/// The HIDL interface counts unsigned; the bits stay as they are.
uint32_t bits(int32_t value) {
    return static_cast<uint32_t>(value);
}
uint64_t bits(int64_t value) {
    return static_cast<uint64_t>(value);
}

}  // namespace

void FakeHidl::tell(const Machine& machine) {
    using namespace stats_V1_0;
    rails = convert<RailInfo>(machine.rails, [](const stats::Channel& rail) {
        return RailInfo{bits(rail.id), rail.name, rail.subsystem, 10};
    });
    energies = convert<EnergyData>(machine.energies, [](const stats::EnergyMeasurement& energy) {
        return EnergyData{bits(energy.id), bits(energy.timestampMs), bits(energy.energyUWs)};
    });
    entities = convert<PowerEntityInfo>(machine.entities, [](const stats::PowerEntity& entity) {
        return PowerEntityInfo{bits(entity.id), entity.name};
    });
    states = convert<PowerEntityStateSpace>(machine.entities, [](const stats::PowerEntity& entity) {
        using Info = PowerEntityStateInfo;
        return PowerEntityStateSpace{bits(entity.id),
                                     convert<Info>(entity.states, [](const stats::State& state) {
                                         return Info{bits(state.id), state.name};
                                     })};
    });
    using Residencies = PowerEntityStateResidencyResult;
    totals = convert<Residencies>(machine.totals, [](const stats::StateResidencyResult& entity) {
        using Data = PowerEntityStateResidencyData;
        return Residencies{
            bits(entity.id),
            convert<Data>(entity.stateResidencyData, [](const stats::StateResidency& state) {
                return Data{bits(state.id), bits(state.totalTimeInStateMs),
                            bits(state.totalStateEntryCount), bits(state.lastEntryTimestampMs)};
            })};
    });
}

const char* nameOf(Backend backend) {
    return backend == Backend::kAidl ? host::kAidlPowerStats : host::kHidlPowerStats;
}

}  // namespace support
