// SPDX-License-Identifier: Apache-2.0

#include "tools/metrics/MetricsText.h"

#include <fmt/format.h>

#include <cstdint>

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

    void add(const std::string& labels, int64_t total) {
        // In digits, since a double has not enough of them.
        std::string value = fmt::format("{:0{}}", total, decimals + 1);
        if (decimals > 0) value.insert(value.size() - decimals, ".");
        samples += fmt::format("{}_total{{{}}} {}\n", name, labels, value);
    }
};

}  // namespace

std::string formatMetrics(const Reading& reading, const std::string& format) {
    Family families[] = {
        {"powerstats_rail_energy_joules", "joules",
         "Energy that a power rail carried, since boot or since its counter began.", 6},
        {"powerstats_state_residency_seconds", "seconds",
         "Time that a power entity spent in a state since boot.", 3},
        {"powerstats_state_entries", "", "Entries of a power entity into a state since boot.", 0}};
    auto& [energy, residency, entries] = families;

    const Lists& lists = *reading.lists;
    for (size_t i = 0; i < lists.rails.size(); ++i) {
        if (!reading.rails[i]) continue;
        energy.add(label("rail", lists.rails[i].name), reading.rails[i]->energyUWs);
    }
    for (size_t i = 0; i < lists.entities.size(); ++i) {
        const auto& [id, name, type, states] = lists.entities[i];
        for (size_t j = 0; j < states.size() && reading.entities[i]; ++j) {
            const Residency& state = reading.entities[i]->states[j];
            const std::string labels = label("entity", name) + "," + label("state", states[j].name);
            residency.add(labels, toMilliseconds(state.totalTime));
            entries.add(labels, state.entryCount);
        }
    }
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

}  // namespace powerstats
