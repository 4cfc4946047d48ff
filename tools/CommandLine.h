// SPDX-License-Identifier: Apache-2.0
//
// The part of a command line that all tools share.

#pragma once

#include <optional>
#include <string>

// Declared here, because compiling the whole parser takes long.
namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace powerstats {

/// Exit status of a program that cannot do as its arguments ask.
constexpr int kUsage = 2;
/// Exit status of a program that could not read anything, or not write it.
constexpr int kFailed = 1;

/// Prints one line on standard error, after the program's name. A line that cannot be written is
/// lost.
void say(const std::string& text);

/// Writes to standard output at once.
/// @return whether it was written. If not, one line says why, unless nobody reads on.
bool writeOutput(const std::string& text);

/// Adds `--sysfs DIR`, which must be a folder.
CLI::Option* addSysfsOption(CLI::App* app, std::string* folder);

/// Parses the arguments. Prints one line about a mistake in them.
/// @return how the program is to end now, or nothing when it is to go on.
std::optional<int> parseArguments(CLI::App* app, int argc, char** argv);

/// The program as its user typed it, for remedies.
std::string programPath();

/// Runs a program. An exception, as when memory runs out, ends it with one line and exit code 1.
/// Closed standard streams, broken pipes and file size limits do not end it. It may open as many
/// files as the hard limit allows, because a reader of counters keeps them open.
int runProgram(const char* name, int (*run)(int argc, char** argv), int argc, char** argv);

/// Undoes what runProgram() changed, in the child that is to become another program. Safe to call
/// between fork() and exec().
void restoreForExec();

}  // namespace powerstats
