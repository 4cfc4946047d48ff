// SPDX-License-Identifier: Apache-2.0

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "power/text/Json.h"
#include "tools/CommandLine.h"
#include "tools/check/Survey.h"

namespace powerstats {

namespace {

/// The command line of a program that asks the same service.
std::vector<std::string> dumpCommand(const ServiceOptions& options) {
    const SourceOptions& source = options.source;
    std::vector<std::string> words = {"/proc/self/exe", "dump", "--format", "json"};
    if (!options.hal.empty()) words.push_back("--hal=" + options.hal);
    if (!source.bus.empty()) {
        words.push_back("--bus=" + source.bus);
        words.push_back(fmt::format("--wait={}", source.waitSeconds));
    } else if (source.replay.empty()) {
        words.push_back("--sysfs=" + source.sysfs);
    } else {
        words.push_back("--replay=" + source.replay);
    }
    return words;
}

/// Reads a file in memory from its start, and closes it.
std::string takeText(int descriptor) {
    std::ifstream file("/proc/self/fd/" + std::to_string(descriptor));
    std::string text((std::istreambuf_iterator<char>(file)), {});
    if (descriptor >= 0) close(descriptor);
    return text;
}

/// Returns the last line of a process that was ended; of another one its messages, in one line and
/// without the remedies in brackets, which are not for the author of a service.
std::string summarize(const std::string& log, bool isEnded) {
    constexpr char kPrefix[] = "powerstats: ";
    std::string summary;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (isEnded) {
            summary = line;
        } else if (line.rfind(kPrefix, 0) == 0) {
            const size_t remedy = line.back() == ')' ? line.rfind(" (") : std::string::npos;
            line = line.substr(0, remedy);
            summary += (summary.empty() ? "" : "; ") + line.substr(std::strlen(kPrefix));
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
    Survey::Library library;
    const std::vector<std::string> command = dumpCommand(options);
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
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
        execv(words[0], words.data());
        _exit(kUsage);
    }
    int status = 0;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const std::string result = takeText(output);
    const std::string log = takeText(errors);
    if (child > 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        library.result = fmt::format("did not return within {} s", kMostSeconds);
        return library;
    }
    library.wasCalled = child > 0 && (WIFSIGNALED(status) || WEXITSTATUS(status) != kUsage);
    library.signal = library.wasCalled && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    library.log = summarize(log, library.signal != 0);
    library.result = library.wasCalled ? describeResult(result) : "not called: " + library.log;
    return library;
}

}  // namespace powerstats
