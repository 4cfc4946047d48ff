// SPDX-License-Identifier: Apache-2.0
//
// powerstatsd: serves this machine's counters to other processes as a power stats service.

#include <fmt/format.h>
#include <host/BusServer.h>

#include <csignal>
#include <memory>
#include <string>

#include "power/service/Services.h"
#include "tools/CommandLine.h"
#include "tools/SourceOptions.h"

namespace powerstats {

namespace {

struct Arguments {
    std::string hal;  // empty: the bus's default
    std::string bus = "system";
    SourceOptions source;
};

int serve(Arguments arguments) {
    std::signal(SIGHUP, SIG_IGN);  // the end of a terminal is not the end of a daemon
    const bool isSession = arguments.bus == "session";
    // A single HIDL method cannot be guarded on the system bus, so energy is served over AIDL
    // there.
    const HidlRails hidlRails = isSession ? HidlRails::kServed : HidlRails::kNotServed;
    const bool isAidl = arguments.hal != "hidl";
    const bool isHidl = arguments.hal.empty() ? isSession : arguments.hal != "aidl";

    std::string error;
    const auto server =
        host::BusServer::connect(isSession ? host::Bus::kSession : host::Bus::kSystem, &error);
    if (server == nullptr) return fail(kUsage, error);
    int status = 0;
    const std::shared_ptr<Source> source = openSource(&arguments.source, {}, &status);
    if (source == nullptr) return status;
    const Reading reading = source->read();
    if ((isAidl && !server->add(serveAidl(source), &error)) ||
        (isHidl && !server->add(serveHidl(source, hidlRails), &error))) {
        return fail(kUsage, error);
    }
    const auto& [hal, bus, counters] = arguments;
    say(fmt::format("serving {} rails and {} power entities of {} over {} on the {} bus",
                    reading.lists->rails.size(), reading.lists->entities.size(),
                    counters.replay.empty() ? counters.sysfs : counters.replay,
                    !isHidl  ? "AIDL"
                    : isAidl ? "AIDL and HIDL"
                             : "HIDL",
                    bus));
    sayWhyNoRails(reading);
    if (server->run(&error)) return 0;
    return fail(kFailed, error);
}

CommandLine makeDaemon() {
    const auto arguments = std::make_shared<Arguments>();
    CommandLine program = {
        "powerstatsd",
        "Serves this machine's power counters, or a recording's, on D-Bus. Energy is in\n"
        "microwatt-seconds and counts since boot; a rail of this machine counts since boot only "
        "if\n"
        "the daemon started at boot.",
        "Exit status: 0 ended by SIGTERM or SIGINT, 1 the bus went away, 2 bad argument, or a\n"
        "bus, name or recording that cannot be had.\n"
        "Example: powerstatsd --bus session"};
    Value hal = choice(&arguments->hal, {"aidl", "hidl", "both"});
    hal.byDefault = "both on the session bus, aidl on the system bus";
    program.addOption("--hal", "Interfaces to serve; HIDL has no rails on the system bus", hal);
    program.addOption("--bus", "Bus to serve on", choice(&arguments->bus, {"session", "system"}));
    addCounterOptions(&program, &arguments->source);
    program.run = [arguments] { return serve(*arguments); };
    return program;
}

}  // namespace

}  // namespace powerstats

int main(int argc, char** argv) {
    return powerstats::runProgram(powerstats::makeDaemon, {}, argc, argv);
}
