// SPDX-License-Identifier: Apache-2.0
//
// The part of a command line that all tools share.
//
// CommandLine.cpp alone includes the parser's header, which takes long to compile.

#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace powerstats {

/// Exit status of a program that cannot do as its arguments ask.
constexpr int kUsage = 2;
/// Exit status of a program that could not read anything, or not write it.
constexpr int kFailed = 1;

/// Prints one line on standard error, after the program's name. A line that cannot be written is
/// lost.
void say(const std::string& text);

/// The same, and returns the exit status that goes with the line.
int fail(int status, const std::string& text);

/// Writes to standard output, or a file, at once.
/// @param name [in] of the file, for messages.
/// @return whether it was written. If not, one line says why, unless nobody reads on.
bool writeOutput(const std::string& text, std::FILE* file = stdout,
                 const std::string& name = "standard output");

/// The numbers that an option may have, with both ends.
struct Range {
    double least;
    double most;
};

/// Parses a decimal number. Neither infinity nor NaN is one.
/// @return std::nullopt when the text is something else, or the number is out of the range.
std::optional<double> parseNumber(const std::string& text, const Range& range);

/// The value of an option.
struct Value {
    /// As the help shows it. Completion reads the values from "TEXT:{table,json}".
    std::string type;
    /// As the help shows it; empty: none.
    std::string byDefault;
    /// Further words of the help.
    std::string note;
    /// Takes the user's text.
    /// @return why it is refused, with the remedy; empty when it was taken.
    std::function<std::string(const std::string& text)> take;
    bool mayRepeat = false;
    bool isRequired = false;
    /// Taken when the value is left out; empty: it may not be.
    std::string whenLeftOut = {};
    /// Other options of the command line, which were added before.
    std::string needs = {};
    std::string excludes = {};
};

/// A number in a range, a whole one for an integer. The target's own value is the default; there is
/// none for an empty one.
/// @param Target [in] double, int or an optional one of them.
template <typename Target>
Value number(Target* target, const Range& range);
/// One of some words. The target's own value is the default; there is none if it is empty.
Value choice(std::string* target, const std::vector<std::string>& words);
/// A folder that exists. The target's own value is the default.
Value folder(std::string* target);
/// Any text.
Value text(std::string* target, const char* type);

/// The command line of a program or of a subcommand. A copy is the same command line.
/// That of a subcommand is valid as long as that of its program.
class CommandLine {
  public:
    /// @param version [in] as `--version` prints it, after the name.
    /// @param footer [in] the last lines of the help.
    CommandLine(const char* name, const char* version, const char* text, const char* footer);

    CommandLine addSubcommand(const char* name, const char* text, const char* footer);
    void addOption(const char* names, const char* text, const Value& value);
    /// @param target [out] becomes true when the flag is given.
    /// @param needs [in] as of Value.
    void addFlag(const char* names, const char* text, bool* target, const char* needs = "");
    /// Adds the words that are no options: a command and its arguments. Options after the first of
    /// them belong to the command.
    void addCommand(const char* text, std::vector<std::string>* words);
    /// Has a function look at the options together, after each of them was taken.
    /// @param check [in] returns why they are refused; empty when they are not.
    void checkAtEnd(std::function<std::string()> check);

    /// Parses the arguments of a program. Prints one line about a mistake in them.
    /// @return how the program is to end now, or nothing when it is to go on.
    std::optional<int> parse(int argc, char** argv);

    /// Whether this subcommand was given.
    bool isGiven() const;
    bool isGiven(const char* option) const;

  private:
    explicit CommandLine(std::shared_ptr<CLI::App> app) : mApp(std::move(app)) {}

    std::shared_ptr<CLI::App> mApp;
};

/// Runs a program. An exception, as when memory runs out, ends it with one line and exit code 1.
/// Closed standard streams, broken pipes and file size limits do not end it. It may open as many
/// files as the hard limit allows, because a reader of counters keeps them open.
int runProgram(const char* name, int (*run)(int argc, char** argv), int argc, char** argv);

/// Undoes what runProgram() changed, in the child that is to become another program. Safe to call
/// between fork() and exec().
void restoreForExec();

}  // namespace powerstats
