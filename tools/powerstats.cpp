// SPDX-License-Identifier: Apache-2.0
//
// powerstats: loads the library as a Java runtime would, lets it read this machine's counters
// through a power stats service in the same process, and prints what the library returned.

#include <android/binder_manager.h>
#include <fmt/format.h>
#include <host/ServiceControl.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hal/LinuxCounters.h"
#include "hal/LinuxPowerStatsAidl.h"
#include "hal/LinuxPowerStatsHidl.h"
#include "tools/CommandLine.h"
#include "tools/HostJavaRuntime.h"
#include "tools/ResultPrinter.h"

namespace powerstats {

namespace {

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

/// One of the library's methods that is to be called, and the bytes that it returned.
struct Call {
    Section::Kind kind;
    JavaBytes bytes;
};

void say(const std::string& text) {
    printError("powerstats", text);
}

bool registerAidl(const std::shared_ptr<const LinuxCounters>& counters) {
    const auto service = ndk::SharedRefBase::make<LinuxPowerStatsAidl>(counters);
    return AServiceManager_addService(service->asBinder().get(), host::kAidlPowerStats) ==
           STATUS_OK;
}

bool registerHidl(const std::shared_ptr<const LinuxCounters>& counters) {
    const android::sp<LinuxPowerStatsHidl> service = new LinuxPowerStatsHidl(counters);
    return service->registerAsService() == android::OK;
}

/// Serves this machine's counters to the library from within this process.
bool registerService(const Arguments& arguments) {
    // A service on a bus must not answer in its place.
    host::setBusLookups({});
    LinuxCounters::Options options;
    options.root = arguments.sysfs;
    options.warn = say;
    const auto counters = std::make_shared<const LinuxCounters>(options);
    if (arguments.hal == "hidl" ? registerHidl(counters) : registerAidl(counters)) return true;
    say("the service could not be registered (this is a fault of this program)");
    return false;
}

bool isServed() {
    return ndk::SpAIBinder(AServiceManager_checkService(host::kAidlPowerStats)).get() != nullptr ||
           android::hardware::power::stats::V1_0::IPowerStats::getService() != nullptr;
}

/// Has the library look on the buses, once a service is there: its first call chooses the interface
/// for good.
void awaitServiceOnBus(const Arguments& arguments) {
    std::vector<host::Bus> buses;
    if (*arguments.bus != "system") buses.push_back(host::Bus::kSession);
    if (*arguments.bus != "session") buses.push_back(host::Bus::kSystem);
    std::vector<std::string> names;
    if (arguments.hal != "hidl") names.emplace_back(host::kAidlPowerStats);
    if (arguments.hal != "aidl") names.emplace_back(host::kHidlPowerStats);
    host::setBusLookups(std::move(buses), std::move(names));

    using std::chrono::steady_clock;
    const auto until = steady_clock::now() + std::chrono::duration<double>(arguments.waitSeconds);
    while (!isServed()) {
        if (steady_clock::now() >= until) {
            say(fmt::format("no power stats service{} on the {} (start powerstatsd, or wait longer "
                            "with --wait SECONDS)",
                            arguments.hal.empty() ? "" : " with the interface " + arguments.hal,
                            *arguments.bus == kAnyBus ? "session or system bus"
                                                      : *arguments.bus + " bus"));
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
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

    if (arguments.bus) {
        awaitServiceOnBus(arguments);
    } else if (!registerService(arguments)) {
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

    for (const Call& call : calls) {
        if (call.bytes && !call.bytes->empty()) return kCollected;
    }
    return kNothingCollected;
}

/// @return what is wrong with arguments that can be read; empty when nothing is.
std::string findMistake(const Arguments& arguments, bool sysfsGiven) {
    if (arguments.bus && sysfsGiven) {
        return "--sysfs: not with --bus (the service on the bus reads its own counters)";
    }
    if (arguments.format == "binary" && arguments.rails == arguments.residencies) {
        return "--format binary: the bytes of one call only (give --rails or --residencies)";
    }
    return "";
}

int run(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("Shows what the power stats library returns on this machine.", "powerstats");
    app.set_version_flag("--version", "powerstats " POWERSTATS_VERSION);
    CLI::App* command = app.add_subcommand("dump", "Read the counters once and print them.");
    command
        ->add_option("--hal", arguments.hal, "Interface; the AIDL service first, when none is given")
        ->check(CLI::IsMember({"aidl", "hidl", "bus"}));
    // Without a value too; then CLI11 hands over an empty text.
    command
        ->add_option("--bus", arguments.bus, "Ask a service on a bus; on either, session first, "
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
    if (const auto exitCode = parseArguments(&app, argc, argv)) return *exitCode;
    // Not left to CLI11, which would say so too where a subcommand is misspelt.
    if (app.get_subcommands().empty()) {
        say("A subcommand is required (see powerstats --help)");
        return kUsage;
    }
    // "--hal bus" is what "--bus" was called before.
    if (arguments.hal == "bus") {
        arguments.hal.clear();
        if (!arguments.bus) arguments.bus = kAnyBus;
    }
    if (arguments.bus == "") arguments.bus = kAnyBus;
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
