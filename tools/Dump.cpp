// SPDX-License-Identifier: Apache-2.0
//
// powerstats dump: loads the library as a Java runtime would, lets it read a service, and prints
// its result.

#include <fmt/format.h>
#include <host/JavaRuntime.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "power/service/ServiceSource.h"
#include "power/text/Names.h"
#include "power/text/Page.h"
#include "proto/power_data_result.pb.h"
#include "tools/Commands.h"
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

/// One of the library's methods that is to be called, and the bytes that it returned.
struct LibraryCall {
    bool isRails;
    JavaBytes bytes;
};

/// Says why there is no energy, and of each call that returned null why it did, with the remedy.
void explainMissing(const std::vector<LibraryCall>& calls, const Reading& reading, bool isOwnHidl) {
    for (const LibraryCall& call : calls) {
        const Failure& failure = call.isRails ? reading.railsFailure : reading.entitiesFailure;
        if (call.isRails && (failure.kind == Failure::Kind::kNotMeasured ||
                             failure.kind == Failure::Kind::kRefused)) {
            sayWhyNoRails(reading);
            continue;
        }
        // The lack of a service was said when it was looked for.
        if (call.bytes || failure.kind == Failure::Kind::kNoService) continue;
        const bool hasNone = !call.isRails && reading.lists->entities.empty();
        say(fmt::format("{}: {}", call.isRails ? "rails" : "power entities",
                        failure.kind == Failure::Kind::kHidlOnly
                            ? "the service answered nothing over HIDL (--verbose logs why)"
                        : failure ? failure.text
                        : call.isRails && isOwnHidl
                            ? "none over HIDL, because no rail is counted since boot "
                              "(give --hal aidl)"
                        : hasNone ? "the service has none"
                                  : "the service failed, and answers again now"));
    }
}

/// Says which rails the library leaves out because they are not measured since boot.
void explainLeftOut(const Reading& reading) {
    std::string names;
    nanoseconds since{};
    for (size_t i = 0; i < reading.rails.size(); ++i) {
        const std::optional<Energy>& energy = reading.rails[i];
        if (!energy || energy->isSinceBoot()) continue;
        since = std::max(since, energy->time - energy->duration);
        names += (names.empty() ? "" : ", ") + reading.lists->rails[i].name;
    }
    if (names.empty()) return;
    say(
        fmt::format("rails left out, since they are counted from {} s after boot only: {} (start "
                    "powerstatsd at boot; after a restart of it, at the next boot)",
                    toMilliseconds(since) / 1000, names));
}

void callLibrary(const LoadedLibrary& library, std::vector<LibraryCall>* calls) {
    HostJniEnv env;
    for (LibraryCall& call : *calls) {
        call.bytes = call.isRails ? library.railEnergy(&env) : library.residencies(&env);
    }
}

/// A result of the library, and the safe names in it.
struct Result {
    Section section;
    nanoseconds time{};
    std::deque<std::string> names = {};
};

/// @return whether the bytes are a result. Otherwise one line says so.
bool parse(const LibraryCall& call, Result* result) {
    result->section =
        call.isRails ? Section{"rails", "rail", {{"timestamp_ms"}, {"energy_mj", "energy (mJ)"}}}
                     : Section{"entities",
                               "entity and state",
                               {{"timestamp_ms"}, {kStates}},
                               {{"time_ms", "time (ms)"}, {"entries", "entries"}}};
    PowerDataResult message;
    if (call.bytes &&
        !message.ParseFromArray(call.bytes->data(), static_cast<int>(call.bytes->size()))) {
        say("the library's result cannot be read (build the library and this program together)");
        return false;
    }
    const auto safe = [&](const std::string& name) {
        return std::string_view(result->names.emplace_back(safeName(name, SIZE_MAX)));
    };
    for (const auto& element : message.keyed_power_data()) {
        Row& row = result->section.rows.emplace_back();
        row.name = safe(element.id().name());
        row.cells = {element.id().timestamp_ms()};
        if (call.isRails) row.cells.emplace_back(element.data().scalar().value());
        for (const auto& state : element.data().residency()) {
            row.states.push_back(
                {safe(state.name()),
                 {},
                 {},
                 {state.total_time_in_state_ms(), state.total_state_entry_count()}});
        }
        result->time = fromMilliseconds(element.id().timestamp_ms());
    }
    return true;
}

bool format(const std::vector<LibraryCall>& calls, const std::string& form, std::string* text) {
    Json::Object json;
    for (const LibraryCall& call : calls) {
        Result result{};
        if (!parse(call, &result)) return false;
        json.emplace_back(result.section.key, call.bytes ? toJson(result.section) : Json());
        const char* const title = call.isRails ? "Rails" : "Power entities";
        if (form == "json") continue;
        if (!text->empty()) *text += '\n';
        if (!call.bytes) {
            *text += fmt::format("{}: not available\n", title);
        } else if (result.section.rows.empty()) {
            *text += fmt::format("{}: none reported\n", title);
        } else {
            *text += fmt::format("{} at {}\n{}", title, afterBoot(result.time),
                                 formatTable(result.section));
        }
    }
    if (form == "json") *text = Json(json).print(2) + '\n';
    return true;
}

/// What a client of the same service sees, to explain the library's answers.
Reading readDirectly(Source* own) {
    return own != nullptr ? own->read() : ServiceSource().read();
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

    std::vector<LibraryCall> calls;
    if (all || arguments.rails) calls.push_back({true, {}});
    if (all || arguments.residencies) calls.push_back({false, {}});
    callLibrary(*library, &calls);

    std::string text;
    if (arguments.format == "binary") {
        const JavaBytes& bytes = calls.front().bytes;
        if (bytes) text.assign(bytes->begin(), bytes->end());
    } else if (!format(calls, arguments.format, &text)) {
        return kFailed;
    }
    if (!writeOutput(text)) return kFailed;
    const Reading reading = readDirectly(own.get());
    explainMissing(calls, reading, own != nullptr && arguments.service.hal == "hidl");
    if (calls.front().isRails) explainLeftOut(reading);
    const bool any = std::any_of(calls.begin(), calls.end(), [](const LibraryCall& call) {
        return call.bytes && !call.bytes->empty();
    });
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
        "Exit status: 0 something was collected, 1 nothing was or it could not be written,\n"
        "2 bad argument, or a library that cannot be loaded.\n"
        "Example: powerstats dump --residencies"};
    addServiceOptions(&command, &arguments->service);
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
