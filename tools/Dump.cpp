// SPDX-License-Identifier: Apache-2.0
//
// powerstats dump: loads the library as a Java runtime would, lets it read a service, and prints
// its result.

#include <fmt/format.h>
#include <host/JavaRuntime.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "hal/NamesAndIds.h"
#include "tools/Commands.h"
#include "tools/NoEnergy.h"
#include "tools/ResultPrinter.h"
#include "tools/Service.h"
#include "tools/Snapshot.h"

namespace powerstats {

namespace {

using host::HostJniEnv;
using host::JavaBytes;
using host::LoadedLibrary;

struct DumpArguments {
    ServiceOptions service;
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

/// Says of each call that returned null why it did, with the remedy.
void explainMissing(const ServiceOptions& options, const std::vector<Call>& calls) {
    Snapshot snapshot = SnapshotReader().read();
    for (const Call& call : calls) {
        const bool rails = call.kind == Section::Kind::kRails;
        const std::string noEnergy = rails ? whyNoEnergy(options, snapshot) : "";
        std::string reason = rails ? snapshot.railsError : snapshot.entitiesError;
        if (!noEnergy.empty()) {
            say(noEnergy);
        } else if (!call.bytes && reason != kNoService) {  // said when it was looked for
            if (reason.empty()) {
                reason = (rails ? snapshot.rails.empty() : snapshot.entities.empty())
                             ? "the service has none"
                             : "the service failed, and answers again now";
            }
            say(fmt::format("{}: {}", rails ? "rails" : "power entities", reason));
        }
    }
}

/// Says which rails the library leaves out because they are not measured since boot.
void explainLeftOut() {
    std::string names;
    int64_t sinceMs = 0;
    for (const Snapshot::Rail& rail : SnapshotReader(ownService()).read().rails) {
        if (!rail.energy || rail.energy->durationMs == rail.energy->timestampMs) continue;
        sinceMs = std::max(sinceMs, rail.energy->timestampMs - rail.energy->durationMs);
        names += (names.empty() ? "" : ", ") + safeName(rail.name);
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

int dump(const DumpArguments& arguments) {
    const bool all = arguments.rails == arguments.residencies;
    if (all && arguments.format == "binary") {
        say("--format binary: the bytes of one call only (give --rails or --residencies)");
        return kUsage;
    }
    if (arguments.library.empty()) {
        say("--library: the name is empty (give the library's file)");
        return kUsage;
    }
    std::string error;
    // Unloaded at exit, when no notice that a service on the bus has died can run in it any more.
    static const auto library = LoadedLibrary::load(arguments.library, &error);
    if (library == nullptr) {
        say(error + " (build the library, or name another file with --library)");
        return kUsage;
    }
    const auto firstSample = [] { return std::chrono::nanoseconds(0); };
    const int status = openService(arguments.service, firstSample);
    // The library says itself that no service is on the bus.
    if (status != 0 && !arguments.service.bus) return status;

    std::vector<Call> calls;
    if (all || arguments.rails) calls.push_back({Section::Kind::kRails, {}});
    if (all || arguments.residencies) calls.push_back({Section::Kind::kEntities, {}});
    callLibrary(*library, &calls);

    std::string text;
    if (arguments.format == "binary") {
        const JavaBytes& bytes = calls.front().bytes;
        if (bytes) text.assign(bytes->begin(), bytes->end());
    } else if (!format(calls, arguments.format, &text)) {
        return kFailed;
    }
    if (!writeOutput(text)) return kFailed;
    explainMissing(arguments.service, calls);
    if (calls.front().kind == Section::Kind::kRails) explainLeftOut();
    const bool any = std::any_of(calls.begin(), calls.end(), [](const Call& call) {
        return call.bytes && !call.bytes->empty();
    });
    return any ? 0 : kFailed;
}

}  // namespace

Command addDump(CommandLine program) {
    const auto arguments = std::make_shared<DumpArguments>();
    CommandLine command =
        program.addSubcommand("dump", "Call the library once and print its result.");
    command.addFooter(
        "Energy is in millijoules and time in milliseconds, both since boot. A rail that was not\n"
        "measured since boot is left out: for those start powerstatsd at boot. A restart of it\n"
        "loses \"since boot\" until the next boot.\n"
        "Exit status: 0 something was collected, 1 nothing was or it could not be written,\n"
        "2 bad argument, or a library that cannot be loaded.\n"
        "Example: powerstats dump --residencies");
    addServiceOptions(command, &arguments->service);
    command.addFlag("--rails", "Energy of the rails only",
                    [arguments] { arguments->rails = true; });
    command.addFlag("--residencies", "States of the power entities only",
                    [arguments] { arguments->residencies = true; });
    command.addOption("--format", "binary: the library's own bytes",
                      choice(&arguments->format, {"table", "json", "binary"}));
    Value library = text(&arguments->library, "FILE");
    library.byDefault = "the one installed with this program";
    command.addOption("--library", "The library's file", library);
    return {command, [arguments] { return dump(*arguments); }};
}

}  // namespace powerstats
