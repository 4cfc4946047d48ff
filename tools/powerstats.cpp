// SPDX-License-Identifier: Apache-2.0
//
// powerstats: loads the library as a Java runtime would, lets it read this machine's counters
// through a power stats service in the same process or on a bus, and prints the library's result.

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/binder_manager.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>
#include <android/log.h>
#include <fmt/format.h>
#include <host/JavaRuntime.h>
#include <host/ServiceControl.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "hal/LinuxCounters.h"
#include "hal/LinuxPowerStats.h"
#include "hal/NamesAndIds.h"
#include "tools/CommandLine.h"
#include "tools/ResultPrinter.h"

namespace powerstats {

namespace {

using host::HostJniEnv;
using host::JavaBytes;
using host::LoadedLibrary;

constexpr int kCollected = 0;
constexpr int kNothingCollected = 1;
/// The value of `--bus` when none is given.
constexpr char kAnyBus[] = "any";

struct Arguments {
    std::string hal;  // empty: AIDL, or on a bus HIDL where AIDL is not served
    std::optional<std::string> bus;
    double waitSeconds = 2;
    std::string sysfs = "/sys";
    std::string format = "table";
    std::string library = LoadedLibrary::defaultFile();
    bool rails = false;
    bool residencies = false;
};

namespace stats_aidl = aidl::android::hardware::power::stats;
namespace stats_V1_0 = android::hardware::power::stats::V1_0;

constexpr char kRefused[] =
    "the bus's policy refuses them (run as root, or join the group: sudo usermod -aG powerstats "
    "NAME, and log in again)";

/// The program's name on its command line, for remedies.
std::string gProgram = "powerstats";
/// Whether a file of this machine may not be read by this user.
std::atomic<bool> gDenied{false};

/// One of the library's methods that is to be called, and the bytes that it returned.
struct Call {
    Section::Kind kind;
    JavaBytes bytes;
};

void say(const std::string& text) {
    printError("powerstats", text);
}

std::shared_ptr<stats_aidl::IPowerStats> findAidl() {
    return stats_aidl::IPowerStats::fromBinder(
        ndk::SpAIBinder(AServiceManager_checkService(host::kAidlPowerStats)));
}

android::sp<stats_V1_0::IPowerStats> findHidl() {
    return stats_V1_0::IPowerStats::getService();
}

bool mentionsDenial(const std::string& text) {
    return text.find(std::generic_category().message(EACCES)) != std::string::npos;
}

bool registerAidl(const std::shared_ptr<LinuxPowerStatsAidl>& service) {
    return AServiceManager_addService(service->asBinder().get(), host::kAidlPowerStats) ==
           STATUS_OK;
}

bool registerHidl(const std::shared_ptr<const LinuxCounters>& counters) {
    const android::sp<LinuxPowerStatsHidl> service = new LinuxPowerStatsHidl(counters);
    return service->registerAsService() == android::OK;
}

/// Serves this machine's counters to the library from within this process.
/// @return the service over AIDL, whichever interface the library finds; null when that failed.
std::shared_ptr<LinuxPowerStatsAidl> registerService(const Arguments& arguments) {
    // A service on a bus must not answer in its place.
    host::setBusLookups({});
    LinuxCounters::Options options;
    options.root = arguments.sysfs;
    options.warn = [](const std::string& text) {
        say(text);
        gDenied = gDenied || mentionsDenial(text);
    };
    const auto counters = std::make_shared<const LinuxCounters>(options);
    auto aidl = ndk::SharedRefBase::make<LinuxPowerStatsAidl>(counters);
    if (arguments.hal == "hidl" ? registerHidl(counters) : registerAidl(aidl)) return aidl;
    say("the service could not be registered (this is a fault of this program)");
    return nullptr;
}

std::vector<host::Bus> busesOf(const Arguments& arguments) {
    if (*arguments.bus == "session") return {host::Bus::kSession};
    if (*arguments.bus == "system") return {host::Bus::kSystem};
    return {host::Bus::kSession, host::Bus::kSystem};
}

bool isServed() {
    return findAidl() != nullptr || findHidl() != nullptr;
}

/// Says why no service was found: no bus can be reached, or no service is on one.
void explainAbsence(const Arguments& arguments) {
    std::string reasons;
    for (const host::Bus bus : busesOf(arguments)) {
        const std::string trouble = host::findBusTrouble(bus);
        if (trouble.empty()) {
            const std::string interface =
                arguments.hal.empty() ? "" : " with the interface " + arguments.hal;
            say(
                fmt::format("no power stats service{} on {} (start powerstatsd, or wait longer "
                            "with --wait SECONDS)",
                            interface,
                            *arguments.bus == kAnyBus ? "the session or the system bus"
                                                      : "the " + *arguments.bus + " bus"));
            return;
        }
        reasons += (reasons.empty() ? "" : "; ") + trouble;
    }
    say(reasons);
}

/// Has the library look on the buses, once a service is there: its first call chooses the interface
/// for good.
void awaitServiceOnBus(const Arguments& arguments) {
    std::vector<std::string> names;
    if (arguments.hal != "hidl") names.emplace_back(host::kAidlPowerStats);
    if (arguments.hal != "aidl") names.emplace_back(host::kHidlPowerStats);
    host::setBusLookups(busesOf(arguments), std::move(names));

    using std::chrono::steady_clock;
    const auto until = steady_clock::now() + std::chrono::duration<double>(arguments.waitSeconds);
    while (!isServed()) {
        if (!(steady_clock::now() < until)) {  // so that NaN ends too
            explainAbsence(arguments);
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

/// Why a call of a service fails; the empty text when it succeeds.
std::string reasonOf(const ndk::ScopedAStatus& status) {
    if (status.isOk()) return "";
    if (status.getStatus() == android::PERMISSION_DENIED) return kRefused;
    return status.getDescription();
}
template <typename T>
std::string reasonOf(const android::hardware::Return<T>& result, stats_V1_0::Status status) {
    if (result.isOk() && status == stats_V1_0::Status::NOT_SUPPORTED) return "not supported";
    if (result.isOk() && status != stats_V1_0::Status::SUCCESS) {
        return fmt::format("the service answered status {}", static_cast<int>(status));
    }
    const std::string text = result.isOk() ? "" : result.description();
    return text.find("PERMISSION_DENIED") != std::string::npos ? kRefused : text;
}

/// Asks the service that the library asked why there are no rails, or no entities.
/// @return an empty text when no service is there.
std::string findReason(Section::Kind kind) {
    const bool rails = kind == Section::Kind::kRails;
    std::string reason;
    size_t count = 0;
    if (const auto aidl = findAidl()) {
        if (rails) {
            std::vector<stats_aidl::Channel> channels;
            std::vector<stats_aidl::EnergyMeasurement> measurements;
            reason = reasonOf(aidl->getEnergyMeterInfo(&channels));
            if (reason.empty()) reason = reasonOf(aidl->readEnergyMeter({}, &measurements));
            count = channels.size();
        } else {
            std::vector<stats_aidl::PowerEntity> entities;
            std::vector<stats_aidl::StateResidencyResult> residencies;
            reason = reasonOf(aidl->getPowerEntityInfo(&entities));
            if (reason.empty()) reason = reasonOf(aidl->getStateResidency({}, &residencies));
            count = entities.size();
        }
    } else if (const auto hidl = findHidl()) {
        stats_V1_0::Status status{};
        const auto note = [&](const auto& records, stats_V1_0::Status answered) {
            count = records.size();
            status = answered;
        };
        reason = rails ? reasonOf(hidl->getRailInfo(note), status)
                       : reasonOf(hidl->getPowerEntityInfo(note), status);
    } else {
        return "";
    }
    if (!reason.empty()) return reason;
    if (count == 0) return "the service has none (this machine may measure nothing)";
    return "the service failed, and answers again now";
}

/// Says of each call that returned null why it did, with the remedy.
void explainMissing(const std::vector<Call>& calls) {
    for (const Call& call : calls) {
        if (call.bytes) continue;
        const bool rails = call.kind == Section::Kind::kRails;
        const std::string reason =
            gDenied
                ? fmt::format("this user may not read the kernel's counters (sudo {} dump --{})",
                              gProgram, rails ? "rails" : "residencies")
                : findReason(call.kind);
        if (!reason.empty()) say(fmt::format("{}: {}", rails ? "rails" : "power entities", reason));
    }
}

/// Says which rails the library leaves out because they are not measured since boot.
/// @param service [in] null when there is none.
void explainLeftOut(const std::shared_ptr<stats_aidl::IPowerStats>& service) {
    std::vector<stats_aidl::Channel> channels;
    std::vector<stats_aidl::EnergyMeasurement> measurements;
    if (service == nullptr || !service->getEnergyMeterInfo(&channels).isOk() ||
        !service->readEnergyMeter({}, &measurements).isOk()) {
        return;
    }
    std::string names;
    int64_t sinceMs = 0;
    for (const auto& measurement : measurements) {
        if (measurement.durationMs == measurement.timestampMs) continue;
        sinceMs = std::max(sinceMs, measurement.timestampMs - measurement.durationMs);
        for (const auto& channel : channels) {
            if (channel.id != measurement.id) continue;
            names += (names.empty() ? "" : ", ") + safeName(channel.name);
        }
    }
    if (names.empty()) return;
    say(
        fmt::format("rails left out, since they are counted from {} s after boot only: {} (start "
                    "powerstatsd at boot; after a restart of it, at the next boot)",
                    sinceMs / 1000, names));
}

void callLibrary(const LoadedLibrary& library, std::vector<Call>* calls) {
    HostJniEnv env;
    for (Call& call : *calls) {
        call.bytes = call.kind == Section::Kind::kRails ? library.railEnergy(&env)
                                                        : library.residencies(&env);
    }
}

bool parse(const Call& call, Section* section) {
    section->kind = call.kind;
    if (!call.bytes) return true;
    section->result.emplace();
    if (section->result->ParseFromArray(call.bytes->data(), static_cast<int>(call.bytes->size()))) {
        return true;
    }
    say("the library's result cannot be read (build the library and this program together)");
    return false;
}

bool format(const std::vector<Call>& calls, const std::string& form, std::string* text) {
    std::vector<Section> sections(calls.size());
    for (size_t i = 0; i < calls.size(); ++i) {
        if (!parse(calls[i], &sections[i])) return false;
    }
    *text = form == "json" ? formatJson(sections) : formatTable(sections);
    return true;
}

bool writeOutput(const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (written && std::fflush(stdout) == 0) return true;
    say(fmt::format("standard output: {}", std::strerror(errno)));
    return false;
}

int dump(const Arguments& arguments) {
    std::string error;
    // Unloaded at exit, when no notice that a service on the bus has died can run in it any more.
    static const auto library = LoadedLibrary::load(arguments.library, &error);
    if (library == nullptr) {
        say(error + " (build the library, or name another file with --library)");
        return kUsage;
    }

    std::shared_ptr<stats_aidl::IPowerStats> service;
    if (arguments.bus) {
        awaitServiceOnBus(arguments);
        service = findAidl();
    } else if ((service = registerService(arguments)) == nullptr) {
        return kNothingCollected;
    }

    const bool all = arguments.rails == arguments.residencies;
    std::vector<Call> calls;
    if (all || arguments.rails) calls.push_back({Section::Kind::kRails, {}});
    if (all || arguments.residencies) calls.push_back({Section::Kind::kEntities, {}});
    callLibrary(*library, &calls);

    std::string text;
    if (arguments.format == "binary") {
        const JavaBytes& bytes = calls.front().bytes;
        if (bytes) text.assign(bytes->begin(), bytes->end());
    } else if (!format(calls, arguments.format, &text)) {
        return kNothingCollected;
    }
    if (!writeOutput(text)) return kNothingCollected;
    explainMissing(calls);
    if (calls.front().kind == Section::Kind::kRails) explainLeftOut(service);

    for (const Call& call : calls) {
        if (call.bytes && !call.bytes->empty()) return kCollected;
    }
    return kNothingCollected;
}

/// Finds a mistake in arguments that were parsed.
/// @return one line; empty when there is no mistake.
std::string findMistake(const Arguments& arguments, bool sysfsGiven) {
    if (arguments.bus && sysfsGiven) {
        return "--sysfs: not with --bus (the service on the bus reads its own counters)";
    }
    if (arguments.library.empty()) return "--library: the name is empty (give the library's file)";
    if (arguments.format == "binary" && arguments.rails == arguments.residencies) {
        return "--format binary: the bytes of one call only (give --rails or --residencies)";
    }
    return "";
}

int run(int argc, char** argv) {
    Arguments arguments;
    bool verbose = false;
    gProgram = argv[0];
    CLI::App app(
        "Shows the energy of rails and the times that power entities spent in their states.",
        "powerstats");
    app.set_version_flag("--version", "powerstats " POWERSTATS_VERSION);
    CLI::App* command = app.add_subcommand("dump", "Call the library once and print its result.");
    command->footer(
        "Energy is in millijoules and time in milliseconds, both since boot. A rail that was not\n"
        "measured since boot is left out: for those start powerstatsd at boot. A restart of it\n"
        "loses \"since boot\" until the next boot.\n"
        "Exit status: 0 something was collected, 1 nothing was or it could not be written,\n"
        "2 bad argument, or a library that cannot be loaded.\n"
        "Example: powerstats dump --sysfs share/sample-machine --rails");
    command
        ->add_option("--hal", arguments.hal,
                     "Interface; the AIDL service first, when none is given")
        ->check(CLI::IsMember({"aidl", "hidl", "bus"}));
    // Without a value too; then CLI11 hands over an empty text.
    command
        ->add_option("--bus", arguments.bus,
                     "Ask a service on a bus; on either, session first, "
                     "when none is named")
        ->expected(0, 1)
        ->check(CLI::IsMember({"", kAnyBus, "session", "system"}));
    command
        ->add_option("--wait", arguments.waitSeconds,
                     "Seconds to wait for a service to appear on the bus")
        ->check(CLI::Range(0.0, 86400.0))
        ->capture_default_str();
    command->add_flag("--rails", arguments.rails, "Energy of the rails only");
    command->add_flag("--residencies", arguments.residencies, "States of the power entities only");
    CLI::Option* sysfs = addSysfsOption(command, &arguments.sysfs);
    command->add_option("--format", arguments.format, "binary: the library's own bytes")
        ->check(CLI::IsMember({"table", "json", "binary"}))
        ->capture_default_str();
    command->add_option("--library", arguments.library, "The library's file")
        ->capture_default_str();
    command->add_flag("--verbose", verbose, "Log why calls and look-ups of the service fail");
    app.footer(
        "Exit status: that of the subcommand; 2 for a bad argument.\n"
        "Example: powerstats dump --format json --sysfs share/sample-machine");
    if (const auto exitCode = parseArguments(&app, argc, argv)) return *exitCode;
    // Not left to CLI11, which would say so too where a subcommand is misspelt.
    if (app.get_subcommands().empty()) {
        say("A subcommand is required (see powerstats --help)");
        return kUsage;
    }
    // "--hal bus" is the older name of "--bus".
    if (arguments.hal == "bus") {
        arguments.hal.clear();
        if (!arguments.bus) arguments.bus = kAnyBus;
    }
    if (arguments.bus == "") arguments.bus = kAnyBus;
    if (verbose) __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
    const std::string mistake = findMistake(arguments, sysfs->count() != 0);
    if (!mistake.empty()) {
        say(mistake);
        return kUsage;
    }
    return dump(arguments);
}

}  // namespace

}  // namespace powerstats

int main(int argc, char** argv) {
    return powerstats::runProgram("powerstats", powerstats::run, argc, argv);
}
