// SPDX-License-Identifier: Apache-2.0
//
// The subcommands of powerstats.

#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace powerstats {

/// A subcommand that was added to the program's command line, and a function that runs it after the
/// arguments were parsed.
struct Command {
    CLI::App* app;
    std::function<int()> run;
};

Command addDump(CLI::App* app);
Command addMetrics(CLI::App* app);
Command addWatch(CLI::App* app);
Command addRecord(CLI::App* app);
Command addRun(CLI::App* app);
Command addCheck(CLI::App* app);

}  // namespace powerstats
