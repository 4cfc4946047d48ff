// SPDX-License-Identifier: Apache-2.0
//
// powerstats: shows the figures of a power stats service, once or over time, and checks it.

#include "tools/CommandLine.h"

int main(int argc, char** argv) {
    using namespace powerstats;
    const auto program = [] {
        return CommandLine{
            "powerstats",
            "Shows the energy of rails and the times that power entities spend in their states.",
            "Exit status: that of the subcommand; 2 for a bad argument.\n"
            "Example: powerstats dump --format json"};
    };
    return runProgram(program, {makeDump, makeWatch, makeRun, makeRecord, makeMetrics, makeCheck},
                      argc, argv);
}
