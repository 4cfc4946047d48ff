// SPDX-License-Identifier: Apache-2.0
//
// powerstats metrics: reads a service once and prints its totals for Prometheus, or replaces a file
// that Prometheus's node_exporter serves.

#include "tools/metrics/Metrics.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/CommandLine.h"
#include "tools/ReplacedFile.h"
#include "tools/SourceOptions.h"

namespace powerstats {

namespace {

/// Formats a label. Names of lists have no line break that would have to be escaped.
std::string label(const char* key, const std::string& name) {
    std::string value;
    for (const char character : name) {
        if (character == '\\' || character == '"') value += '\\';
        value += character;
    }
    return fmt::format("{}=\"{}\"", key, value);
}

/// The lines of one counter.
struct Family {
    const char* name;  ///< without `_total`
    const char* unit;  ///< empty: a plain number
    const char* help;
    /// How many digits of a total are less than one unit.
    size_t decimals;
    std::string samples = {};

    /// @param labels [in] with their braces; empty when there are none.
    void add(const std::string& labels, int64_t total) {
        // In digits, since a double has not enough of them.
        std::string value = fmt::format("{:0{}}", total, decimals + 1);
        if (decimals > 0) value.insert(value.size() - decimals, ".");
        samples += fmt::format("{}_total{} {}\n", name, labels, value);
    }
};

}  // namespace

std::string formatMetrics(const Reading& reading, const std::string& format) {
    Family families[] = {
        {"powerstats_rail_energy_joules", "joules",
         "Energy that a power rail carried, since boot or since its counter began.", 6},
        {"powerstats_state_residency_seconds", "seconds",
         "Time that a power entity spent in a state since boot.", 3},
        {"powerstats_state_entries", "", "Entries of a power entity into a state since boot.", 0},
        {"powerstats_reading_time_seconds", "seconds",
         "Time of the reading since boot, with suspend. A rate by this one's rate is exact, "
         "however often the totals are read.",
         9}};
    auto& [energy, residency, entries, time] = families;

    const Lists& lists = *reading.lists;
    for (size_t i = 0; i < lists.rails.size(); ++i) {
        const std::optional<Energy>& rail = reading.rails[i];
        // A counter that may have wrapped before its first reading has counted nothing yet.
        if (!rail || (rail->energyUWs == 0 && rail->duration == nanoseconds::zero())) continue;
        energy.add(fmt::format("{{{}}}", label("rail", lists.rails[i].name)), rail->energyUWs);
    }
    for (size_t i = 0; i < lists.entities.size(); ++i) {
        const auto& [id, name, type, states] = lists.entities[i];
        for (size_t j = 0; j < states.size() && reading.entities[i]; ++j) {
            const Residency& state = reading.entities[i]->states[j];
            const std::string labels =
                fmt::format("{{{},{}}}", label("entity", name), label("state", states[j].name));
            residency.add(labels, toMilliseconds(state.totalTime));
            entries.add(labels, state.entryCount);
        }
    }
    if (!energy.samples.empty() || !entries.samples.empty()) time.add("", reading.time.count());
    const bool isOpen = format == "openmetrics";
    std::string text;
    for (const auto& [name, unit, help, decimals, samples] : families) {
        if (samples.empty()) continue;
        const std::string full = std::string(name) + (isOpen ? "" : "_total");
        text += fmt::format("# HELP {0} {1}\n# TYPE {0} counter\n", full, help);
        if (isOpen && *unit != '\0') text += fmt::format("# UNIT {} {}\n", full, unit);
        text += samples;
    }
    return text + (isOpen ? "# EOF\n" : "");
}

namespace {

struct MetricsArguments {
    SourceOptions source;
    std::string format = "prometheus";
    bool noRails = false;
    std::string output;
};

/// The file of --output, for the handler of signals.
const char* gOutput = nullptr;

void removeOutput(int number) {
    unlink(gOutput);
    signal(number, SIG_DFL);
    raise(number);
}

/// Only the user and the group may read the file, since energy tells what other programs compute.
bool writeFile(const std::string& path, const std::string& text) {
    ReplacedFile file(path, 0640);
    const bool isWritten = file.isOpen() && file.replace(text);
    if (!isWritten) say(file.failure());
    return isWritten;
}

/// Reads the service. Says why when a part of it cannot be read.
/// @param text [out] the metrics that could be read; std::nullopt when there are none.
/// @return the exit status.
int collect(MetricsArguments arguments, std::optional<std::string>* text) {
    int status = 0;
    const std::shared_ptr<Source> source = openSource(&arguments.source, kAtFirstSample, &status);
    if (source == nullptr) return status;
    const Reading reading = source->read(arguments.noRails ? kNothing : std::nullopt, std::nullopt);
    const Failure rails = arguments.noRails ? Failure() : reading.railsFailure;
    const bool isRailsFault = rails && rails.kind != Failure::Kind::kNotMeasured;
    using Kind = Failure::Kind;
    sayUnanswered();
    if (isRailsFault) {
        if (rails.kind != Kind::kTimedOut) say("rails: " + rails.text);
    } else if (rails && isatty(STDERR_FILENO) != 0) {
        sayWhyNoRails(reading);  // not in the journal of a timer, each minute
    }
    const std::vector<Rail>& known = reading.lists->rails;
    const bool isWrapping =
        arguments.source.bus.empty() && arguments.source.replay.empty() && !arguments.noRails &&
        std::any_of(known.begin(), known.end(),
                    [](const Rail& rail) { return rail.subsystem == "powercap"; });
    if (isWrapping && isatty(STDERR_FILENO) != 0) {
        say("the counters of powercap wrap, and energy is lost between two readings (start "
            "powerstatsd, and add --bus)");
    }
    const Failure& entities = reading.entitiesFailure;
    if (entities && entities.kind != Kind::kTimedOut) say("power entities: " + entities.text);
    if (!entities || (!isRailsFault && !arguments.noRails)) {
        *text = formatMetrics(reading, arguments.format);
    }
    return isRailsFault || entities ? kFailed : 0;
}

int metrics(const MetricsArguments& arguments) {
    // The unit's time limit ends a reading that hangs.
    gOutput = arguments.output.c_str();
    for (const int number : {SIGHUP, SIGINT, SIGTERM}) {
        if (*gOutput != '\0') std::signal(number, removeOutput);
    }
    std::optional<std::string> text;
    const int status = collect(arguments, &text);
    const std::string& output = arguments.output;
    if (text && (output.empty() ? writeOutput(*text) : writeFile(output, *text))) return status;
    // Totals that stand still would look like a machine that uses no power. A series that ends
    // looks like one that is not measured.
    if (!output.empty()) unlink(output.c_str());
    return status != 0 ? status : kFailed;
}

}  // namespace

CommandLine makeMetrics() {
    const auto arguments = std::make_shared<MetricsArguments>();
    CommandLine command = {
        "metrics", "Print the totals of a service once, for Prometheus.",
        "Energy is in joules and time in seconds, at full precision. Rails that were not measured\n"
        "since boot are there too. The document fleet.md has the way to Prometheus.\n"
        "Exit status: 0 the metrics were written, 1 rails or power entities could not be read, or\n"
        "the metrics could not be written, 2 bad argument. When nothing could be read or written,\n"
        "the file of --output is removed, because old totals would mislead; so it is by SIGTERM.\n"
        "Example: powerstats metrics --no-rails"};
    addSourceOptions(&command, &arguments->source);
    addTimeout(&command, &arguments->source);
    command.addOption("--format", "The text format",
                      choice(&arguments->format, {"prometheus", "openmetrics"}));
    command.addOption("--no-rails", "Leave out energy", flag(&arguments->noRails));
    // A new file must not replace folders, devices and links.
    const auto takeOutput = [arguments](const std::string& path) -> std::string {
        using std::filesystem::file_type;
        arguments->output = path;
        std::error_code error;
        const file_type type = std::filesystem::symlink_status(path, error).type();
        const bool isPlain = type == file_type::regular || type == file_type::not_found;
        if (isPlain && !path.empty()) return "";
        return path + ": not a plain file (name a file that may be replaced)";
    };
    command.addOption("--output",
                      "Replace this file as a whole; only you and your group can read it",
                      {"FILE", "", "", takeOutput});
    command.run = [arguments] { return metrics(*arguments); };
    return command;
}

}  // namespace powerstats
