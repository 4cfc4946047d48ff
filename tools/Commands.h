// SPDX-License-Identifier: Apache-2.0
//
// The subcommands of powerstats.

#pragma once

#include <functional>

#include "tools/CommandLine.h"

namespace powerstats {

/// A subcommand that was added to the program's command line, and a function that runs it after the
/// arguments were parsed.
struct Command {
    CommandLine line;
    std::function<int()> run;
};

Command addDump(CommandLine program);
Command addMetrics(CommandLine program);
Command addWatch(CommandLine program);
Command addRecord(CommandLine program);
Command addRun(CommandLine program);
Command addCheck(CommandLine program);

}  // namespace powerstats
