// SPDX-License-Identifier: Apache-2.0

#include "tools/CommandLine.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <utility>

#include "power/linux/Sysfs.h"

namespace powerstats {

namespace {

/// Opens /dev/null in place of standard streams that are closed, or the next file or connection
/// would get their numbers, and lines would be written into it. Using such a stream still fails.
void occupyStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) >= 0) continue;
        const int opened = open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        if (opened >= 0 && opened != stream) close(opened);
    }
}

const char* gProgram = "";
const char* gPath = "";
/// As they were when the program started.
rlimit gOpenFiles{};
sighandler_t gPipeAction = SIG_DFL;
sighandler_t gFileSizeAction = SIG_DFL;

/// Has a write that cannot succeed fail, as other writes do, instead of ending the program.
void ignoreSignals() {
    gPipeAction = signal(SIGPIPE, SIG_IGN);
    gFileSizeAction = signal(SIGXFSZ, SIG_IGN);
}

using Words = std::vector<std::string>;

/// Says in words of its own what the parser says badly.
std::string describe(const CLI::ParseError& error, const CLI::App& app) {
    const std::string text = error.what();
    const auto kind = static_cast<CLI::ExitCodes>(error.get_exit_code());
    if (kind == CLI::ExitCodes::ExtrasError) {
        // The first one is the mistake; the others may be its values.
        return "unknown argument: " + app.remaining(true).front();
    }
    if (kind == CLI::ExitCodes::ArgumentMismatch) {
        return text.substr(0, text.find(':')) + (text.find("missing") != std::string::npos
                                                     ? ": its value is missing"
                                                     : ": given more than once");
    }
    return text;
}

/// An empty text would leave a gap in a sentence.
std::string quoted(const std::string& text) {
    return text.empty() ? "\"\"" : text;
}

Value numberValue(const Range& range, bool isWhole, const std::function<void(double)>& set,
                  const std::string& byDefault = {}) {
    const std::string span = fmt::format("{} to {}", range.least, range.most);
    const auto take = [=](const std::string& text) {
        const std::optional<double> number = parseNumber(text, range);
        if (!number || (isWhole && *number != std::floor(*number))) {
            return fmt::format("{} is not a {} from {}", quoted(text),
                               isWhole ? "whole number" : "number", span);
        }
        set(*number);
        return std::string();
    };
    return {"NUMBER", byDefault, span, take};
}

}  // namespace

