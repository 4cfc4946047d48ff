// SPDX-License-Identifier: Apache-2.0
//
// powerstats: shows the figures of a power stats service, once or over time, and checks it.

#include <CLI/CLI.hpp>

#include "tools/CommandLine.h"
#include "tools/Commands.h"

namespace powerstats {

namespace {

int run(int argc, char** argv) {
    CLI::App app(
        "Shows the energy of rails and the times that power entities spend in their states.",
        "powerstats");
    app.set_version_flag("--version", "powerstats " POWERSTATS_VERSION);
    const Command commands[] = {addDump(&app),   addWatch(&app),   addRun(&app),
                                addRecord(&app), addMetrics(&app), addCheck(&app)};
    app.footer(
        "Exit status: that of the subcommand; 2 for a bad argument.\n"
        "Example: powerstats dump --format json --sysfs share/sample-machine");
    if (const auto exitCode = parseArguments(&app, argc, argv)) return *exitCode;
    for (const Command& command : commands) {
        if (command.app->parsed()) return command.run();
    }
    // Not left to CLI11, which would say so too where a subcommand is misspelt.
    say("A subcommand is required (see powerstats --help)");
    return kUsage;
}

}  // namespace

}  // namespace powerstats

int main(int argc, char** argv) {
    return powerstats::runProgram("powerstats", powerstats::run, argc, argv);
}
