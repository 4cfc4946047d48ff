// SPDX-License-Identifier: Apache-2.0

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "tools/CommandLine.h"
#include "tools/Json.h"
#include "tools/Survey.h"

namespace powerstats {

namespace {

/// The command line of a program that asks the same service.
std::vector<std::string> dumpCommand(const ServiceOptions& options) {
    std::vector<std::string> words = {"/proc/self/exe", "dump", "--format", "json"};
    if (!options.hal.empty()) words.insert(words.end(), {"--hal", options.hal});
    if (options.bus) {
        words.insert(words.end(),
                     {"--bus=" + *options.bus, "--wait", fmt::format("{}", options.waitSeconds)});
    } else if (options.source.replay.empty()) {
        words.insert(words.end(), {"--sysfs", options.source.sysfs});
    } else {
        words.insert(words.end(), {"--replay", options.source.replay});
    }
    return words;
}

/// A file in memory for the output of a program. The descriptor is closed in other programs.
class Output {
  public:
    explicit Output(const char* name) : mDescriptor(memfd_create(name, MFD_CLOEXEC)) {}
    ~Output() {
        if (mDescriptor >= 0) close(mDescriptor);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    int descriptor() const { return mDescriptor; }
    std::string read() const {
        std::string text;
        char buffer[4096];
        for (ssize_t size = 0; (size = pread(mDescriptor, buffer, sizeof(buffer),
                                             static_cast<off_t>(text.size()))) > 0;) {
            text.append(buffer, static_cast<size_t>(size));
        }
        return text;
    }

  private:
    const int mDescriptor;
};

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
            if (line.back() == ')') line.resize(std::min(line.size(), line.rfind(" (")));
            summary += (summary.empty() ? "" : "; ") + line.substr(std::strlen(kPrefix));
        }
    }
    return summary;
}

/// Says how many rails and entities are in the output of "dump --format json".
std::string describeResult(const std::string& json) {
    const std::optional<Json> result = Json::parse(json);
    if (!result) return "nothing that can be read";
    const auto count = [&](const char* list, const char* one, const char* many) {
        const std::optional<size_t> size = result->arraySize(list);
        return size ? fmt::format("{} {}", *size, *size == 1 ? one : many)
                    : fmt::format("null for the {}", many);
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
    const Output output("result");
    const Output errors("log");
    const pid_t child = fork();
    if (child == 0) {
        alarm(kMostSeconds);
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        restoreForExec();
        dup2(output.descriptor(), STDOUT_FILENO);
        dup2(errors.descriptor(), STDERR_FILENO);
        execv(words[0], words.data());
        _exit(kUsage);
    }
    int status = 0;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (child > 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        library.result = fmt::format("did not return within {} s", kMostSeconds);
        return library;
    }
    library.wasCalled = child > 0 && (WIFSIGNALED(status) || WEXITSTATUS(status) != kUsage);
    library.signal = library.wasCalled && WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    library.log = summarize(errors.read(), library.signal != 0);
    library.result = library.wasCalled ? describeResult(output.read())
                                       : fmt::format("not called: {}", library.log);
    return library;
}

}  // namespace powerstats
