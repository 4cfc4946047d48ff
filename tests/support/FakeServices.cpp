// SPDX-License-Identifier: Apache-2.0

#include "tests/support/FakeServices.h"

#include <host/ServiceControl.h>

namespace support {

/// The HIDL interface counts unsigned; the bits stay as they are.
template <typename T>
static std::make_unsigned_t<T> bits(T value) {
    return static_cast<std::make_unsigned_t<T>>(value);
}

void FakeHidl::tell(const Machine& machine) {
    using namespace stats_V1_0;
    std::vector<RailInfo> newRails;
    for (const auto& rail : machine.rails) {
        newRails.push_back({bits(rail.id), rail.name, rail.subsystem, 10});
    }
    std::vector<EnergyData> newEnergies;
    for (const auto& energy : machine.energies) {
        newEnergies.push_back({bits(energy.id), bits(energy.timestampMs), bits(energy.energyUWs)});
    }
    std::vector<PowerEntityInfo> newEntities;
    std::vector<PowerEntityStateSpace> newStates;
    for (const auto& entity : machine.entities) {
        std::vector<PowerEntityStateInfo> infos;
        for (const auto& state : entity.states) infos.push_back({bits(state.id), state.name});
        newEntities.push_back({bits(entity.id), entity.name});
        newStates.push_back({bits(entity.id), std::move(infos)});
    }
    std::vector<PowerEntityStateResidencyResult> newTotals;
    for (const auto& entity : machine.totals) {
        std::vector<PowerEntityStateResidencyData> times;
        for (const auto& state : entity.stateResidencyData) {
            times.push_back({bits(state.id), bits(state.totalTimeInStateMs),
                             bits(state.totalStateEntryCount), bits(state.lastEntryTimestampMs)});
        }
        newTotals.push_back({bits(entity.id), std::move(times)});
    }
    rails = std::move(newRails);
    energies = std::move(newEnergies);
    entities = std::move(newEntities);
    states = std::move(newStates);
    totals = std::move(newTotals);
}

const char* nameOf(Backend backend) {
    return backend == Backend::kAidl ? host::kAidlPowerStats : host::kHidlPowerStats;
}

}  // namespace support
