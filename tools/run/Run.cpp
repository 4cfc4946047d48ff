// SPDX-License-Identifier: Apache-2.0
//
// powerstats run: what rails and power entities did while a command ran.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/CommandLine.h"
#include "tools/ReplacedFile.h"
#include "tools/Sampler.h"
#include "tools/run/RunReport.h"

namespace powerstats {

namespace {

constexpr int kNotFound = 127;  // as shells answer
constexpr int kCannotExecute = 126;

struct RunArguments {
    SourceOptions source;
    double runs = 1;
    std::vector<Limit> limits;
    std::string format = "table";
    std::string output;
    std::string record;
    std::vector<std::string> command;
};

/// The signals that are for the command, and the one that tells of its end. They stay blocked, and
/// wait for take(). All other threads block every signal.
class Signals {
  public:
    Signals() {
        std::signal(SIGCHLD, SIG_DFL);  // ignored, it would take the command's status with it
        sigemptyset(&mTaken);
        for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD}) {
            struct sigaction present = {};
            sigaction(number, nullptr, &present);
            // nohup and shells ignore signals for the command's sake too.
            if (present.sa_handler != SIG_IGN) sigaddset(&mTaken, number);
        }
        pthread_sigmask(SIG_BLOCK, &mTaken, &mBefore);
    }
    /// Lets signals through again, in the child that is to become the command.
    void release() const { pthread_sigmask(SIG_SETMASK, &mBefore, nullptr); }
    /// Waits for a signal.
    /// @return it; negative when none came in time.
    int take(time_t seconds, siginfo_t* info) {
        const timespec limit{seconds, 0};
        const int number = sigtimedwait(&mTaken, info, &limit);
        if (number > 0 && number != SIGCHLD) mLast = number;
        return number;
    }
    /// The last signal for the command; 0 when none came.
    int last() {
        siginfo_t info;
        take(0, &info);
        return mLast;
    }

  private:
    sigset_t mTaken{}, mBefore{};
    int mLast = 0;
};

/// Starts the command.
/// @return its process, or 0 after a line that says why it cannot be started.
/// @param status [out] in that case the exit status, as shells answer.
pid_t start(std::vector<std::string>* command, const Signals& signals, int* status) {
    std::vector<char*> words;
    words.reserve(command->size() + 1);
    for (std::string& word : *command) words.push_back(word.data());
    words.push_back(nullptr);
    // Closed by a successful exec; otherwise it carries the error.
    int pipe[2] = {-1, -1};
    const bool hasPipe = pipe2(pipe, O_CLOEXEC) == 0;
    const pid_t child = hasPipe ? fork() : -1;
    int error = errno;
    if (child == 0) {
        restoreForExec();
        signals.release();
        execvp(words[0], words.data());
        error = errno;
        // The pipe is empty, so this cannot fail.
        [[maybe_unused]] const ssize_t written = write(pipe[1], &error, sizeof(error));
        _exit(kNotFound);
    }
    if (hasPipe) close(pipe[1]);
    const bool isStarted =
        child > 0 && TEMP_FAILURE_RETRY(read(pipe[0], &error, sizeof(error))) == 0;
    if (hasPipe) close(pipe[0]);
    if (isStarted) return child;
    if (child > 0) waitpid(child, nullptr, 0);
    *status = error == ENOENT ? kNotFound : kCannotExecute;
    say(fmt::format("{}: {} (give a program and its arguments after --)", words[0],
                    std::strerror(error)));
    return 0;
}

