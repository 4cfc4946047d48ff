// SPDX-License-Identifier: Apache-2.0
//
// powerstatsd: serves this machine's counters to other processes as a power stats service.

#include <fmt/format.h>
#include <host/BusServer.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <memory>
#include <string>

#include "hal/CounterServices.h"
#include "hal/LinuxCounters.h"
#include "tools/CommandLine.h"

namespace powerstats {

namespace {

struct Arguments {
    std::string hal;  // empty: the bus's default
    std::string bus = "system";
    std::string sysfs = "/sys";
};

int serve(const Arguments& arguments) {
    std::signal(SIGHUP, SIG_IGN);  // the end of a terminal is not the end of a daemon
    const bool session = arguments.bus == "session";
    // A single HIDL method cannot be guarded on the system bus, so energy is served over AIDL
    // there.
    const std::string hal = !arguments.hal.empty() ? arguments.hal : session ? "both" : "aidl";
    const HidlRails hidlRails = session ? HidlRails::kServed : HidlRails::kNotServed;

    std::string error;
    const auto server =
        host::BusServer::connect(session ? host::Bus::kSession : host::Bus::kSystem, &error);
    if (server == nullptr) {
        say(error);
        return kUsage;
    }
    LinuxCounters::Options options;
    options.root = arguments.sysfs;
    options.warn = say;
    const auto counters = std::make_shared<const LinuxCounters>(options);
    const bool aidl = hal != "hidl";
    const bool hidl = hal != "aidl";
    if ((aidl && !server->add(ndk::SharedRefBase::make<CountersAidl>(counters), &error)) ||
        (hidl && !server->add(android::sp<android::hardware::power::stats::V1_0::IPowerStats>(
                                  new CountersHidl(counters, hidlRails)),
                              &error))) {
        say(error);
        return kUsage;
    }
    say(fmt::format("serving {} rails and {} power entities of {} over {} on the {} bus",
                    counters->rails().size(), counters->entities().size(), arguments.sysfs,
                    aidl && hidl ? "AIDL and HIDL"
                    : aidl       ? "AIDL"
                                 : "HIDL",
                    arguments.bus));
    if (server->run(&error)) return 0;
    say(error);
    return 1;
}

int run(int argc, char** argv) {
    Arguments arguments;
    CLI::App app(
        "Serves this machine's power counters on D-Bus. Energy is in microwatt-seconds and\n"
        "counts since boot; a rail counts since boot only if the daemon started at boot.",
        "powerstatsd");
    app.set_version_flag("--version", "powerstatsd " POWERSTATS_VERSION);
    app.add_option("--hal", arguments.hal,
                   "Interfaces to serve; HIDL has no rails on the system bus")
        ->check(CLI::IsMember({"aidl", "hidl", "both"}))
        ->default_str("both on the session bus, aidl on the system bus");
    app.add_option("--bus", arguments.bus, "Bus to serve on")
        ->check(CLI::IsMember({"session", "system"}))
        ->capture_default_str();
    addSysfsOption(&app, &arguments.sysfs);
    app.footer(
        "Exit status: 0 ended by SIGTERM or SIGINT, 1 the bus went away, 2 bad argument, or a\n"
        "bus or name that cannot be had.\n"
        "Example: powerstatsd --bus session --sysfs share/sample-machine");
    if (const auto exitCode = parseArguments(&app, argc, argv)) return *exitCode;
    return serve(arguments);
}

}  // namespace

}  // namespace powerstats

int main(int argc, char** argv) {
    return powerstats::runProgram("powerstatsd", powerstats::run, argc, argv);
}
