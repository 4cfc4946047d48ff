// SPDX-License-Identifier: Apache-2.0
//
// powerstats watch: the average power of rails and the shares of states, interval by interval.

#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>

#include "power/text/Page.h"
#include "tools/CommandLine.h"
#include "tools/Sampler.h"
#include "tools/live/LiveView.h"

namespace powerstats {

namespace {

struct WatchArguments {
    SamplerOptions sampler;
    double count = HUGE_VAL;
    std::string format;  // empty: live where the terminal can, otherwise table
};

int print(const WatchArguments& arguments, Sampler* sampler) {
    IntervalPrinter printer(arguments.format);
    bool any = false;
    bool isWritten = true;
    double count = 0;
    const Sampler::End end = sampler->run([&](const Interval& interval) {
        any = any || hasFigures(interval);
        isWritten = writeOutput(printer.print(interval));
        return isWritten && ++count < arguments.count;
    });
    if (end == Sampler::End::kFailed) say(sampler->failure());
    return any && isWritten && end != Sampler::End::kFailed ? 0 : kFailed;
}

int watch(WatchArguments arguments) {
    if (arguments.format.empty()) arguments.format = canShowLive() ? "live" : "table";
    int status = 0;
    const std::shared_ptr<Sampler> sampler = Sampler::open(arguments.sampler, &status);
    if (sampler == nullptr) return status;
    if (arguments.format != "live") return print(arguments, sampler.get());
    status = showLive(arguments.sampler.intervalSeconds, arguments.count, sampler);
    // A reading that does not return may still run, and nothing may be destroyed under it.
    if (sampler.use_count() > 1) std::_Exit(status);
    return status;
}

}  // namespace

CommandLine makeWatch() {
    const auto arguments = std::make_shared<WatchArguments>();
    CommandLine command = {
        "watch", "Show power and shares of time, interval by interval.",
        "Power is the average of an interval in milliwatts. Rails overlap (a package contains its\n"
        "cores), so a sum over them says nothing. Shares are percent of the interval.\n"
        "The document formats.md describes the formats.\n"
        "Exit status: 0 something was read, 1 nothing was or it could not be written,\n"
        "2 bad argument, or a file that cannot be used.\n"
        "Example: powerstats watch --interval 0.1 --count 2 --format csv"};
    addSamplerOptions(&command, &arguments->sampler);
    command.addOption("--record", "Also write the readings to a file, as powerstats record does",
                      text(&arguments->sampler.record, "FILE"));
    command.addOption("--count", "Intervals to show; without end by default",
                      number(&arguments->count, {1, 1e9}, true));
    Value format = choice(&arguments->format, {"live", "table", "csv", "jsonl"});
    format.byDefault = "live on a terminal, otherwise table";
    command.addOption("--format", "Format of each interval", format);
    command.run = [arguments] { return watch(*arguments); };
    return command;
}

}  // namespace powerstats
