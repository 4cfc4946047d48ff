// SPDX-License-Identifier: Apache-2.0
//
// powerstats: shows the figures of a power stats service, once or over time, and checks it.

#include "tools/CommandLine.h"
#include "tools/Commands.h"

namespace powerstats {

namespace {

int run(int argc, char** argv) {
    CommandLine program(
        "powerstats", POWERSTATS_VERSION,
        "Shows the energy of rails and the times that power entities spend in their states.",
        "Exit status: that of the subcommand; 2 for a bad argument.\n"
        "Example: powerstats dump --format json");
    const Command commands[] = {addDump(program),   addWatch(program),   addRun(program),
                                addRecord(program), addMetrics(program), addCheck(program)};
    if (const auto exitCode = program.parse(argc, argv)) return *exitCode;
    for (const Command& command : commands) {
        if (command.line.isGiven()) return command.run();
    }
    // Not left to CLI11, which would say so too where a subcommand is misspelt.
    return fail(kUsage, "A subcommand is required (see powerstats --help)");
}

}  // namespace

}  // namespace powerstats

int main(int argc, char** argv) {
    return powerstats::runProgram("powerstats", powerstats::run, argc, argv);
}
