// SPDX-License-Identifier: Apache-2.0
//
// powerstats record: writes what a service reports to a file, as a trace.

#include <cmath>
#include <memory>

#include "tools/CommandLine.h"
#include "tools/Sampler.h"

namespace powerstats {

namespace {

struct RecordArguments {
    SamplerOptions sampler;
    double durationSeconds = HUGE_VAL;
};

int record(const RecordArguments& arguments) {
    int status = 0;
    const std::shared_ptr<Sampler> sampler = Sampler::open(arguments.sampler, &status);
    if (sampler == nullptr) return status;
    // Rounded, so that 0.3 s has three intervals of 0.1 s.
    const double intervals =
        std::round(arguments.durationSeconds / arguments.sampler.intervalSeconds);
    double taken = 0;
    if (intervals > 0) sampler->run([&](const Interval&) { return ++taken < intervals; });
    return sampler->failure().empty() ? 0 : fail(kFailed, sampler->failure());
}

}  // namespace

CommandLine makeRecord() {
    const auto arguments = std::make_shared<RecordArguments>();
    CommandLine command = {
        "record", "Write what a service reports to a file, for trace viewers.",
        "The file is a protobuf trace with the readings. It is readable at any moment, also after\n"
        "the program was killed. --replay plays it back. The document recordings.md describes it.\n"
        "Exit status: 0 the duration or the recording that was played back is over, 1 no service,\n"
        "or the file cannot be written on, 2 bad argument, or a file that exists or cannot be\n"
        "created.\n"
        "Example: powerstats record --interval 0.1 --duration 0.5 -o example.pftrace"};
    addSamplerOptions(&command, &arguments->sampler);
    Value output = text(&arguments->sampler.record, "FILE");
    output.isRequired = true;
    command.addOption("-o,--output", "The file, which must not exist; only you can read it",
                      output);
    command.addOption("--duration",
                      "Seconds from the first reading to the last; without end by default",
                      number(&arguments->durationSeconds, {0, 1e9}));
    command.run = [arguments] { return record(*arguments); };
    return command;
}

}  // namespace powerstats
