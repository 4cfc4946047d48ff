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

EnergyMeasurement readEnergy() {
    EnergyMeasurement energy;
    energy.id = kRail;
    energy.timestampMs = energy.durationMs = nowMs();  // equal: the rail is measured since boot
    energy.energyUWs = energy.timestampMs * 2500;      // one watt is 1000 uWs in a millisecond
    return energy;
}

StateResidency residency(int32_t state, int64_t timeMs, int64_t entries, int64_t lastEntryMs) {
    StateResidency residency;
    residency.id = state;
    residency.totalTimeInStateMs = timeMs;
    residency.totalStateEntryCount = entries;
    residency.lastEntryTimestampMs = lastEntryMs;
    return residency;
}

StateResidencyResult readResidencies() {
    const int64_t now = nowMs();
    const int64_t cycle = now / 100;
    const int64_t phase = now % 100;
    const int64_t activeMs = cycle * 25 + std::min<int64_t>(phase, 25);
    const int64_t sleeps = cycle + (phase >= 25 ? 1 : 0);
    StateResidencyResult result;
    result.id = kEntity;
    result.stateResidencyData = {
        residency(kActive, activeMs, cycle + 1, cycle * 100),
        residency(kSleep, now - activeMs, sleeps, sleeps > 0 ? sleeps * 100 - 75 : 0)};
    return result;
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
        Channel channel;
        channel.id = kRail;
        channel.name = "VDD_CPU";
        channel.subsystem = "CPU";
        *channels = {channel};
        return ScopedAStatus::ok();
    }
    ScopedAStatus readEnergyMeter(const std::vector<int32_t>& ids,
                                  std::vector<EnergyMeasurement>* measurements) override {
        return answer({readEnergy()}, ids, measurements);
    }
    ScopedAStatus getPowerEntityInfo(std::vector<PowerEntity>* entities) override {
        PowerEntity entity;
        entity.id = kEntity;
        entity.name = "CPU";
        entity.states.resize(2);
        entity.states[0].id = kActive;
        entity.states[0].name = "ACTIVE";
        entity.states[1].id = kSleep;
        entity.states[1].name = "SLEEP";
        *entities = {entity};
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
