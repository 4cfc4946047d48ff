// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <string>

#include "tests/support/FakeServices.h"

namespace support {

/// What the service of another process has to tell.
/// @param variant [in] "first"; "other": the same ids under other names, and one more entity;
///     "newState": one more state of the entity of "first".
inline Machine busMachine(const std::string& variant) {
    if (variant == "other") {
        return {{{1, "VDD_GPU", ""}},
                {{1, 5000, 5000, 9000000}},
                {{7, "SOC2", {{0, "S9"}}}, {8, "MODEM", {{3, "ON"}}}},
                {{7, {{0, 6000, 13, 0}}}, {8, {{3, 10, 1, 0}}}}};
    }
    Machine machine = {{{1, "VDD_CPU", ""}},
                       {{1, 5000, 5000, 4500000}},
                       {{7, "SOC", {{0, "S0"}}}},
                       {{7, {{0, 5000, 12, 0}}}}};
    if (variant == "newState") {
        machine.entities[0].states.push_back({1, "S1"});
        machine.totals[0].stateResidencyData.push_back({1, 1, 1, 0});
    }
    return machine;
}

}  // namespace support
