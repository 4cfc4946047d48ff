// SPDX-License-Identifier: Apache-2.0

#include "bench/Workload.h"

#include <fmt/format.h>

namespace bench {

std::string Workload::text() const {
    const char* const interface = backend == Backend::kAidl ? "aidl" : "hidl";
    if (call == Call::kRails) return fmt::format("{}/rails/{}/{}", interface, elements, nameLength);
    return fmt::format("{}/residencies/{}x{}/{}", interface, elements, states, nameLength);
}

support::Machine Workload::machine() const {
    constexpr int64_t kSinceBootMs = 86400000;
    const auto name = [this](const char* prefix, int index) {
        return fmt::format("{}{:0{}}", prefix, index, nameLength - 2);
    };
    support::Machine machine;
    // Over HIDL the library asks for entities first, even for the rails.
    if (call == Call::kRails) machine.entities = {{0, "SOC", {{0, "ON"}}}};
    for (int i = 0; i < elements; ++i) {
        if (call == Call::kRails) {
            machine.rails.push_back({i, name("E_", i), "a subsystem"});
            machine.energies.push_back(
                {i, kSinceBootMs, kSinceBootMs, 1000000000 + 12345678LL * (i % 1000)});
            continue;
        }
        auto& entity = machine.entities.emplace_back();
        auto& totals = machine.totals.emplace_back();
        totals.id = entity.id = i;
        entity.name = name("E_", i);
        for (int j = 0; j < states; ++j) {
            entity.states.push_back({j, name("S_", j)});
            totals.stateResidencyData.push_back(
                {j, 5000000 + 97777LL * j, 300 + 41LL * j, kSinceBootMs});
        }
    }
    return machine;
}

}  // namespace bench
