// SPDX-License-Identifier: Apache-2.0
//
// powerstats run: what rails and power entities did while a command ran.

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "power/trace/TraceWriter.h"
#include "tools/Commands.h"
#include "tools/SourceOptions.h"
#include "tools/run/RunReport.h"

namespace powerstats {

namespace {

constexpr int kNotFound = 127;  // as shells answer
constexpr int kCannotExecute = 126;
constexpr int kOverLimit = 3;
constexpr int kUnclear = 4;

struct RunArguments {
    SourceOptions source;
    int runs = 1;
    std::vector<std::string> limits;
    std::string format = "table";
    std::string output;
    std::string record;
    std::vector<std::string> command;
};

/// The running command, for the signal handler; 0 when there is none.
volatile std::sig_atomic_t gCommand = 0;
/// The last signal that came.
volatile std::sig_atomic_t gSignal = 0;
constexpr int kForwarded[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2};

void forward(int number, siginfo_t* info, void* /*context*/) {
    const int error = errno;
    gSignal = number;
    // The terminal signals its whole foreground, and so the command too.
    if (gCommand > 0 && info->si_code != SI_KERNEL) kill(gCommand, number);
    errno = error;
}

void forwardSignals() {
    struct sigaction action = {};
    action.sa_sigaction = forward;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    for (const int number : kForwarded) {
        struct sigaction present = {};
        sigaction(number, nullptr, &present);
        // nohup and shells ignore signals for the command's sake too.
        if (present.sa_handler != SIG_IGN) sigaction(number, &action, nullptr);
    }
}

/// Starts the command.
/// @param error [out] why it cannot be started: a number of errno.
/// @return 0 when it cannot be started.
pid_t start(const std::vector<std::string>& command, int* error) {
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    // Closed by a successful exec; otherwise it carries the error.
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0) {
        *error = errno;
        return 0;
    }
    // A signal waits until the child is known here and has no handler there.
    sigset_t forwarded, before;
    sigemptyset(&forwarded);
    for (const int number : kForwarded) sigaddset(&forwarded, number);
    pthread_sigmask(SIG_BLOCK, &forwarded, &before);
    const pid_t child = fork();
    *error = child < 0 ? errno : 0;
    if (child == 0) {
        for (const int number : kForwarded) {
            struct sigaction present = {};
            sigaction(number, nullptr, &present);
            if (present.sa_handler != SIG_IGN) signal(number, SIG_DFL);
        }
        restoreForExec();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        execvp(words[0], words.data());
        const int reason = errno;
        // The pipe is empty, so this cannot fail.
        [[maybe_unused]] const ssize_t written = write(pipe[1], &reason, sizeof(reason));
        _exit(kNotFound);
    }
    gCommand = std::max(child, 0);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(pipe[1]);
    if (child > 0) {
        while (read(pipe[0], error, sizeof(*error)) < 0 && errno == EINTR) {
        }
    }
    close(pipe[0]);
    if (*error == 0) return child;
    gCommand = 0;
    if (child > 0) waitpid(child, nullptr, 0);
    return 0;
}

/// The recording of a run, which has a sample every second, at the start and at the end.
class Recorder {
  public:
    /// @return whether the file can be written. Otherwise one line says why.
    bool open(const std::string& file) {
        std::string error;
        if (!file.empty() && (mWriter = TraceWriter::create(file, &error)) == nullptr) say(error);
        return error.empty();
    }
    void add(const Reading& reading) {
        if (mWriter == nullptr) return;
        std::string error;
        if (mWriter->write(reading, &error)) return;
        say(error);
        mWriter.reset();
        mFailed = true;
    }
    bool isOn() const { return mWriter != nullptr; }
    bool hasFailed() const { return mFailed; }

  private:
    std::unique_ptr<TraceWriter> mWriter;
    bool mFailed = false;
};

/// A descriptor that is readable when a process has ended. The C library's own declaration of this
/// call has no C linkage.
int openProcess(pid_t process) {
    return static_cast<int>(syscall(SYS_pidfd_open, process, 0));
}

/// Waits until a child has ended, and records meanwhile. It stays a zombie, which keeps its number.
void await(pid_t child, Source* source, Recorder* recorder) {
    constexpr int kSampleMs = 1000;
    const int descriptor = openProcess(child);
    pollfd ended{descriptor, POLLIN, 0};
    while (descriptor >= 0) {
        const int count = poll(&ended, 1, recorder->isOn() ? kSampleMs : -1);
        if (count == 0) recorder->add(source->read());
        if (count > 0 || (count < 0 && errno != EINTR)) break;
    }
    if (descriptor >= 0) close(descriptor);
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) != 0 &&
           errno == EINTR) {
    }
}