void say(const std::string& text) {
    // A line that cannot be written is lost. Nothing else may come of it.
    const std::string line = gProgram + (": " + text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

bool writeOutput(const std::string& text) {
    const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size();
    if (written && std::fflush(stdout) == 0) return true;
    if (errno != EPIPE) say(fmt::format("standard output: {}", std::strerror(errno)));
    return false;
}

std::string programPath() {
    return gPath;
}

void restoreForExec() {
    signal(SIGPIPE, gPipeAction);
    signal(SIGXFSZ, gFileSizeAction);
    setrlimit(RLIMIT_NOFILE, &gOpenFiles);
}

std::optional<double> parseNumber(const std::string& text, const Range& range) {
    double number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const bool isInRange = number >= range.least && number <= range.most;  // NaN is not
    if (error != std::errc() || rest != end || !isInRange) return std::nullopt;
    return number;
}

Value number(double* target, const Range& range) {
    return numberValue(
        range, false, [target](double number) { *target = number; }, fmt::to_string(*target));
}

Value number(std::optional<double>* target, const Range& range) {
    return numberValue(range, false, [target](double number) { *target = number; });
}

Value wholeNumber(int* target, const Range& range) {
    return numberValue(
        range, true, [target](double number) { *target = static_cast<int>(number); },
        fmt::to_string(*target));
}

Value wholeNumber(std::optional<int>* target, const Range& range) {
    return numberValue(range, true,
                       [target](double number) { *target = static_cast<int>(number); });
}

Value choice(const std::vector<std::string>& words, std::function<void(const std::string&)> take) {
    const auto check = [words, take = std::move(take)](const std::string& text) {
        if (std::find(words.begin(), words.end(), text) == words.end()) {
            return fmt::format("{} is not one of {}", quoted(text), fmt::join(words, ", "));
        }
        take(text);
        return std::string();
    };
    return {fmt::format("TEXT:{{{}}}", fmt::join(words, ",")), "", "", check};
}

Value choice(std::string* target, const std::vector<std::string>& words) {
    Value value = choice(words, [target](const std::string& word) { *target = word; });
    value.byDefault = *target;
    return value;
}

Value folder(std::string* target) {
    const auto take = [target](const std::string& path) {
        std::error_code error;
        if (!std::filesystem::is_directory(path, error)) {
            return path + ": not a folder (give the root of a sysfs tree)";
        }
        *target = path;
        return std::string();
    };
    return {"TEXT:DIR", *target, "", take};
}

Value text(std::string* target, const char* type) {
    return {type, "", "", [target](const std::string& text) {
                *target = text;
                return std::string();
            }};
}

Value texts(std::vector<std::string>* target, const char* type) {
    return {type, "", "", [target](const std::string& text) {
                target->push_back(text);
                return std::string();
            }};
}

Option Option::require() {
    mOption->required();
    return *this;
}

Option Option::repeat() {
    mOption->take_all();
    return *this;
}

Option Option::letValueLack() {
    mOption->expected(0, 1);
    return *this;
}

Option Option::needs(const Option& other) {
    mOption->needs(other.mOption);
    return *this;
}

Option Option::excludes(const Option& other) {
    mOption->excludes(other.mOption);
    return *this;
}

bool Option::isGiven() const {
    return mOption->count() != 0;
}

CommandLine::CommandLine(const char* name, const char* version, const char* text)
    : mApp(std::make_shared<CLI::App>(text, name)) {
    mApp->set_version_flag("--version", fmt::format("{} {}", name, version));
}

CommandLine CommandLine::addSubcommand(const char* name, const char* text) {
    // The program's parser owns it.
    return CommandLine(std::shared_ptr<CLI::App>(mApp, mApp->add_subcommand(name, text)));
}

Option CommandLine::addOption(const char* names, const char* text, const Value& value) {
    const std::string help = value.note.empty() ? text : fmt::format("{} ({})", text, value.note);
    // The parser does not check the empty text that stands for a value that may lack.
    const auto takeNone = [take = value.take](const Words& words) {
        return words != Words{""} || take("").empty();
    };
    CLI::Option* const option = mApp->add_option(names, takeNone, help);
    option->expected(1)->check(value.take)->type_name(value.type)->default_str(value.byDefault);
    return Option(option);
}

Option CommandLine::addFlag(const char* names, const char* text, std::function<void()> set) {
    return Option(mApp->add_flag_callback(names, std::move(set), text));
}

void CommandLine::addCommand(const char* text, std::vector<std::string>* words) {
    const auto take = [words](const Words& given) {
        *words = given;
        return true;
    };
    mApp->add_option("COMMAND", take, text)
        ->expected(1, CLI::detail::expected_max_vector_size)
        ->allow_extra_args()
        ->type_name("TEXT")
        ->required();
    mApp->positionals_at_end();
}

void CommandLine::addFooter(const char* text) {
    mApp->footer(text);
}

void CommandLine::checkAtEnd(std::function<std::string()> check) {
    mApp->final_callback([check = std::move(check)] {
        const std::string reason = check();
        if (!reason.empty()) throw CLI::ValidationError(reason);
    });
}

bool CommandLine::isGiven() const {
    return mApp->parsed();
}

std::optional<int> CommandLine::parse(int argc, char** argv) {
    return parseArguments(mApp.get(), argc, argv);
}

std::optional<int> parseArguments(CLI::App* app, int argc, char** argv) {
    try {
        app->parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            app->exit(error);
            if (std::cout.flush()) return 0;
            say("standard output cannot be written");
            return 1;
        }
        std::string program = app->get_name();
        for (const CLI::App* subcommand : app->get_subcommands()) {
            program += " " + subcommand->get_name();
        }
        say(fmt::format("{} (see {} --help)", describe(error, *app), program));
        return kUsage;
    }
    return std::nullopt;
}

int runProgram(const char* name, int (*run)(int argc, char** argv), int argc, char** argv) {
    gProgram = name;
    if (argc > 0) gPath = argv[0];
    getrlimit(RLIMIT_NOFILE, &gOpenFiles);
    occupyStandardStreams();
    ignoreSignals();
    raiseOpenFileLimit();
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        // Without an allocation, since memory may have run out.
        for (const char* part : {name, ": ", error.what(), "\n"}) std::fputs(part, stderr);
        return 1;
    }
}

}  // namespace powerstats
