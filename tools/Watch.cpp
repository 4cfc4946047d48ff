// SPDX-License-Identifier: Apache-2.0
//
// powerstats watch: the average power of rails and the shares of states, interval by interval.

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "tools/CommandLine.h"
#include "tools/Commands.h"
#include "tools/Interval.h"
#include "tools/IntervalPrinter.h"
#include "tools/LiveView.h"
#include "tools/Service.h"
#include "tools/Snapshot.h"

namespace powerstats {

namespace {

using std::chrono::steady_clock;

struct Arguments {
    ServiceOptions service;
    double intervalSeconds = 1;
    std::optional<int> count;
    std::string format;  // empty: live on a terminal, otherwise table
};

bool hasFigures(const Interval& interval) {
    for (const auto& rail : interval.rails) {
        if (rail.trouble == Trouble::kNone) return true;
    }
    for (const auto& entity : interval.entities) {
        if (entity.trouble == Trouble::kNone) return true;
    }
    return false;
}

int print(const Arguments& arguments, std::function<Interval()> read) {
    IntervalPrinter printer(arguments.format);
    const auto step = std::chrono::duration_cast<steady_clock::duration>(
        std::chrono::duration<double>(arguments.intervalSeconds));
    bool any = false;
    auto next = steady_clock::now();
    for (int i = 0; !arguments.count || i < *arguments.count; ++i) {
        // A reading that took longer than an interval makes no burst of readings after it.
        next = std::max(next + step, steady_clock::now());
        std::this_thread::sleep_until(next);
        const Interval interval = read();
        any = any || hasFigures(interval);
        if (!writeOutput(printer.print(interval))) return kFailed;
    }
    return any ? 0 : kFailed;
}

bool isOnTerminal() {
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
}

int watch(Arguments arguments) {
    if (arguments.format.empty()) arguments.format = isOnTerminal() ? "live" : "table";
    if (!openService(arguments.service)) return kFailed;
    const auto reader = std::make_shared<SnapshotReader>();
    const auto read = [reader, before = reader->read()]() mutable {
        Snapshot after = reader->read();
        Interval interval = subtract(before, after);
        before = std::move(after);
        return interval;
    };
    if (arguments.format != "live") return print(arguments, read);
    const std::string title =
        describe(arguments.service) + " over " + std::string(reader->interfaceName());
    return showLive({title, arguments.intervalSeconds, arguments.count}, read);
}

}  // namespace

Command addWatch(CLI::App* app) {
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* const command =
        app->add_subcommand("watch", "Show power and shares of time, interval by interval.");
    command->footer(
        "Power is the average of an interval in milliwatts. Rails overlap (a package contains its\n"
        "cores), so a sum over them says nothing. Shares are percent of the interval.\n"
        "docs/formats.md describes the formats.\n"
        "Exit status: 0 something was read, 1 nothing was or it could not be written,\n"
        "2 bad argument.\n"
        "Example: powerstats watch --interval 0.1 --count 2 --format csv");
    addServiceOptions(command, &arguments->service);
    command->add_option("--interval", arguments->intervalSeconds, "Seconds from reading to reading")
        ->check(CLI::Range(0.05, 86400.0))
        ->capture_default_str();
    command->add_option("--count", arguments->count, "Intervals to show; without end by default")
        ->check(CLI::PositiveNumber);
    command->add_option("--format", arguments->format, "Format of each interval")
        ->check(CLI::IsMember({"live", "table", "csv", "jsonl"}))
        ->default_str("live on a terminal, otherwise table");
    return {command, [arguments] { return watch(*arguments); }};
}

}  // namespace powerstats
