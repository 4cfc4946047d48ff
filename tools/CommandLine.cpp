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
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>

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

const char* gProgram = "powerstats";
/// As they were when the program started.
rlimit gOpenFiles{};
sighandler_t gPipeAction = SIG_DFL;
sighandler_t gFileSizeAction = SIG_DFL;

using Words = std::vector<std::string>;

/// Says in words of its own what the parser says badly.
std::string describe(const CLI::ParseError& error, const CLI::App& app) {
    std::string text = error.what();
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

}  // namespace

void say(const std::string& text) {
    // A line that cannot be written is lost. Nothing else may come of it.
    const std::string line = gProgram + (": " + text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
}

int fail(int status, const std::string& text) {
    say(text);
    return status;
}

bool writeOutput(const std::string& text, std::FILE* file, const std::string& name) {
    const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
    if (written && std::fflush(file) == 0) return true;
    if (errno != EPIPE || file != stdout) say(fmt::format("{}: {}", name, std::strerror(errno)));
    return false;
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

Value number(double* target, const Range& range, bool isWhole) {
    const std::string span = fmt::format("{} to {}", range.least, range.most);
    const auto take = [=](const std::string& text) {
        const std::optional<double> number = parseNumber(text, range);
        if (!number || (isWhole && *number != std::floor(*number))) {
            return fmt::format("{} is not a {} from {}", quoted(text),
                               isWhole ? "whole number" : "number", span);
        }
        *target = *number;
        return std::string();
    };
    return {"NUMBER", std::isinf(*target) ? "" : fmt::to_string(*target), span, take};
}

Value choice(std::string* target, const std::vector<std::string>& words) {
    const auto take = [=](const std::string& text) {
        *target = text;
        if (std::find(words.begin(), words.end(), text) != words.end()) return std::string();
        return fmt::format("{} is not one of {}", quoted(text), fmt::join(words, ", "));
    };
    return {fmt::format("TEXT:{{{}}}", fmt::join(words, ",")), *target, "", take};
}

Value folder(std::string* target) {
    const auto take = [target](const std::string& path) -> std::string {
        std::error_code error;
        *target = path;
        if (std::filesystem::is_directory(path, error)) return "";
        return path + ": not a folder (give the root of a sysfs tree)";
    };
    return {"TEXT:DIR", *target, "", take};
}

Value text(std::string* target, const char* type) {
    const auto take = [target](const std::string& text) {
        *target = text;
        return "";
    };
    return {type, "", "", take};
}

Value flag(bool* target) {
    const auto take = [target](const std::string& /*text*/) {
        *target = true;
        return "";
    };
    return {"", "", "", take};
}

namespace {

/// Hands an option to the parser.
void declare(const CommandLine::Option& option, CLI::App* app) {
    const Value& value = option.value;
    // The parser does not check the empty text that stands for a value that is left out.
    const auto takeNone = [value](const Words& words) {
        return words != Words{""} || value.take(value.whenLeftOut).empty();
    };
    CLI::Option* declared = nullptr;
    if (value.type.empty()) {
        declared = app->add_flag_callback(
            option.names, [take = value.take] { take(""); }, option.text);
    } else {
        declared = app->add_option(
            option.names, takeNone,
            value.note.empty() ? option.text : fmt::format("{} ({})", option.text, value.note));
        declared->expected(value.whenLeftOut.empty() ? 1 : 0, 1)->check(value.take);
        declared->type_name(value.type)->default_str(value.byDefault)->required(value.isRequired);
    }
    if (value.mayRepeat) declared->take_all();
    if (option.names[0] != '-') {
        declared->expected(1, CLI::detail::expected_max_vector_size)->allow_extra_args();
        app->positionals_at_end();
    }
    for (const char* const other : value.needs) declared->needs(app->get_option(other));
    for (const char* const other : value.excludes) declared->excludes(app->get_option(other));
}

void declare(const CommandLine& line, std::function<int()>* run, CLI::App* app) {
    app->footer(line.footer);
    for (const CommandLine::Option& option : line.options) declare(option, app);
    app->final_callback([run, given = line.run] {
        if (!*run) *run = given;
    });
}

}  // namespace

int runProgram(MakeCommandLine makeProgram, std::initializer_list<MakeCommandLine> subcommands,
               int argc, char** argv) try {
    getrlimit(RLIMIT_NOFILE, &gOpenFiles);
    occupyStandardStreams();
    // A write that cannot succeed fails then, as other writes do, instead of ending the program.
    gPipeAction = signal(SIGPIPE, SIG_IGN);
    gFileSizeAction = signal(SIGXFSZ, SIG_IGN);
    raiseOpenFileLimit();
    const CommandLine program = makeProgram();
    gProgram = program.name;
    CLI::App app(program.text, program.name);
    app.set_version_flag("--version", fmt::format("{} {}", program.name, POWERSTATS_VERSION));
    std::function<int()> run;
    declare(program, &run, &app);
    for (const MakeCommandLine make : subcommands) {
        const CommandLine line = make();
        declare(line, &run, app.add_subcommand(line.name, line.text));
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            app.exit(error);
            if (std::cout.flush()) return 0;
            return fail(kFailed, "standard output cannot be written");
        }
        std::string name = program.name;
        for (const CLI::App* given : app.get_subcommands()) name += " " + given->get_name();
        return fail(kUsage, fmt::format("{} (see {} --help)", describe(error, app), name));
    }
    if (run) return run();
    // Not left to CLI11, which would say so too where a subcommand is misspelt.
    return fail(kUsage, fmt::format("A subcommand is required (see {} --help)", program.name));
} catch (const std::exception& error) {
    // Without an allocation, since memory may have run out.
    for (const char* part : {gProgram, ": ", error.what(), "\n"}) std::fputs(part, stderr);
    return 1;
}

}  // namespace powerstats
