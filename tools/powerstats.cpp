// SPDX-License-Identifier: Apache-2.0
//
// powerstats: loads the library as a Java runtime would, lets it read this machine's counters
// through a power stats service in the same process, and prints what the library returned.

#include <android/binder_manager.h>
#include <fmt/format.h>
#include <host/ServiceControl.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "hal/LinuxCounters.h"
#include "hal/LinuxPowerStatsAidl.h"
#include "hal/LinuxPowerStatsHidl.h"
#include "tools/HostJavaRuntime.h"
#include "tools/ResultPrinter.h"

namespace powerstats {

namespace {

enum ExitCode { kCollected = 0, kNothingCollected = 1, kUsage = 2 };

struct Arguments {
    std::string hal = "aidl";
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

void printError(const std::string& text) {
    fmt::print(stderr, "powerstats: {}\n", text);
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

/// The interfaces that the service can be registered with.
constexpr struct {
    const char* name;
    bool (*registerService)(const std::shared_ptr<const LinuxCounters>& counters);
} kHals[] = {{"aidl", registerAidl}, {"hidl", registerHidl}};

bool registerService(const Arguments& arguments) {
    LinuxCounters::Options options;
    options.root = arguments.sysfs;
    options.warn = printError;
    const auto counters = std::make_shared<const LinuxCounters>(options);
    for (const auto& hal : kHals) {
        if (arguments.hal == hal.name && hal.registerService(counters)) return true;
    }
    printError(fmt::format("{}: the service could not be registered", arguments.hal));
    return false;
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
    printError("the library's result cannot be read (build the library and this program together)");
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
    printError(fmt::format("standard output: {}", std::strerror(errno)));
    return false;
}

int dump(const Arguments& arguments) {
    std::string error;
    const auto library = LoadedLibrary::load(arguments.library, &error);
    if (library == nullptr) {
        printError(error + " (build the library, or name another file with --library)");
        return kUsage;
    }

    // The service is in this process; whatever a bus offers is none of its business.
    host::setBusLookups(false);
    if (!registerService(arguments)) return kNothingCollected;

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
std::string findMistake(const Arguments& arguments) {
    if (arguments.format == "binary" && arguments.rails == arguments.residencies) {
        return "--format binary: the bytes of one call only (give --rails or --residencies)";
    }
    std::error_code error;
    if (!std::filesystem::is_directory(arguments.sysfs, error)) {
        return fmt::format("{}: not a folder (give the root of a sysfs tree with --sysfs)",
                           arguments.sysfs);
    }
    return "";
}

int run(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("Shows what the power stats library returns on this machine.", "powerstats");
    app.set_version_flag("--version", "powerstats " POWERSTATS_VERSION);
    CLI::App* command = app.add_subcommand("dump", "Read the counters once and print them.");
    std::vector<std::string> hals;
    for (const auto& hal : kHals) hals.emplace_back(hal.name);
    command->add_option("--hal", arguments.hal, "Interface that the library finds")
        ->check(CLI::IsMember(hals))
        ->capture_default_str();
    command->add_flag("--rails", arguments.rails, "Energy of the rails only");
    command->add_flag("--residencies", arguments.residencies, "States of the power entities only");
    command->add_option("--sysfs", arguments.sysfs, "Folder of the kernel's counters")
        ->capture_default_str();
    command->add_option("--format", arguments.format, "binary: the library's own bytes")
        ->check(CLI::IsMember({"table", "json", "binary"}))
        ->capture_default_str();
    command->add_option("--library", arguments.library, "The library's file")
        ->capture_default_str();
    try {
        app.parse(argc, argv);
        // Not left to CLI11, which would say so too where a subcommand is misspelt.
        if (app.get_subcommands().empty()) throw CLI::RequiredError("A subcommand");
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);
        printError(fmt::format("{} (see powerstats --help)", error.what()));
        return kUsage;
    }
    const std::string mistake = findMistake(arguments);
    if (!mistake.empty()) {
        printError(mistake);
        return kUsage;
    }
    return dump(arguments);
}

}  // namespace

}  // namespace powerstats

int main(int argc, char** argv) {
    try {
        return powerstats::run(argc, argv);
    } catch (const std::exception& error) {
        std::fputs("powerstats: ", stderr);
        std::fputs(error.what(), stderr);
        std::fputs("\n", stderr);
        return powerstats::kNothingCollected;
    }
}
