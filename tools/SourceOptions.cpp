// SPDX-License-Identifier: Apache-2.0

#include "tools/SourceOptions.h"

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

/// Returns how many letters have to be added, removed or replaced to make one text of the other.
size_t distance(const std::string& one, const std::string& other) {
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (size_t i = 0; i < one.size(); ++i) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < other.size(); ++j) {
            const size_t replaced = diagonal + (one[i] != other[j] ? 1 : 0);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// Says which names of a service have no owner on a bus, and which owned ones are similar.
std::string nobodyOwns(const std::string& hal, host::Bus bus) {
    constexpr size_t kSimilar = 2;
    std::vector<std::string> wanted;
    if (hal != "hidl") wanted.emplace_back("android.hardware.power.stats.IPowerStats");
    if (hal != "aidl") wanted.emplace_back("android.hardware.power.stats.V1_0.IPowerStats");
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
    for (const char* const name : {host::kAidlPowerStats, host::kHidlPowerStats}) {
        const bool isAidl = name == host::kAidlPowerStats;
        if (hal == (isAidl ? "hidl" : "aidl")) continue;
        for (const host::Bus bus : buses) {
            host::setBusLookups({bus}, {name});
            if (isAidl ? findAidl() != nullptr : findHidl() != nullptr) return bus;
        }
    }
    return std::nullopt;
}

}  // namespace

void addSourceOptions(CommandLine command, SourceOptions* options, WithBus withBus) {
    const Option sysfs =
        command.addOption("--sysfs", "Folder of the kernel's counters", folder(&options->sysfs));
    const Option replay =
        command
            .addOption("--replay",
                       "Play a recording back instead of reading this machine's counters",
                       text(&options->replay, "FILE"))
            .excludes(sysfs);
    command
        .addOption("--speed", "Times as fast as it was recorded",
                   number(&options->speed, {0.001, 1e6}))
        .needs(replay);
    command
        .addFlag("--loop", "Start the recording again after its end",
                 [options] { options->loop = true; })
        .needs(replay);
    if (withBus == WithBus::kNo) return;
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
    command.addFlag("--verbose", "Log why calls and look-ups of the service fail",
                    [] { __android_log_set_minimum_priority(ANDROID_LOG_DEBUG); });
    command.checkAtEnd([options, sysfs, replay]() -> std::string {
        if (!options->bus || (!sysfs.isGiven() && !replay.isGiven())) return "";
        return fmt::format("{}: not with --bus (the service on the bus has counters of its own)",
                           replay.isGiven() ? "--replay" : "--sysfs");
    });
}

std::shared_ptr<Source> openSource(SourceOptions* asked,
                                   const RecordedSource::PlayingTime& playingTime, int* status) {
    const SourceOptions& options = *asked;
    *status = 0;
    if (options.bus) {
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
    if (playingTime) {
        playing.playingTime = [playingTime, speed = options.speed] {
            return scale(playingTime(), speed);
        };
    } else {
        playing.playingTime = [start = steady_clock::now(), speed = options.speed] {
            return scale(steady_clock::now() - start, speed);
        };
    }
    std::string error;
    auto source = RecordedSource::open(options.replay, playing, warn, &error);
    if (source == nullptr) {
        say(error);
        *status = kUsage;
    }
    return source;
}

nanoseconds stayAtFirstSample() {
    return nanoseconds::zero();
}

int awaitService(SourceOptions* options, const std::string& hal) {
    const std::vector<host::Bus> buses = busesOf(*options);
    const auto until = steady_clock::now() + std::chrono::duration<double>(options->waitSeconds);
    std::optional<host::Bus> found;
    while (!(found = findBus(buses, hal)) && steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!found && hal == "aidl" && (found = findBus(buses, "hidl"))) {
        say(
            fmt::format("the service on the {} bus has the interface hidl only (powerstats dump "
                        "--bus={} shows its totals)",
                        nameOf(*found), nameOf(*found)));
        return kFailed;
    }
    std::vector<std::string> names;
    if (hal != "hidl") names.emplace_back(host::kAidlPowerStats);
    if (hal != "aidl") names.emplace_back(host::kHidlPowerStats);
    host::setBusLookups(buses, names);
    if (!found) {
        explainAbsence(buses, hal);
        return kFailed;
    }
    options->bus = nameOf(*found);
    return 0;
}

void sayWhyNoRails(const Reading& reading) {
    const Failure::Kind kind = reading.railsFailure.kind;
    if (kind == Failure::Kind::kNotMeasured || kind == Failure::Kind::kRefused) {
        say("no energy: " + reading.railsFailure.text);
    }
}

std::string describe(const SourceOptions& options) {
    if (!options.bus && !options.replay.empty()) return options.replay;
    if (!options.bus) return options.sysfs == "/sys" ? "this machine" : options.sysfs;
    return options.bus == kAnyBus ? "the session or the system bus"
                                  : "the " + *options.bus + " bus";
}

}  // namespace powerstats
