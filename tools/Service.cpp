// SPDX-License-Identifier: Apache-2.0

#include "tools/Service.h"

#include <android/binder_manager.h>
#include <android/log.h>
#include <fmt/format.h>
#include <host/ServiceControl.h>

#include <algorithm>
#include <chrono>
#include <numeric>
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
std::vector<std::string> gDenied;
/// Where openService() found the service.
std::optional<host::Bus> gBus;

int registerService(const ServiceOptions& options, RecordedCounters::PlayingTime playingTime) {
    // A service on a bus must not answer in its place.
    host::setBusLookups({});
    const auto counters = openSource(options.source, std::move(playingTime), &gReplay, &gDenied);
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

std::string nameOf(host::Bus bus) {
    return bus == host::Bus::kSession ? "the session bus" : "the system bus";
}

/// Returns how many letters have to be added, removed or replaced to make one text of the other.
size_t distance(const std::string& one, const std::string& other) {
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (const char letter : one) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < other.size(); ++j) {
            const size_t replaced = diagonal + (letter != other[j] ? 1 : 0);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// Says which names of a service have no owner on a bus, and which owned ones are similar.
std::string nobodyOwns(const ServiceOptions& options, host::Bus bus) {
    constexpr size_t kSimilar = 2;
    std::vector<std::string> wanted;
    if (options.hal != "hidl") wanted.emplace_back("android.hardware.power.stats.IPowerStats");
    if (options.hal != "aidl") wanted.emplace_back("android.hardware.power.stats.V1_0.IPowerStats");
    std::string text = fmt::format("nobody owns the name {}", fmt::join(wanted, " or "));
    for (const std::string& name : host::listBusNames(bus)) {
        const auto isSimilar = [&](const std::string& one) {
            const size_t letters = distance(one, name);
            return letters > 0 && letters <= kSimilar;
        };
        if (std::any_of(wanted.begin(), wanted.end(), isSimilar)) {
            text += fmt::format(", but somebody owns {}", name);
        }
    }
    return text;
}

/// Says why no service was found: no bus can be reached, or no service is on one.
void explainAbsence(const ServiceOptions& options) {
    std::string absences, troubles;
    for (const host::Bus bus : busesOf(options)) {
        const std::string trouble = host::findBusTrouble(bus);
        std::string& list = trouble.empty() ? absences : troubles;
        if (!list.empty()) list += "; ";
        list += !trouble.empty()
                    ? trouble
                    : fmt::format("no power stats service{} on {}: {}",
                                  options.hal.empty() ? "" : " with the interface " + options.hal,
                                  nameOf(bus), nobodyOwns(options, bus));
    }
    say(absences.empty() ? troubles
                         : absences +
                               " (start a service, such as powerstatsd, or wait longer with "
                               "--wait SECONDS)");
}

/// Finds the service as every look-up does: on each bus, AIDL before HIDL.
/// @return the bus that it is on; std::nullopt when there is none.
std::optional<host::Bus> findBus(const std::vector<host::Bus>& buses,
                                 const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        for (const host::Bus bus : buses) {
            host::setBusLookups({bus}, {name});
            if (name == host::kAidlPowerStats ? findAidl() != nullptr : findHidl() != nullptr) {
                return bus;
            }
        }
    }
    return std::nullopt;
}

int awaitServiceOnBus(const ServiceOptions& options) {
    std::vector<std::string> names;
    if (options.hal != "hidl") names.emplace_back(host::kAidlPowerStats);
    if (options.hal != "aidl") names.emplace_back(host::kHidlPowerStats);
    const std::vector<host::Bus> buses = busesOf(options);

    using std::chrono::steady_clock;
    const auto until = steady_clock::now() + std::chrono::duration<double>(options.waitSeconds);
    while (!(gBus = findBus(buses, names)) && steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    host::setBusLookups(buses, names);
    if (gBus) return 0;
    explainAbsence(options);
    return kFailed;
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

const std::vector<std::string>& deniedCounters() {
    return gDenied;
}

std::string describe(const ServiceOptions& options) {
    const SourceOptions& source = options.source;
    if (!options.bus && !source.replay.empty()) return source.replay;
    if (!options.bus) return source.sysfs == "/sys" ? "this machine" : source.sysfs;
    return gBus ? nameOf(*gBus) : "no bus";
}

}  // namespace powerstats
