// SPDX-License-Identifier: Apache-2.0

#include "tools/CommandLine.h"

#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <filesystem>

namespace powerstats {

void printError(const std::string& program, const std::string& text) {
    fmt::print(stderr, "{}: {}\n", program, text);
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
        if (error.get_exit_code() == 0) return app->exit(error);
        printError(app->get_name(),
                   fmt::format("{} (see {} --help)", error.what(), app->get_name()));
        return kUsage;
    }
    return std::nullopt;
}

int runProgram(const char* name, int (*run)(int argc, char** argv), int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fputs(name, stderr);
        std::fputs(": ", stderr);
        std::fputs(error.what(), stderr);
        std::fputs("\n", stderr);
        return 1;
    }
}

}  // namespace powerstats
