// SPDX-License-Identifier: Apache-2.0
//
// The part of a command line that all tools share.
//
// CommandLine.cpp alone includes the parser's header, which takes long to compile.

#pragma once

#include <cstdio>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

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
    /// As the help shows it; empty: a flag. Completion reads the values from "TEXT:{table,json}".
    std::string type;
    /// As the help shows it; empty: none.
    std::string byDefault;
    /// Further words of the help.
    std::string note;
    /// Takes the user's text, which is empty for a flag.
    /// @return why it is refused, with the remedy; empty when it was taken.
    std::function<std::string(const std::string& text)> take;
    bool mayRepeat = false;
    bool isRequired = false;
    /// Taken when the value is left out; empty: it may not be.
    std::string whenLeftOut = {};
    /// Other options of the command line, which were added before.
    std::vector<const char*> needs = {};
    std::vector<const char*> excludes = {};
};

/// A number in a range. The target's own value is the default; there is none for infinity.
Value number(double* target, const Range& range, bool isWhole = false);
/// One of some words. The target's own value is the default; there is none if it is empty.
Value choice(std::string* target, const std::vector<std::string>& words);
/// A folder that exists. The target's own value is the default.
Value folder(std::string* target);
/// Any text.
Value text(std::string* target, const char* type);
/// A flag, which becomes true when it is given.
Value flag(bool* target);

/// The command line of a program or of a subcommand.
struct CommandLine {
    const char* name;
    const char* text;
    /// The last lines of the help.
    const char* footer;
    struct Option {
        /// Such as "-r,--runs". Those without dashes are the words of a command: options after the
        /// first of them belong to it.
        const char* names;
        const char* text;
        Value value;
    };
    std::vector<Option> options = {};
    /// Runs after the arguments were parsed; empty: a program that needs a subcommand.
    /// @return the exit status.
    std::function<int()> run = {};

    void addOption(const char* names, const char* help, const Value& value) {
        options.push_back({names, help, value});
    }
};

/// The subcommands of powerstats.
CommandLine makeDump();
CommandLine makeMetrics();
CommandLine makeWatch();
CommandLine makeRecord();
CommandLine makeRun();
CommandLine makeCheck();

using MakeCommandLine = CommandLine (*)();

/// Parses the arguments of a program and runs it, or the subcommand that was given. One line tells
/// of a mistake in the arguments. An exception, as when memory runs out, ends it with one line and
/// exit code 1. Closed standard streams, broken pipes and file size limits do not end it. It may
/// open as many files as the hard limit allows, because a reader of counters keeps them open.
int runProgram(MakeCommandLine makeProgram, std::initializer_list<MakeCommandLine> subcommands,
               int argc, char** argv);

/// Undoes what runProgram() changed, in the child that is to become another program. Safe to call
/// between fork() and exec().
void restoreForExec();

}  // namespace powerstats
