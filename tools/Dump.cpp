// SPDX-License-Identifier: Apache-2.0
//
// powerstats dump: loads the library as a Java runtime would, lets it read a service, and prints
// its result.

#include <fmt/format.h>
#include <host/JavaRuntime.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "power/service/ServiceSource.h"
#include "power/text/Names.h"
#include "power/text/Page.h"
#include "proto/power_data_result.pb.h"
#include "tools/CommandLine.h"
#include "tools/SourceOptions.h"

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

using PowerDataResult =
    com::tavrel::android::ferrolith::poweranomalyservice::proto::PowerDataResult;

/// One of the library's methods that was called, and what it returned.
struct LibraryCall {
    bool isRails;
    JavaBytes bytes;
    PowerDataResult result = {};
};

/// Says why there is no energy, and of each call that returned null why it did, with the remedy.
void explainMissing(const std::vector<LibraryCall>& calls, const Reading& reading, bool isOwnHidl) {
    using Kind = Failure::Kind;
    for (const auto& [isRails, bytes, result] : calls) {
        const auto& [kind, text] = isRails ? reading.railsFailure : reading.entitiesFailure;
        if (isRails && (kind == Kind::kNotMeasured || kind == Kind::kRefused)) {
            sayWhyNoRails(reading);
            continue;
        }
        // The lack of a service was said when it was looked for.
        if (bytes || kind == Kind::kNoService) continue;
        const bool hasNone = !isRails && reading.lists->entities.empty();
        say((isRails ? "rails: " : "power entities: ") +
            (kind == Kind::kHidlOnly ? "the service answered nothing over HIDL (--verbose logs why)"
             : kind != Kind::kNone   ? text
             : isRails && isOwnHidl
                 ? "none over HIDL, because no rail is counted since boot (give --hal aidl)"
             : hasNone ? "the service has none"
                       : "the service failed, and answers again now"));
    }
}

/// Says which rails the library leaves out because they are not measured since boot.
void explainLeftOut(const Reading& reading) {
    std::vector<std::string> names;
    nanoseconds since{};
    for (size_t i = 0; i < reading.rails.size(); ++i) {
        const std::optional<Energy>& energy = reading.rails[i];
        if (!energy || energy->isSinceBoot()) continue;
        since = std::max(since, energy->time - energy->duration);
        names.push_back(reading.lists->rails[i].name);
    }
    if (names.empty()) return;
    say(
        fmt::format("rails left out, since they are counted from {} s after boot only: {} (start "
                    "powerstatsd at boot; after a restart of it, at the next boot)",
                    toMilliseconds(since) / 1000, fmt::join(names, ", ")));
}

/// The elements of a result, as docs/formats.md has them.
Json rowsOf(const LibraryCall& call) {
    Json rows = Json::array();
    for (const auto& element : call.result.keyed_power_data()) {
        Json& row = rows.emplace_back(Json{{"name", safeName(element.id().name(), SIZE_MAX)},
                                           {"timestamp_ms", element.id().timestamp_ms()}});
        if (call.isRails) {
            row["energy_mj"] = element.data().scalar().value();
            continue;
        }
        Json& states = row["states"] = Json::array();
        for (const auto& state : element.data().residency()) {
            states.push_back({{"name", safeName(state.name(), SIZE_MAX)},
                              {"time_ms", state.total_time_in_state_ms()},
                              {"entries", state.total_state_entry_count()}});
        }
    }
    return rows;
}

/// @param recorded [in] the time of a recording that is played; 0: none is.
std::string format(const std::vector<LibraryCall>& calls, const std::string& form,
                   nanoseconds recorded) {
    const auto& bytes = calls.front().bytes;
    if (form == "binary") return bytes ? std::string(bytes->begin(), bytes->end()) : "";
    Json json;
    std::string text;
    for (const LibraryCall& call : calls) {
        const Json rows = rowsOf(call);
        json[call.isRails ? "rails" : "entities"] = call.bytes ? rows : Json();
        text += std::string(text.empty() ? "" : "\n") + (call.isRails ? "Rails" : "Power entities");
        if (!call.bytes) {
            text += ": not available\n";
        } else if (rows.empty()) {
            text += ": none reported\n";
        } else {
            const nanoseconds called = fromMilliseconds(rows.back()["timestamp_ms"]);
            text += fmt::format(
                " at {}\n{}", afterBoot(recorded > nanoseconds::zero() ? recorded : called),
                call.isRails
                    ? formatTable("rail", {{"energy_mj", "energy (mJ)"}}, rows)
                    : formatTable("entity and state",
                                  {{"time_ms", "time (ms)"}, {"entries", "entries"}}, rows));
        }
    }
    return form == "json" ? printJson(json, 2) + '\n' : text;
}

