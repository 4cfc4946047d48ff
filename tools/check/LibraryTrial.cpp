// SPDX-License-Identifier: Apache-2.0

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "power/text/Json.h"
#include "power/text/Names.h"
#include "tools/CommandLine.h"
#include "tools/check/Survey.h"

namespace powerstats {

namespace {

/// The command line of a program that asks the same service.
std::vector<std::string> dumpCommand(const ServiceOptions& options) {
    const SourceOptions& source = options.source;
    std::vector<std::string> words = {"/proc/self/exe", "dump", "--format=json"};
    if (!options.hal.empty()) words.push_back("--hal=" + options.hal);
    words.push_back(!source.bus.empty()     ? "--bus=" + source.bus
                    : source.replay.empty() ? "--sysfs=" + source.sysfs
                                            : "--replay=" + source.replay);
    if (!source.bus.empty()) words.push_back(fmt::format("--wait={}", source.waitSeconds));
    return words;
}

/// Reads a file in memory from its start, and closes it.
std::string takeText(int descriptor) {
    std::ifstream file("/proc/self/fd/" + std::to_string(descriptor));
    close(descriptor);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Returns the last line of a process that was ended; of another one its messages, in one line and
/// without the remedies in brackets, which are not for the author of a service.
std::string summarize(const std::string& log, bool isEnded) {
    const std::string prefix = "powerstats: ";
    std::string summary;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (isEnded) {
            summary = line;
        } else if (line.rfind(prefix, 0) == 0) {
            line = line.substr(0, line.back() == ')' ? line.rfind(" (") : std::string::npos);
            summary += (summary.empty() ? "" : "; ") + line.substr(prefix.size());
        }
    }
    return summary;
}

/// Says how many rails and entities are in the output of "dump --format json".
std::string describeResult(const std::string& text) {
    const Json json = Json::parse(text, nullptr, false);
    if (!json.is_object()) return "nothing that can be read";
    const auto count = [&](const char* key, const char* one, const char* many) {
        const Json list = json.value(key, Json());
        if (!list.is_array()) return fmt::format("null for the {}", many);
        return fmt::format("{} {}", list.size(), list.size() == 1 ? one : many);
    };
    return count("rails", "rail", "rails") + " and " +
           count("entities", "power entity", "power entities");
}

}  // namespace

Survey::Library tryLibrary(const ServiceOptions& options) {
    constexpr unsigned kMostSeconds = 60;
    std::vector<std::string> words = dumpCommand(options);
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const int output = memfd_create("result", MFD_CLOEXEC);
    const int errors = memfd_create("log", MFD_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        alarm(kMostSeconds);
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        restoreForExec();
        dup2(output, STDOUT_FILENO);
        dup2(errors, STDERR_FILENO);
        execv(arguments[0], arguments.data());
        _exit(kUsage);
    }
    // Stays as it is when there is no child.
    int status = W_EXITCODE(kUsage, 0);
    waitpid(child, &status, 0);
    const std::string result = takeText(output);
    const std::string log = safeName(summarize(takeText(errors), WIFSIGNALED(status)), SIZE_MAX);
    if (status == W_EXITCODE(0, SIGALRM)) {
        return {false, 0, fmt::format("did not return within {} s", kMostSeconds)};
    }
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        return {
            true, signal,
            fmt::format("signal {} ({}) ended its process: {}", signal, strsignal(signal), log)};
    }
    if (status == W_EXITCODE(kUsage, 0)) return {false, 0, "not called: " + log};
    return {true, 0, "Java receives " + describeResult(result) + (log.empty() ? "" : ": " + log)};
}

}  // namespace powerstats
