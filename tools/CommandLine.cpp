// SPDX-License-Identifier: Apache-2.0

#include "tools/CommandLine.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>

#include "hal/Sysfs.h"

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

CLI::Option* addSysfsOption(CLI::App* app, std::string* folder) {
    const auto isFolder = [](const std::string& path) {
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) return std::string();
        return path + ": not a folder (give the root of a sysfs tree)";
    };
    return app->add_option("--sysfs", *folder, "Folder of the kernel's counters")
        ->check(isFolder, "DIR")
        ->capture_default_str();
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
        say(fmt::format("{} (see {} --help)", error.what(), app->get_name()));
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