int dump(DumpArguments arguments) {
    const bool all = arguments.rails == arguments.residencies;
    if (all && arguments.format == "binary") {
        return fail(kUsage,
                    "--format binary: the bytes of one call only (give --rails or --residencies)");
    }
    if (arguments.library.empty()) {
        return fail(kUsage, "--library: the name is empty (give the library's file)");
    }
    std::string error;
    // Unloaded at exit, when no notice that a service on the bus has died can run in it any more.
    static const auto library = LoadedLibrary::load(arguments.library, &error);
    if (library == nullptr) {
        return fail(kUsage, error + " (build the library, or name another file with --library)");
    }
    std::shared_ptr<Source> own;
    const int status = openService(&arguments.service, kAtFirstSample, &own);
    // The library says itself that no service is on the bus.
    if (status != 0 && arguments.service.source.bus.empty()) return status;

    HostJniEnv env;
    std::vector<LibraryCall> calls;
    if (all || arguments.rails) calls.push_back({true, library->railEnergy(&env)});
    if (all || arguments.residencies) calls.push_back({false, library->residencies(&env)});
    bool any = false, isComplete = true;
    for (auto& [isRails, bytes, result] : calls) {
        any |= bytes && !bytes->empty();
        isComplete &= bytes.has_value();
        if (bytes && arguments.format != "binary" &&
            !result.ParseFromArray(bytes->data(), static_cast<int>(bytes->size()))) {
            return fail(kFailed,
                        "the library's result cannot be read (build the library and this "
                        "program together)");
        }
    }
    const bool isPlayed = !arguments.service.source.replay.empty();
    const nanoseconds recorded = isPlayed ? own->read(kNothing, kNothing).time : nanoseconds();
    if (!writeOutput(format(calls, arguments.format, recorded))) return kFailed;
    if (status == 0 && !isComplete && sayUnanswered()) return kFailed;
    // What a client of the same service sees, to explain the library's answers.
    const Reading reading = own != nullptr ? own->read() : ServiceSource().read();
    explainMissing(calls, reading, own != nullptr && arguments.service.hal == "hidl");
    if (calls.front().isRails) explainLeftOut(reading);
    return any ? 0 : kFailed;
}

}  // namespace

CommandLine makeDump() {
    const auto arguments = std::make_shared<DumpArguments>();
    CommandLine command = {
        "dump", "Call the library once and print its result.",
        "Energy is in millijoules and time in milliseconds, both since boot. A rail that was not\n"
        "measured since boot is left out: for those start powerstatsd at boot. A restart of it\n"
        "loses \"since boot\" until the next boot.\n"
        "Exit status: 0 something was collected, 1 nothing was, a bus or its service did not\n"
        "answer in time, or the result could not be written, 2 bad argument, or a library that\n"
        "cannot be loaded.\n"
        "Example: powerstats dump --residencies"};
    addServiceOptions(&command, &arguments->service);
    addTimeout(&command, &arguments->service.source);
    command.addOption("--rails", "Energy of the rails only", flag(&arguments->rails));
    command.addOption("--residencies", "States of the power entities only",
                      flag(&arguments->residencies));
    command.addOption("--format", "binary: the library's own bytes",
                      choice(&arguments->format, {"table", "json", "binary"}));
    Value library = text(&arguments->library, "FILE");
    library.byDefault = "the one installed with this program";
    command.addOption("--library", "The library's file", library);
    command.run = [arguments] { return dump(*arguments); };
    return command;
}

}  // namespace powerstats
