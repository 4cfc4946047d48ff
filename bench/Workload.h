// SPDX-License-Identifier: Apache-2.0
//
// The collection that is measured.

#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>

#include "tests/support/FakeServices.h"

namespace bench {

using support::Backend;
using support::Call;

struct Workload {
    Backend backend;
    Call call;
    int elements;    ///< rails, or power entities
    int states;      ///< of each entity; a rail counts as one
    int nameLength;  ///< of every name, in bytes

    /// "aidl/residencies/50x8/12", as in the names of benchmarks.
    std::string text() const {
        return fmt::format("{}/{}/{}", backend == Backend::kAidl ? "aidl" : "hidl",
                           call == Call::kRails
                               ? fmt::format("rails/{}", elements)
                               : fmt::format("residencies/{}x{}", elements, states),
                           nameLength);
    }
    /// The number of items: rails, or states of all entities.
    int size() const { return elements * states; }
    /// The content of the service: values of the sizes that a device has after a day.
    support::Machine machine() const {
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
};

}  // namespace bench
