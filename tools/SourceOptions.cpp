// SPDX-License-Identifier: Apache-2.0

#include "tools/SourceOptions.h"

#include <android/binder_manager.h>
#include <android/log.h>
#include <fmt/format.h>
#include <host/ServiceControl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numeric>
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
std::string nobodyOwns(const std::string& hal, host::Bus bus) {
    constexpr size_t kSimilar = 2;
    const auto wanted = chosen(hal, "android.hardware.power.stats.IPowerStats",
                               "android.hardware.power.stats.V1_0.IPowerStats");
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
void explainAbsence(const std::vector<host::Bus>& buses, const std::string& hal) {
    std::string absences, troubles;
    for (const host::Bus bus : buses) {
        const std::string trouble = host::findBusTrouble(bus);
        std::string& list = trouble.empty() ? absences : troubles;
        if (!list.empty()) list += "; ";
        list += !trouble.empty() ? trouble
                                 : fmt::format("no power stats service{} on the {} bus: {}",
                                               hal.empty() ? "" : " with the interface " + hal,
                                               nameOf(bus), nobodyOwns(hal, bus));
    }
    say(absences.empty() ? troubles
                         : absences +
                               " (start a service, such as powerstatsd, or wait longer with "
                               "--wait SECONDS)");
}

/// Finds a service as every look-up does: AIDL before HIDL, on each bus.
/// @return the bus that it is on; std::nullopt when there is none.
std::optional<host::Bus> findBus(const std::vector<host::Bus>& buses, const std::string& hal) {
    for (const std::string& name : chosen(hal, host::kAidlPowerStats, host::kHidlPowerStats)) {
        const bool isAidl = name == host::kAidlPowerStats;
        for (const host::Bus bus : buses) {
            host::setBusLookups({bus}, {name});
            if (isAidl ? findAidl() != nullptr : findHidl() != nullptr) return bus;
        }
    }
    return std::nullopt;
}

/// Waits until a service is on the bus. From then on look-ups find only such services.
/// @param hal [in] "aidl" or "hidl"; empty: either.
/// @return 0, or kFailed after one line.
int awaitService(SourceOptions* options, const std::string& hal) {
    const std::vector<host::Bus> buses = busesOf(*options);
    const auto until = steady_clock::now() + std::chrono::duration<double>(options->waitSeconds);
    std::optional<host::Bus> found;
    while (!(found = findBus(buses, hal)) && steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!found && hal == "aidl" && (found = findBus(buses, "hidl"))) {
        return fail(
            kFailed,
            fmt::format("the service on the {} bus has the interface hidl only (powerstats dump "
                        "--bus={} shows its totals)",
                        nameOf(*found), nameOf(*found)));
    }
    host::setBusLookups(buses, chosen(hal, host::kAidlPowerStats, host::kHidlPowerStats));
    if (!found) {
        explainAbsence(buses, hal);
        return kFailed;
    }
    options->bus = nameOf(*found);
    return 0;
}

}  // namespace

void addSourceOptions(CommandLine* command, SourceOptions* options, WithBus withBus) {
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
    if (withBus == WithBus::kNo) return;
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

void addServiceOptions(CommandLine* command, ServiceOptions* options) {
    addSourceOptions(command, &options->source);
    command->addOption("--hal", "Interface; the AIDL service first, when none is given",
                       choice(&options->hal, {"aidl", "hidl"}));
}

std::shared_ptr<Source> openSource(SourceOptions* asked,
                                   const RecordedSource::PlayingTime& playingTime, int* status) {
    const SourceOptions& options = *asked;
    *status = 0;
    if (!options.bus.empty()) {
        *status = awaitService(asked, "aidl");
        if (*status != 0) return nullptr;
        return std::make_shared<ServiceSource>();
    }
    const auto warn = [](const std::string& text) { say(text); };
    if (options.replay.empty()) {
        LinuxSource::Options linux;
        linux.root = options.sysfs;
        linux.warn = warn;
        return std::make_shared<LinuxSource>(linux);
    }
    RecordedSource::Options playing;
    playing.loop = options.loop;
    RecordedSource::PlayingTime time = playingTime;
    if (!time) time = [start = steady_clock::now()] { return steady_clock::now() - start; };
    playing.playingTime = [time, speed = options.speed] { return scale(time(), speed); };
    std::string error;
    auto source = RecordedSource::open(options.replay, playing, warn, &error);
    if (source == nullptr) {
        say(error);
        *status = kUsage;
    }
    return source;
}

int openService(ServiceOptions* options, const RecordedSource::PlayingTime& playingTime,
                std::shared_ptr<Source>* own) {
    if (!options->source.bus.empty()) return awaitService(&options->source, options->hal);
    // A service on a bus must not answer in its place.
    host::setBusLookups({});
    int status = 0;
    *own = openSource(&options->source, playingTime, &status);
    if (*own == nullptr) return status;
    bool isRegistered = false;
    if (options->hal == "hidl") {
        const android::sp<HidlService> hidl = new HidlService(*own);
        isRegistered = hidl->registerAsService() == android::OK;
    } else {
        // The register keeps the binder, and the binder keeps the service.
        const auto aidl = ndk::SharedRefBase::make<AidlService>(*own);
        isRegistered =
            AServiceManager_addService(aidl->asBinder().get(), host::kAidlPowerStats) == STATUS_OK;
    }
    if (isRegistered) return 0;
    return fail(kFailed, "the service could not be registered (this is a fault of this program)");
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
