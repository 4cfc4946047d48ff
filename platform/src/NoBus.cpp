// SPDX-License-Identifier: Apache-2.0
//
// A build without a bus: no service of another process is found.

#include "Register.h"

namespace host {

const double kFreshLookupSeconds = 0;

RegisteredService findOnBus(Bus /*bus*/, const std::string& /*name*/) {
    return {};
}

void noticeDeathsOnBuses() {}

void useOwnBusConnections() {}

void setBusTimeLimit(double /*seconds*/, double /*allSeconds*/) {}

std::string takeUnanswered() {
    return "";
}

std::string findBusTrouble(Bus /*bus*/) {
    return "this program is built without D-Bus (set POWERSTATS_DBUS)";
}

std::vector<std::string> listBusNames(Bus /*bus*/) {
    return {};
}

}  // namespace host
