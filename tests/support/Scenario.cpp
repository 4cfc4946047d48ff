// SPDX-License-Identifier: Apache-2.0

#include "tests/support/Scenario.h"

#include <android/binder_manager.h>
#include <android/log.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>

namespace support {
namespace {

std::mutex gEventsMutex;
bool gAloud = false;

/// Never destroyed: the platform's threads log until the process ends.
Lines& events() {
    static auto* const lines = new Lines;
    return *lines;
}

void recordLog(const __android_log_message* message) {
    const std::string priority(1, "??VDIWEF?"[message->priority]);
    const bool ours = std::strcmp(message->tag, "TavrelPowerStatsHalDataProviderNative") == 0;
    record(priority + (ours ? "" : std::string("/") + message->tag) + ": " + message->message);
}

}  // namespace

BootClock& bootClock() {
    static auto* const clock = new BootClock;
    return *clock;
}

Hook onEvent;

void record(const std::string& event) {
    if (onEvent) onEvent(event);
    std::lock_guard<std::mutex> lock(gEventsMutex);
    if (gAloud) std::fprintf(stderr, "%s\n", event.c_str());
    events().push_back(event);
}

Lines takeEvents() {
    std::lock_guard<std::mutex> lock(gEventsMutex);
    return std::exchange(events(), {});
}

std::ostream& operator<<(std::ostream& out, Backend backend) {
    return out << (backend == Backend::kAidl ? "Aidl" : "Hidl");
}

std::ostream& operator<<(std::ostream& out, Call call) {
    return out << (call == Call::kRails ? "Rails" : "Residencies");
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    out << (outcome.bytes ? testing::PrintToString(outcome.bytes->substr(0, 500)) : "null");
    for (const auto& event : outcome.events) out << "\n    " << event;
    return out << "\n    traffic: " << outcome.traffic;
}

Outcome nothing(Lines log, std::string traffic) {
    return {std::nullopt, std::move(log), std::move(traffic)};
}

Outcome array(const std::string& bytes, std::string traffic, Lines log) {
    const std::string length = std::to_string(bytes.size());
    log.insert(log.end(),
               {"clock", "NewByteArray(" + length + ")", "SetByteArrayRegion(0, " + length + ")"});
    return {bytes, std::move(log), std::move(traffic)};
}

std::string chosenLine(Backend backend) {
    return backend == Backend::kAidl ? "I: Using power.stats AIDL" : "I: Using power.stats 1.0";
}

Outcome asFirst(Backend backend, Outcome outcome) {
    outcome.events.insert(outcome.events.begin(), chosenLine(backend));
    outcome.traffic = "aidl:lookup " + outcome.traffic;
    return outcome;
}

std::string reconnectTraffic(Backend backend, Call call) {
    const std::string connect = backend == Backend::kAidl
                                    ? "aidl:lookup aidl:link "
                                    : "hidl:lookup hidl:link hidl:getPowerEntityInfo "
                                      "hidl:getPowerEntityStateInfo ";
    return connect + connectedTraffic(backend, call);
}

std::string connectedTraffic(Backend backend, Call call) {
    const std::string names = backend == Backend::kHidl ? ""
                              : call == Call::kRails    ? "aidl:getEnergyMeterInfo "
                                                        : "aidl:getPowerEntityInfo ";
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
    return {{{1, "VDD_CPU", "CPU"}},
            {{1, 5000, 5000, 4500000}},
            {{7, "SOC", {{0, "S0"}}}},
            {{7, {kSmallState}}}};
}

std::string smallResult(Call call) {
    return call == Call::kRails ? rail("VDD_CPU", 4500)
                                : entity("SOC", {residency("S0", kSmallState)});
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

void Scenario::serve(Backend backend, const Machine& machine) {
    if (backend == Backend::kAidl) {
        aidl = ndk::SharedRefBase::make<FakeAidl>();
        AServiceManager_addService(aidl->asBinder().get(), host::kAidlPowerStats);
    } else {
        hidl = new FakeHidl;
        EXPECT_EQ(hidl->registerAsService(), android::OK);
    }
    tell(backend, machine);
}

void Scenario::tell(Backend backend, const Machine& machine) {
    if (backend == Backend::kAidl) aidl->machine = machine;
    if (backend == Backend::kHidl) hidl->tell(machine);
}

void Scenario::kill(Backend backend) {
    EXPECT_TRUE(host::killService(nameOf(backend)));
    EXPECT_TRUE(host::waitForDeathNotices());
}

Hook Scenario::dieIn(Backend backend, const std::string& fatalMethod) {
    return [=](const std::string& method) {
        if (method != fatalMethod) return;
        EXPECT_TRUE(host::killService(nameOf(backend)));
        EXPECT_FALSE(host::waitForDeathNotices(0.2)) << "delivered during a collection";
    };
}

void Scenario::load() {
    std::string error;
    library = host::LoadedLibrary::load(POWERSTATS_LIBRARY, &error);
    ASSERT_NE(library, nullptr) << error;
}

std::optional<std::string> toText(const host::JavaBytes& bytes) {
    if (!bytes) return std::nullopt;
    return std::string(bytes->begin(), bytes->end());
}

Outcome Scenario::call(Call call) {
    if (library == nullptr) load();
    takeEvents();
    takeRequests();
    Outcome outcome{toText(callBare(call)), takeEvents(), takeRequests()};
    EXPECT_EQ(env.arrays(), 0u) << "an array was made and not returned";
    return outcome;
}

void Scenario::callAloud(Call call) {
    gAloud = true;
    const auto bytes = this->call(call).bytes;
    record(bytes ? "returned " + std::to_string(bytes->size()) + " bytes" : "returned null");
}

}  // namespace support

extern "C" int clock_gettime(clockid_t id, timespec* now) noexcept {
    if (id != CLOCK_BOOTTIME) return static_cast<int>(syscall(SYS_clock_gettime, id, now));
    const support::BootClock& clock = support::bootClock();
    if (clock.onRead) clock.onRead();
    // No test expects this time, so a reader that ignores the failure is noticed.
    *now = clock.now.value_or(timespec{666, 666});
    if (clock.now.has_value()) return 0;
    errno = EINVAL;
    return -1;
}
