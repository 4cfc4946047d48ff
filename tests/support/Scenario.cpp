// SPDX-License-Identifier: Apache-2.0

#include "tests/support/Scenario.h"

#include <android/binder_manager.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <mutex>
#include <utility>

namespace support {
namespace {

struct Recorder {
    std::mutex mutex;
    Lines events;
    bool aloud = false;
};

Recorder& recorder() {
    static auto* const instance = new Recorder;
    return *instance;
}

void recordLog(const __android_log_message* message) {
    const std::string priority(1, "??VDIWEF?"[message->priority]);
    const bool ours = std::strcmp(message->tag, "TavrelPowerStatsHalDataProviderNative") == 0;
    record(priority + (ours ? "" : std::string("/") + message->tag) + ": " + message->message);
}

struct Counter {
    Backend backend;
    std::string name;
    int64_t value;
};

std::vector<Counter> readCounters() {
    std::vector<Counter> counters;
    for (const Backend backend : kBackends) {
        const char* service = Scenario::nameOf(backend);
        counters.push_back({backend, "lookup", host::lookups(service)});
        counters.push_back({backend, "link", host::links(service)});
        counters.push_back({backend, "unlink", host::unlinks(service)});
        const auto methods =
            backend == Backend::kAidl
                ? Lines{"getEnergyMeterInfo", "readEnergyMeter", "getPowerEntityInfo",
                        "getStateResidency"}
                : Lines{"getPowerEntityInfo", "getPowerEntityStateInfo", "getRailInfo",
                        "getEnergyData", "getPowerEntityStateResidencyData"};
        for (const auto& method : methods) {
            counters.push_back({backend, method, host::transactions(service, method)});
        }
    }
    return counters;
}

std::string trafficSince(const std::vector<Counter>& before) {
    std::string text;
    const std::vector<Counter> now = readCounters();
    for (size_t i = 0; i < now.size(); ++i) {
        const int64_t count = now[i].value - before[i].value;
        if (count == 0) continue;
        if (!text.empty()) text += ' ';
        text += (now[i].backend == Backend::kAidl ? "aidl:" : "hidl:") + now[i].name;
        if (count != 1) text += '*' + std::to_string(count);
    }
    return text;
}

}  // namespace

Hook onEvent;

void record(const std::string& event) {
    if (onEvent) onEvent(event);
    std::lock_guard<std::mutex> lock(recorder().mutex);
    if (recorder().aloud) std::fprintf(stderr, "%s\n", event.c_str());
    recorder().events.push_back(event);
}

Lines takeEvents() {
    std::lock_guard<std::mutex> lock(recorder().mutex);
    return std::exchange(recorder().events, {});
}

std::ostream& operator<<(std::ostream& out, Backend backend) {
    return out << (backend == Backend::kAidl ? "Aidl" : "Hidl");
}

std::ostream& operator<<(std::ostream& out, Call call) {
    return out << (call == Call::kRails ? "Rails" : "Residencies");
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    out << (outcome.bytes ? std::to_string(outcome.bytes->size()) +
                                " bytes: " + toHex(outcome.bytes->substr(0, 500))
                          : "null");
    for (const auto& event : outcome.events) out << "\n    " << event;
    return out << "\n    traffic: " << outcome.traffic;
}

Outcome nothing(Lines log, std::string traffic) {
    return {std::nullopt, std::move(log), std::move(traffic)};
}

Outcome array(const std::string& bytes, std::string traffic, const Lines& log) {
    const std::string length = std::to_string(bytes.size());
    Lines events = log;
    events.insert(events.end(), {"clock", "NewByteArray(" + length + ")",
                                 "SetByteArrayRegion(0, " + length + ")"});
    return {bytes, std::move(events), std::move(traffic)};
}

std::string chosenLine(Backend backend) {
    return backend == Backend::kAidl ? "I: Using power.stats AIDL" : "I: Using power.stats 1.0";
}

std::string firstTraffic(Backend backend, Call call) {
    const std::string later = reconnectTraffic(backend, call);
    if (backend == Backend::kHidl) return "aidl:lookup " + later;
    return "aidl:lookup*2" + later.substr(std::strlen("aidl:lookup"));
}

std::string reconnectTraffic(Backend backend, Call call) {
    std::string names;
    if (backend == Backend::kHidl) {
        names = "hidl:lookup hidl:link hidl:getPowerEntityInfo hidl:getPowerEntityStateInfo ";
    } else {
        names = call == Call::kRails ? "aidl:lookup aidl:link aidl:getEnergyMeterInfo "
                                     : "aidl:lookup aidl:link aidl:getPowerEntityInfo ";
    }
    return names + steadyTraffic(backend, call);
}

std::string steadyTraffic(Backend backend, Call call) {
    if (backend == Backend::kAidl) {
        return call == Call::kRails ? "aidl:readEnergyMeter" : "aidl:getStateResidency";
    }
    return call == Call::kRails ? "hidl:getRailInfo hidl:getEnergyData"
                                : "hidl:getPowerEntityStateResidencyData";
}

Machine smallMachine() {
    return {{{1, "VDD_CPU"}}, {{1, 4500000}}, {{7, "SOC", {{0, "S0"}}}}, {{7, {{0, 5000, 12}}}}};
}

std::string smallResult(Call call) {
    return call == Call::kRails ? rail("VDD_CPU", 4500)
                                : entity("SOC", {residency("S0", 5000, 12)});
}

Scenario::Scenario() {
    host::setBusLookups({});
    __android_log_set_logger(recordLog);
    env.onCall = record;
    bootClock().now = timespec{kNowMs / 1000, kNowMs % 1000 * 1000000 + 999999};
    bootClock().onRead = [] { record("clock"); };
}

Scenario::~Scenario() {
    unload();
    bootClock() = {};
    onEvent = nullptr;
    __android_log_set_logger(nullptr);
}

const char* Scenario::nameOf(Backend backend) {
    return backend == Backend::kAidl ? host::kAidlPowerStats : host::kHidlPowerStats;
}

void Scenario::serve(Backend backend, const Machine& machine) {
    if (backend == Backend::kAidl) {
        aidl = ndk::SharedRefBase::make<FakeAidl>();
        aidl->machine = machine;
        AServiceManager_addService(aidl->asBinder().get(), host::kAidlPowerStats);
    } else {
        hidl = new FakeHidl;
        hidl->machine = machine;
        EXPECT_EQ(hidl->registerAsService(), android::OK);
    }
}

void Scenario::kill(Backend backend) {
    EXPECT_TRUE(host::killService(nameOf(backend)));
    EXPECT_TRUE(host::waitForDeathNotices());
}

void Scenario::load() {
    std::string error;
    library = powerstats::LoadedLibrary::load(POWERSTATS_LIBRARY, &error);
    ASSERT_NE(library, nullptr) << error;
}

void Scenario::unload() {
    library.reset();
}

Outcome Scenario::call(Call call) {
    if (library == nullptr) load();
    const std::vector<Counter> before = readCounters();
    takeEvents();
    const auto received =
        call == Call::kRails ? library->railEnergy(&env) : library->residencies(&env);
    EXPECT_EQ(env.arrays(), 0u) << "an array was made and not returned";
    Outcome outcome{std::nullopt, takeEvents(), trafficSince(before)};
    if (received) outcome.bytes.emplace(received->begin(), received->end());
    return outcome;
}

void Scenario::callAloud(Call call) {
    recorder().aloud = true;
    const Outcome outcome = this->call(call);
    record(outcome.bytes ? "returned " + std::to_string(outcome.bytes->size()) + " bytes"
                         : "returned null");
}

}  // namespace support