/// Waits for the end of the command, and reads and records meanwhile if that is asked for.
/// @return its exit status; 128 and the number of the signal that ended it.
int await(pid_t child, const RunArguments& arguments, Sampler* sampler, Signals* signals) {
    const time_t readingSeconds = arguments.record.empty() ? 86400 : 1;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        siginfo_t info;
        const int number = signals->take(readingSeconds, &info);
        if (number < 0) {
            sampler->next();
        } else if (number != SIGCHLD && info.si_code != SI_KERNEL) {
            kill(child, number);  // the terminal signals its whole foreground itself
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// Gives limits the names of their rails.
/// @return one line about a limit that cannot be judged; empty when all can.
std::string findRails(const Reading& reading, std::vector<Limit>* limits) {
    const std::vector<Rail>& rails = reading.lists->rails;
    for (Limit& limit : *limits) {
        const std::vector<size_t> found = findRail(rails, limit.rail);
        if (found.size() == 1 && reading.rails[found[0]]) {
            limit.rail = rails[found[0]].name;
            continue;
        }
        std::vector<std::string> names;
        for (size_t i = 0; i < rails.size(); ++i) {
            const bool isMeant = std::find(found.begin(), found.end(), i) != found.end();
            if (found.empty() || isMeant) names.push_back(rails[i].name);
        }
        const std::string list = fmt::format("{}", fmt::join(names, ", "));
        return fmt::format("--max {}: {}", limit.rail,
                           reading.railsFailure ? reading.railsFailure.text
                           : found.empty()      ? "no such rail (there are " + list + ")"
                           : found.size() == 1
                               ? "it cannot be read now"
                               : "several rails have this name (give " + list + ", or id:N)");
    }
    return "";
}

int judge(const RunReport& report) {
    LimitVerdict worst = LimitVerdict::kKept;
    for (const Limit& limit : report.limits) {
        worst = std::max(worst, judge(limit, report.runs).verdict);
    }
    constexpr int kStatuses[] = {0, 4, 3};  // by LimitVerdict
    return kStatuses[static_cast<size_t>(worst)];
}

/// Says why the runs ended before their number was reached, or before limits could be judged.
/// @param status [in] of the command in the last run.
void explainEnd(const RunArguments& arguments, double run, int status, int signal) {
    std::vector<const char*> consequences;
    if (run < arguments.runs) consequences.push_back("it did not run again");
    if (!arguments.limits.empty()) consequences.push_back("limits were not judged");
    if (consequences.empty()) return;
    const std::string cause = status != 0 ? fmt::format("the command failed with status {}", status)
                                          : fmt::format("signal {} came", signal);
    say(fmt::format("{} in run {} of {}, so {}", cause, run, arguments.runs,
                    fmt::join(consequences, ", and ")));
}

int run(RunArguments arguments) {
    std::optional<ReplacedFile> file;
    if (!arguments.output.empty() && !file.emplace(arguments.output, readableMode()).isOpen()) {
        return fail(kUsage, file->failure() + " (give another file with -o)");
    }
    int status = 0;
    const std::shared_ptr<Sampler> sampler = Sampler::open({arguments.source, 0}, &status);
    if (sampler == nullptr) return kUsage;
    const std::string unreadable = findRails(sampler->latest(), &arguments.limits);
    if (!unreadable.empty()) return fail(kUsage, unreadable);
    if (!sampler->record(arguments.record)) return kUsage;

    RunReport report{arguments.command, {}, arguments.limits};
    const auto runs = [&] { return static_cast<double>(report.runs.size()); };
    Signals signals;
    while (status == 0 && signals.last() == 0 && runs() < arguments.runs) {
        Reading before, after;
        sampler->next(&before);
        const pid_t child = start(&arguments.command, signals, &status);
        if (child == 0) return status;
        status = await(child, arguments, sampler.get(), &signals);
        sampler->next(&after);
        report.runs.push_back(subtract(before, after));
    }
    const bool isComplete = status == 0 && runs() == arguments.runs;
    if (!isComplete) report.limits.clear();
    const bool isRecorded = sampler->failure().empty();
    if (!isRecorded) say(sampler->failure());
    const std::string text = formatReport(report, arguments.format);
    const bool isWritten = file ? file->replace(text) : writeOutput(text, stderr, "standard error");
    if (file && !isWritten) say(file->failure());
    if (!isWritten) return status != 0 ? status : kFailed;
    if (isComplete) return isRecorded ? judge(report) : kFailed;
    explainEnd(arguments, runs(), status, signals.last());
    return status != 0 ? status : 128 + signals.last();
}

}  // namespace

CommandLine makeRun() {
    const auto arguments = std::make_shared<RunArguments>();
    CommandLine command = {
        "run", "Run a command, and show its energy, power and shares of time.",
        "Energy is in joules and power in watts. Rails overlap (a package contains its cores), so\n"
        "a sum over them says nothing. Other programs that run at the time count too. A signal\n"
        "reaches the command. The document formats.md describes the formats.\n"
        "Limits are judged only if every run exits 0. From three runs on, a limit is kept or\n"
        "exceeded when the 95 % interval of the mean lies wholly on one side of it. A rail is\n"
        "named as the report has it, by SUBSYSTEM/NAME, or by id:N.\n"
        "Exit status: that of the command; 128 and the number of the signal that ended it; 126 or\n"
        "127 if it cannot be started; 2 bad argument, before the command starts; when all limits\n"
        "are kept 0, when one is exceeded 3, and when one cannot be judged 4.\n"
        "Example: powerstats run -r 3 -- sleep 0.1"};
    addSourceOptions(&command, &arguments->source);
    command.addOption("-r,--runs", "Times to run the command",
                      number(&arguments->runs, {1, 1e6}, true));
    const auto takeLimit = [arguments](const std::string& text) -> std::string {
        const std::optional<Limit> limit = parseLimit(text);
        if (!limit) return text + " is not a limit (give RAIL=WATTS, such as package-0=15.5)";
        arguments->limits.push_back(*limit);
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
    const auto takeWord = [arguments](const std::string& word) {
        arguments->command.push_back(word);
        return "";
    };
    command.addOption("COMMAND", "The command and its arguments",
                      {"TEXT", "", "", takeWord, true, true});
    command.run = [arguments] { return run(*arguments); };
    return command;
}

}  // namespace powerstats
