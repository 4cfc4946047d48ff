// SPDX-License-Identifier: Apache-2.0
//
// In place of the rest of this folder where it is not built: there is no bus.

#include <host/BusControl.h>

#include "Register.h"

namespace host {

void setBusTimeLimit(double /*seconds*/) {}

void noticeDeathsOnBus(double /*seconds*/) {}

RegisteredService findOnBus(const std::string& /*name*/) {
    return {};
}

}  // namespace host
