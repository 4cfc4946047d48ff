// SPDX-License-Identifier: Apache-2.0

#include "tools/Service.h"

#include <android/binder_manager.h>
#include <android/log.h>
#include <fmt/format.h>
#include <host/ServiceControl.h>

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "hal/CounterServices.h"

namespace powerstats {

namespace {

namespace stats_aidl = aidl::android::hardware::power::stats;
namespace stats_V1_0 = android::hardware::power::stats::V1_0;

/// The value of `--bus` when none is given.
constexpr char kAnyBus[] = "any";

std::shared_ptr<stats_aidl::IPowerStats> gOwnService;
Replay gReplay;

int registerService(const ServiceOptions& options, RecordedCounters::PlayingTime playingTime) {
    // A service on a bus must not answer in its place.
    host::setBusLookups({});
    const auto counters = openSource(options.source, std::move(playingTime), &gReplay);
    if (counters == nullptr) return kUsage;
    const auto aidl = ndk::SharedRefBase::make<CountersAidl>(counters);
    gOwnService = aidl;
    bool registered = false;
    if (options.hal == "hidl") {
        const android::sp<CountersHidl> hidl = new CountersHidl(counters);
        registered = hidl->registerAsService() == android::OK;
    } else {
        registered =
            AServiceManager_addService(aidl->asBinder().get(), host::kAidlPowerStats) == STATUS_OK;
    }
    if (registered) return 0;
    say("the service could not be registered (this is a fault of this program)");
    return kFailed;
}

std::vector<host::Bus> busesOf(const ServiceOptions& options) {
    if (options.bus == "session") return {host::Bus::kSession};
    if (options.bus == "system") return {host::Bus::kSystem};
    return {host::Bus::kSession, host::Bus::kSystem};
}

std::string nobodyOwns(const ServiceOptions& options) {
    constexpr char kAidl[] = "android.hardware.power.stats.IPowerStats";
    constexpr char kHidl[] = "android.hardware.power.stats.V1_0.IPowerStats";
    if (options.hal.empty()) return fmt::format("nobody owns the name {} or {}", kAidl, kHidl);
    return fmt::format("nobody owns the name {}", options.hal == "hidl" ? kHidl : kAidl);
}

/// Says why no service was found: no bus can be reached, or no service is on one.
void explainAbsence(const ServiceOptions& options) {
    std::string reasons;
    for (const host::Bus bus : busesOf(options)) {
        const std::string trouble = host::findBusTrouble(bus);
        if (trouble.empty()) {
            say(fmt::format(
                "no power stats service{} on {}: {} (start powerstatsd, or wait longer with --wait "
                "SECONDS)",
                options.hal.empty() ? "" : " with the interface " + options.hal, describe(options),
                nobodyOwns(options)));
            return;
        }
        reasons += (reasons.empty() ? "" : "; ") + trouble;
    }
    say(reasons);
}

int awaitServiceOnBus(const ServiceOptions& options) {
    std::vector<std::string> names;
    if (options.hal != "hidl") names.emplace_back(host::kAidlPowerStats);
    if (options.hal != "aidl") names.emplace_back(host::kHidlPowerStats);
    host::setBusLookups(busesOf(options), std::move(names));

    using std::chrono::steady_clock;
    const auto until = steady_clock::now() + std::chrono::duration<double>(options.waitSeconds);
    while (findAidl() == nullptr && findHidl() == nullptr) {
        if (steady_clock::now() >= until) {
            explainAbsence(options);
            return kFailed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return 0;
}

}  // namespace

void addServiceOptions(CommandLine command, ServiceOptions* options) {
    const auto setHal = [options](const std::string& hal) {
        // "--hal bus" is the older name of "--bus".
        if (hal != "bus") {
            options->hal = hal;
        } else if (!options->bus) {
            options->bus = kAnyBus;
        }
    };
    command.addOption("--hal", "Interface; the AIDL service first, when none is given",
                      choice({"aidl", "hidl", "bus"}, setHal));
    Value bus = choice({kAnyBus, "session", "system"},
                       [options](const std::string& name) { options->bus = name; });
    bus.take = [take = bus.take](const std::string& name) {
        return take(name.empty() ? kAnyBus : name);
    };
    command
        .addOption("--bus", "Ask a service on a bus; on either, session first, when none is named",
                   bus)
        .letValueLack();
    command.addOption("--wait", "Seconds to wait for a service to appear on the bus",
                      number(&options->waitSeconds, {0, 86400}));
    addSourceOptions(command, &options->source);
    command.addFlag("--verbose", "Log why calls and look-ups of the service fail",
                    [] { __android_log_set_minimum_priority(ANDROID_LOG_DEBUG); });
    command.checkAtEnd([options]() -> std::string {
        if (!options->bus || !options->source.isGiven()) return "";
        return fmt::format("{}: not with --bus (the service on the bus has counters of its own)",
                           options->source.replay.empty() ? "--sysfs" : "--replay");
    });
}

int openService(const ServiceOptions& options, RecordedCounters::PlayingTime playingTime) {
    return options.bus ? awaitServiceOnBus(options)
                       : registerService(options, std::move(playingTime));
}

const Replay* ownReplay() {
    return gReplay.counters != nullptr ? &gReplay : nullptr;
}

std::shared_ptr<stats_aidl::IPowerStats> findAidl() {
    return stats_aidl::IPowerStats::fromBinder(
        ndk::SpAIBinder(AServiceManager_checkService(host::kAidlPowerStats)));
}

android::sp<stats_V1_0::IPowerStats> findHidl() {
    return stats_V1_0::IPowerStats::getService();
}

std::shared_ptr<stats_aidl::IPowerStats> ownService() {
    return gOwnService;
}

std::string describe(const ServiceOptions& options) {
    const SourceOptions& source = options.source;
    if (!options.bus && !source.replay.empty()) return source.replay;
    if (!options.bus) return source.sysfs == "/sys" ? "this machine" : source.sysfs;
    return options.bus == kAnyBus ? "the session or the system bus"
                                  : "the " + *options.bus + " bus";
}

}  // namespace powerstats
