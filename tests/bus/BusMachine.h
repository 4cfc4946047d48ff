// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdlib>
#include <string>

#include "tests/support/Scenario.h"

namespace support {

/// The machine that a service in another process shows.
/// @param variant [in] "first": smallMachine(); "newState": the same with one more state; "late": the
///     same, counted from 2 s after boot; "other": the same ids under other names, and one more
///     entity; a number: the machine of that generation, in which things keep their ids, and names,
///     values and counts change.
inline Machine busMachine(const std::string& variant) {
    if (variant == "other") {
        return {{{1, "VDD_GPU", ""}},
                {{1, 5000, 5000, 9000000}},
                {{7, "SOC2", {{0, "S9"}}}, {8, "MODEM", {{3, "ON"}}}},
                {{7, {{0, 6000, 13, 0}}}, {8, {{3, 10, 1, 0}}}}};
    }
    const int generation = std::atoi(variant.c_str());
    Machine machine = smallMachine();
    if (variant == "late") machine.energies[0].durationMs -= 2000;
    if (variant == "newState") {
        machine.entities[0].states.push_back({1, "S1"});
        machine.totals[0].stateResidencyData.push_back({1, 1, 1, 0});
    } else if (generation > 0) {
        machine = {{}, {}, {{7, "SOC" + variant, {}}}, {{7, {}}}};
        for (int i = 0; i <= generation % 3; ++i) {
            machine.rails.push_back({i, "RAIL" + variant + "_" + std::to_string(i), ""});
            machine.energies.push_back({i, 5000, 5000, (generation * 3 + i) % 16'000 * 1000});
        }
        for (int i = 0; i <= generation % 2; ++i) {
            machine.entities[0].states.push_back({i, "S" + variant + "_" + std::to_string(i)});
            machine.totals[0].stateResidencyData.push_back(
                {i, generation + i, generation + 2 * i, 0});
        }
    }
    return machine;
}

}  // namespace support