/// Runs the command to its end.
/// @return its exit status; 128 and the number of the signal that ended it.
int runToEnd(const std::vector<std::string>& command, Source* source, Recorder* recorder) {
    int error = 0;
    const pid_t child = start(command, &error);
    if (child == 0) {
        say(fmt::format("{}: {} (give a program and its arguments after --)", command[0],
                        std::strerror(error)));
        return error == ENOENT ? kNotFound : kCannotExecute;
    }
    await(child, source, recorder);
    gCommand = 0;
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// @param noEnergy [in] why there is no energy, if there is none.
/// @return one line about a limit that cannot be judged; empty when all can.
std::string findUnreadable(const std::vector<Limit>& limits, const Reading& reading) {
    const std::vector<Rail>& rails = reading.lists->rails;
    for (const Limit& limit : limits) {
        const auto rail = std::find_if(rails.begin(), rails.end(),
                                       [&](const Rail& known) { return known.name == limit.rail; });
        const bool isKnown = rail != rails.end();
        if (isKnown && reading.rails[static_cast<size_t>(rail - rails.begin())]) continue;
        std::string reason = reading.railsFailure.text;
        if (reason.empty() && isKnown) reason = "it cannot be read now";
        if (reason.empty()) {
            std::vector<std::string> names;
            names.reserve(rails.size());
            for (const Rail& known : rails) names.push_back(known.name);
            reason = fmt::format("no such rail (there are {})", fmt::join(names, ", "));
        }
        return fmt::format("--max {}: {}", limit.rail, reason);
    }
    return "";
}

int judge(const RunReport& report) {
    const auto any = [&](LimitVerdict verdict) {
        return std::any_of(report.limits.begin(), report.limits.end(), [&](const Limit& limit) {
            return judge(limit, report.runs).verdict == verdict;
        });
    };
    if (any(LimitVerdict::kOver)) return kOverLimit;
    return any(LimitVerdict::kUnclear) ? kUnclear : 0;
}

/// Says why the runs ended before their number was reached, or before limits could be judged.
/// @param status [in] of the command in the last run.
void explainEnd(const RunArguments& arguments, size_t run, int status) {
    const bool isLast = static_cast<int>(run) == arguments.runs;
    if (isLast && arguments.limits.empty()) return;
    const std::string cause = status != 0 ? fmt::format("the command failed with status {}", status)
                                          : fmt::format("signal {} came", gSignal);
    const char* const consequence = isLast                     ? "limits were not judged"
                                    : arguments.limits.empty() ? "it did not run again"
                                                               : "it did not run again, and "
                                                                 "limits were not judged";
    say(fmt::format("{} in run {} of {}, so {}", cause, run, arguments.runs, consequence));
}

int run(RunArguments arguments) {
    RunReport report;
    report.command = arguments.command;
    for (const std::string& text : arguments.limits) {
        const std::optional<Limit> limit = parseLimit(text);
        if (!limit) {
            return fail(
                kUsage,
                fmt::format("--max {}: not a limit (give RAIL=WATTS, such as package-0=15.5)",
                            text));
        }
        report.limits.push_back(*limit);
    }
    std::FILE* const stream =
        arguments.output.empty() ? stderr : std::fopen(arguments.output.c_str(), "we");
    if (stream == nullptr) {
        return fail(kUsage, fmt::format("{}: {} (give another file with -o)", arguments.output,
                                        std::strerror(errno)));
    }
    int status = 0;
    const std::shared_ptr<Source> source = openSource(&arguments.source, {}, &status);
    if (source == nullptr) return kUsage;
    const Reading first = source->read();
    const std::string unreadable = findUnreadable(report.limits, first);
    if (!unreadable.empty()) return fail(kUsage, unreadable);
    sayWhyNoRails(first);

    Recorder recorder;
    if (!recorder.open(arguments.record)) return kUsage;

    forwardSignals();
    while (status == 0 && gSignal == 0 && static_cast<int>(report.runs.size()) < arguments.runs) {
        const Reading before = source->read();
        recorder.add(before);
        status = runToEnd(report.command, source.get(), &recorder);
        if (status == kNotFound || status == kCannotExecute) break;
        const Reading after = source->read();
        recorder.add(after);
        report.runs.push_back(subtract(before, after));
    }
    const bool isComplete = status == 0 && static_cast<int>(report.runs.size()) == arguments.runs;
    if (!isComplete) report.limits.clear();
    if (!report.runs.empty() &&
        !writeOutput(formatReport(report, arguments.format), stream,
                     arguments.output.empty() ? "standard error" : arguments.output)) {
        return status != 0 ? status : kFailed;
    }
    if (!isComplete && !report.runs.empty()) explainEnd(arguments, report.runs.size(), status);
    if (isComplete && recorder.hasFailed()) return kFailed;
    if (isComplete) return judge(report);
    return status != 0 ? status : 128 + gSignal;
}

}  // namespace

Command addRun(CommandLine program) {
    const auto arguments = std::make_shared<RunArguments>();
    CommandLine command = program.addSubcommand(
        "run", "Run a command, and show its energy, power and shares of time.",
        "Energy is in joules and power in watts. Rails overlap (a package contains its cores), so\n"
        "a sum over them says nothing. Other programs that run at the time count too. A signal\n"
        "reaches the command. The document formats.md describes the formats.\n"
        "Limits are judged only if every run exits 0. From three runs on, a limit is kept or\n"
        "exceeded when the 95 % interval of the mean lies wholly on one side of it.\n"
        "Exit status: that of the command; 128 and the number of the signal that ended it; 126 or\n"
        "127 if it cannot be started; 2 bad argument, before the command starts; when all limits\n"
        "are kept 0, when one is exceeded 3, and when one cannot be judged 4.\n"
        "Example: powerstats run -r 3 -- sleep 0.1");
    addSourceOptions(command, &arguments->source);
    command.addOption("-r,--runs", "Times to run the command", number(&arguments->runs, {1, 1e6}));
    const auto takeLimit = [arguments](const std::string& limit) {
        arguments->limits.push_back(limit);
        return "";
    };
    command.addOption("--max", "RAIL=WATTS, the greatest average power of a rail; may be repeated",
                      {"TEXT", "", "", takeLimit, true});
    command.addOption("-o,--output", "File of the report; standard error by default",
                      text(&arguments->output, "FILE"));
    command.addOption("--record",
                      "Also write readings to a file, one a second, as powerstats record does",
                      text(&arguments->record, "FILE"));
    command.addOption("--format", "Format of the report",
                      choice(&arguments->format, {"table", "csv", "json"}));
    command.addCommand("The command and its arguments", &arguments->command);
    return {command, [arguments] { return run(*arguments); }};
}

}  // namespace powerstats
