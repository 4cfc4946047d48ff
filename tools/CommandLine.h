// SPDX-License-Identifier: Apache-2.0
//
// The part of a command line that all tools share.
//
// CommandLine.cpp alone includes the parser's header, which takes long to compile.

#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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
};

/// A number in a range. The target's own value is the default; there is none for an empty one.
Value number(double* target, const Range& range);
Value number(std::optional<double>* target, const Range& range);
Value wholeNumber(int* target, const Range& range);
Value wholeNumber(std::optional<int>* target, const Range& range);
/// One of some words, which a function takes; see Value::take.
Value choice(const std::vector<std::string>& words, std::function<void(const std::string&)> take);
/// The target's own value is the default; there is none if it is empty.
Value choice(std::string* target, const std::vector<std::string>& words);
/// A folder that exists. The target's own value is the default.
Value folder(std::string* target);
/// Any text.
Value text(std::string* target, const char* type);
/// Any text, once for each time that the option is given.
Value texts(std::vector<std::string>* target, const char* type);

/// An option that was added to a command line. Each function returns this option.
class Option {
  public:
    explicit Option(CLI::Option* option) : mOption(option) {}

    Option require();
    /// May be given several times.
    Option repeat();
    /// The value may be left out; then an empty text is taken.
    Option letValueLack();
    Option needs(const Option& other);
    Option excludes(const Option& other);

    bool isGiven() const;

  private:
    CLI::Option* mOption;
};

/// The command line of a program or of a subcommand. A copy is the same command line.
class CommandLine {
  public:
    /// @param version [in] as `--version` prints it, after the name.
    CommandLine(const char* name, const char* version, const char* text);

    CommandLine addSubcommand(const char* name, const char* text);
    Option addOption(const char* names, const char* text, const Value& value);
    Option addFlag(const char* names, const char* text, std::function<void()> set);
    /// Adds the words that are no options: a command and its arguments. Options after the first of
    /// them belong to the command.
    void addCommand(const char* text, std::vector<std::string>* words);
    /// Adds the last lines of the help.
    void addFooter(const char* text);
    /// Has a function look at the options together, after each of them was taken.
    /// @param check [in] returns why they are refused; empty when they are not.
    void checkAtEnd(std::function<std::string()> check);

    /// Parses the arguments of a program. Prints one line about a mistake in them.
    /// @return how the program is to end now, or nothing when it is to go on.
    std::optional<int> parse(int argc, char** argv);

    /// Whether this subcommand was given.
    bool isGiven() const;

  private:
    explicit CommandLine(std::shared_ptr<CLI::App> app) : mApp(std::move(app)) {}

    std::shared_ptr<CLI::App> mApp;
};

/// The same as CommandLine::parse(), for a parser that the caller has made.
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
