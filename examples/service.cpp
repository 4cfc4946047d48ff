// SPDX-License-Identifier: Apache-2.0
//
// An AIDL power stats service on the session bus: one rail of 2.5 W, and one power entity that is
// active for the first 25 of every 100 ms since boot. docs/services.md explains the rules it
// follows. Start from this file: replace the names and the two functions that read the counters.

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <host/BusServer.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

using namespace aidl::android::hardware::power::stats;
using ndk::ScopedAStatus;

namespace {

constexpr int32_t kRail = 0;
constexpr int32_t kEntity = 0;
constexpr int32_t kActive = 0;
constexpr int32_t kSleep = 1;

/// Returns milliseconds since boot, suspend included: the clock of every stamp and total.
int64_t nowMs() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

/// Returns id, timestampMs, durationMs and energyUWs. One watt is 1000 uWs in a millisecond.
EnergyMeasurement readEnergy() {
    const int64_t now = nowMs();
    return {kRail, now, now, now * 2500};  // equal times: the rail is measured since boot
}

/// Returns the id, and for each state id, total time in ms, entries and last entry in ms.
StateResidencyResult readResidencies() {
    const int64_t now = nowMs();
    const int64_t cycle = now / 100;
    const int64_t phase = now % 100;
    const int64_t activeMs = cycle * 25 + std::min<int64_t>(phase, 25);
    const int64_t sleeps = cycle + (phase >= 25 ? 1 : 0);
    return {kEntity,
            {{kActive, activeMs, cycle + 1, cycle * 100},
             {kSleep, now - activeMs, sleeps, sleeps > 0 ? sleeps * 100 - 75 : 0}}};
}

/// Writes the records of these ids, or all records when there are no ids.
template <typename Record>
ScopedAStatus answer(const std::vector<Record>& all, const std::vector<int32_t>& ids,
                     std::vector<Record>* answer) {
    if (ids.empty()) *answer = all;
    for (const int32_t id : ids) {
        const auto found = std::find_if(all.begin(), all.end(),
                                        [id](const Record& record) { return record.id == id; });
        if (found == all.end()) {
            return ScopedAStatus::fromExceptionCodeWithMessage(
                EX_ILLEGAL_ARGUMENT, ("the id " + std::to_string(id) + " is unknown").c_str());
        }
        answer->push_back(*found);
    }
    return ScopedAStatus::ok();
}

class PowerStats : public BnPowerStats {
  public:
    ScopedAStatus getEnergyMeterInfo(std::vector<Channel>* channels) override {
        *channels = {{kRail, "VDD_CPU", "CPU"}};
        return ScopedAStatus::ok();
    }
    ScopedAStatus readEnergyMeter(const std::vector<int32_t>& ids,
                                  std::vector<EnergyMeasurement>* measurements) override {
        return answer({readEnergy()}, ids, measurements);
    }
    ScopedAStatus getPowerEntityInfo(std::vector<PowerEntity>* entities) override {
        *entities = {{kEntity, "CPU", {{kActive, "ACTIVE"}, {kSleep, "SLEEP"}}}};
        return ScopedAStatus::ok();
    }
    ScopedAStatus getStateResidency(const std::vector<int32_t>& ids,
                                    std::vector<StateResidencyResult>* residencies) override {
        return answer({readResidencies()}, ids, residencies);
    }
    // The bus does not carry these two.
    ScopedAStatus getEnergyConsumerInfo(std::vector<EnergyConsumer>*) override {
        return ScopedAStatus::ok();
    }
    ScopedAStatus getEnergyConsumed(const std::vector<int32_t>&,
                                    std::vector<EnergyConsumerResult>*) override {
        return ScopedAStatus::ok();
    }
};

}  // namespace

int main() {
    std::string error;
    const auto server = host::BusServer::connect(host::Bus::kSession, &error);
    if (server != nullptr && server->add(ndk::SharedRefBase::make<PowerStats>(), &error)) {
        std::puts("serving");
        std::fflush(stdout);
        if (server->run(&error)) return 0;
    }
    std::fprintf(stderr, "example_service: %s\n", error.c_str());
    return 1;
}
