// SPDX-License-Identifier: Apache-2.0

#include "tools/SourceOptions.h"

#include <android/binder_manager.h>
#include <android/log.h>
#include <fmt/format.h>
#include <host/ServiceControl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>

#include "power/linux/LinuxSource.h"
#include "power/service/ServiceSource.h"
#include "power/service/Services.h"

namespace powerstats {

namespace {

using std::chrono::steady_clock;

/// The value of `--bus` when none is given.
constexpr char kAnyBus[] = "any";

/// The playing time at another speed. It stops before it overflows, after 290 years.
nanoseconds scale(nanoseconds time, double speed) {
    constexpr double kMax = 9.2e18;
    return nanoseconds(std::llround(std::min(static_cast<double>(time.count()) * speed, kMax)));
}

const char* nameOf(host::Bus bus) {
    return bus == host::Bus::kSession ? "session" : "system";
}

std::vector<host::Bus> busesOf(const SourceOptions& options) {
    if (options.bus == "session") return {host::Bus::kSession};
    if (options.bus == "system") return {host::Bus::kSystem};
    return {host::Bus::kSession, host::Bus::kSystem};
}

/// The names of the interfaces that are asked for: either, or both.
std::vector<std::string> chosen(const std::string& hal, const char* aidl, const char* hidl) {
    if (hal.empty()) return {aidl, hidl};
    return {hal == "aidl" ? aidl : hidl};
}

/// Says why no service was found: no bus can be reached, or no service is on one.
std::string explainAbsence(const std::vector<host::Bus>& buses, const std::string& hal) {
    const auto wanted = chosen(hal, "android.hardware.power.stats.IPowerStats",
                               "android.hardware.power.stats.V1_0.IPowerStats");
    std::vector<std::string> absences, troubles;
    for (const host::Bus bus : buses) {
        const std::string trouble = host::findBusTrouble(bus);
        if (!trouble.empty()) {
            troubles.push_back(trouble);
            continue;
        }
        std::string& absence = absences.emplace_back(
            fmt::format("no power stats service{} on the {} bus: nobody owns the name {}",
                        hal.empty() ? "" : " with the interface " + hal, nameOf(bus),
                        fmt::join(wanted, " or ")));
        for (const std::string& name : host::listBusNames(bus)) {
            const bool isWanted = std::find(wanted.begin(), wanted.end(), name) != wanted.end();
            if (isWanted || name.rfind("android.hardware.", 0) != 0) continue;
            absence.append(", but somebody owns ").append(name);
        }
    }
    if (absences.empty()) return fmt::format("{}", fmt::join(troubles, "; "));
    return fmt::format(
        "{} (start a service, such as powerstatsd, or wait longer with --wait SECONDS)",
        fmt::join(absences, "; "));
}

/// Finds a service as every look-up does: AIDL before HIDL, on each bus.
/// @return the bus that it is on; std::nullopt when there is none.
std::optional<host::Bus> findBus(const std::vector<host::Bus>& buses, const std::string& hal) {
    for (const std::string& name : chosen(hal, host::kAidlPowerStats, host::kHidlPowerStats)) {
        for (const host::Bus bus : buses) {
            host::setBusLookups({bus}, {name});
            if (findAidl() != nullptr || findHidl() != nullptr) return bus;
        }
    }
    return std::nullopt;
}

/// Waits until a service is on a bus. From then on look-ups find only such services of that bus.
/// @param hal [in] "aidl" or "hidl"; empty: either.
/// @return 0, or kFailed after one line.
int awaitService(SourceOptions* options, const std::string& hal) {
    const std::vector<host::Bus> buses = busesOf(*options);
    host::setBusTimeLimit(options->callSeconds, options->waitSeconds + options->allSeconds);
    const auto until = steady_clock::now() + std::chrono::duration<double>(options->waitSeconds);
    std::optional<host::Bus> found;
    while (!(found = findBus(buses, hal)) && steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!found && hal == "aidl" && (found = findBus(buses, "hidl"))) {
        return fail(kFailed, fmt::format("the service on the {0} bus has the interface hidl only "
                                         "(powerstats dump --bus={0} shows its totals)",
                                         nameOf(*found)));
    }
    host::setBusLookups(found ? std::vector<host::Bus>{*found} : buses,
                        chosen(hal, host::kAidlPowerStats, host::kHidlPowerStats));
    if (found) {
        host::setBusTimeLimit(options->callSeconds, options->allSeconds);
        host::takeUnanswered();  // of the other bus
        options->bus = nameOf(*found);
        return 0;
    }
    return sayUnanswered() ? kFailed : fail(kFailed, explainAbsence(buses, hal));
}

}  // namespace

void addCounterOptions(CommandLine* command, SourceOptions* options) {
    command->addOption("--sysfs", "Folder of the kernel's counters", folder(&options->sysfs));
    Value replay = text(&options->replay, "FILE");
    replay.excludes = {"--sysfs"};
    command->addOption("--replay",
                       "Play a recording back instead of reading this machine's counters", replay);
    Value speed = number(&options->speed, {0.001, 1e6});
    Value loop = flag(&options->loop);
    speed.needs = loop.needs = {"--replay"};
    command->addOption("--speed", "Times as fast as it was recorded", speed);
    command->addOption("--loop", "Start the recording again after its end", loop);
}

void addSourceOptions(CommandLine* command, SourceOptions* options) {
    addCounterOptions(command, options);
    Value bus = choice(&options->bus, {kAnyBus, "session", "system"});
    bus.whenLeftOut = kAnyBus;
    bus.excludes = {"--sysfs", "--replay"};  // a service has counters of its own
    command->addOption("--bus",
                       "Ask a service on a bus; on either, session first, when none is named", bus);
    command->addOption("--wait", "Seconds to wait for a service to appear on the bus",
                       number(&options->waitSeconds, {0, 86400}));
    const auto logAll = [](const std::string& /*text*/) {
        __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
        return "";
    };
    command->addOption("--verbose", "Log why calls and look-ups of the service fail",
                       {"", "", "", logAll});
}

void addTimeout(CommandLine* command, SourceOptions* options) {
    options->allSeconds = options->callSeconds;
    command->addOption("--timeout", "Seconds for all answers of a bus and its service",
                       number(&options->allSeconds, {0.001, 86400}));
}

void addServiceOptions(CommandLine* command, ServiceOptions* options) {
    addSourceOptions(command, &options->source);
    command->addOption("--hal", "Interface; the AIDL service first, when none is given",
                       choice(&options->hal, {"aidl", "hidl"}));
}

std::shared_ptr<Source> openSource(SourceOptions* options, const PlayingTime& playingTime,
                                   int* status) {
    *status = 0;
    if (!options->bus.empty()) {
        *status = awaitService(options, "aidl");
        return *status == 0 ? std::make_shared<ServiceSource>() : nullptr;
    }
    if (options->replay.empty()) {
        LinuxSource::Options linux;
        linux.root = options->sysfs;
        linux.warn = say;
        return std::make_shared<LinuxSource>(linux);
    }
    PlayingTime time = playingTime;
    if (!time) time = [start = steady_clock::now()] { return steady_clock::now() - start; };
    const auto scaled = [time, speed = options->speed] { return scale(time(), speed); };
    std::string error;
    auto source = playRecording(options->replay, scaled, options->loop, say, &error);
    if (source == nullptr) *status = fail(kUsage, error);
    return source;
}

int openService(ServiceOptions* options, const PlayingTime& playingTime,
                std::shared_ptr<Source>* own) {
    if (!options->source.bus.empty()) return awaitService(&options->source, options->hal);
    // A service on a bus must not answer in its place.
    host::setBusLookups({});
    int status = 0;
    *own = openSource(&options->source, playingTime, &status);
    if (*own == nullptr) return status;
    // The register keeps the service, that of a binder through the binder.
    const bool isRegistered = options->hal == "hidl"
                                  ? serveHidl(*own)->registerAsService() == android::OK
                                  : AServiceManager_addService(serveAidl(*own)->asBinder().get(),
                                                               host::kAidlPowerStats) == STATUS_OK;
    if (isRegistered) return 0;
    return fail(kFailed, "the service could not be registered (this is a fault of this program)");
}

bool sayUnanswered() {
    const std::string text = host::takeUnanswered();
    if (text.empty()) return false;
    // More time does not help with a new connection.
    const bool isService = text.rfind("the service ", 0) == 0;
    say(text +
        (isService ? " (restart it, or give it longer with --timeout SECONDS)" : " (restart it)"));
    return true;
}

void sayWhyNoRails(const Reading& reading) {
    const Failure::Kind kind = reading.railsFailure.kind;
    if (kind == Failure::Kind::kNotMeasured || kind == Failure::Kind::kRefused) {
        say("no energy: " + reading.railsFailure.text);
    }
}

std::string describe(const SourceOptions& options) {
    if (options.bus.empty() && !options.replay.empty()) return options.replay;
    if (options.bus.empty()) return options.sysfs == "/sys" ? "this machine" : options.sysfs;
    return options.bus == kAnyBus ? "the session or the system bus" : "the " + options.bus + " bus";
}

}  // namespace powerstats
