// SPDX-License-Identifier: Apache-2.0

#include "tools/MetricsText.h"

#include <fmt/format.h>

#include <vector>

#include "hal/NamesAndIds.h"

namespace powerstats {

namespace {

/// The lines of one counter.
struct Family {
    const char* name;  ///< without `_total`
    const char* unit;  ///< empty: a plain number
    const char* help;
    std::string samples;

    /// Adds a reading, unless it is negative: no counter is, and one such line would have the whole
    /// text refused.
    void add(const std::string& labels, int64_t total, int64_t perUnit) {
        if (total < 0) return;
        // As integers, since a double has not enough digits.
        std::string value = std::to_string(total / perUnit);
        if (perUnit > 1) {
            const std::string fraction = std::to_string(perUnit + total % perUnit);
            value += "." + fraction.substr(1);
        }
        samples += fmt::format("{}_total{{{}}} {}\n", name, labels, value);
    }
};

/// Formats a label. A name from distinctNames() has no line break that would have to be escaped.
std::string label(const char* key, const std::string& name) {
    std::string value;
    for (const char character : name) {
        if (character == '\\' || character == '"') value += '\\';
        value += character;
    }
    return fmt::format("{}=\"{}\"", key, value);
}

std::string qualifiedName(const Snapshot::Rail& rail) {
    return rail.subsystem + "/" + rail.name;
}

/// For an entity or a state.
template <typename Thing>
std::string qualifiedName(const Thing& thing) {
    return thing.name;
}

/// Names things for labels. Namesakes get their ids: unlike a place in a list, an id stays when
/// another thing comes or goes, so no series goes on as another one.
template <typename Thing>
std::vector<std::string> labelNames(const std::vector<Thing>& things) {
    std::vector<std::vector<std::string>> choices;
    choices.reserve(things.size());
    for (const Thing& thing : things) {
        const std::string name = qualifiedName(thing);
        choices.push_back({thing.name, name, fmt::format("{} (id {})", name, thing.id)});
    }
    return distinctNames(choices);
}

std::string text(const Family& family, MetricsFormat format) {
    if (family.samples.empty()) return {};
    const bool open = format == MetricsFormat::kOpenMetrics;
    const std::string name = std::string(family.name) + (open ? "" : "_total");
    std::string header = fmt::format("# HELP {0} {1}\n# TYPE {0} counter\n", name, family.help);
    if (open && *family.unit != '\0') header += fmt::format("# UNIT {} {}\n", name, family.unit);
    return header + family.samples;
}

}  // namespace

std::string formatMetrics(const Snapshot& snapshot, MetricsFormat format) {
    Family energy{"powerstats_rail_energy_joules", "joules",
                  "Energy that a power rail carried, since boot or since its counter began.", ""};
    Family residency{"powerstats_state_residency_seconds", "seconds",
                     "Time that a power entity spent in a state since boot.", ""};
    Family entries{"powerstats_state_entries", "",
                   "Entries of a power entity into a state since boot.", ""};

    const std::vector<std::string> rails = labelNames(snapshot.rails);
    for (size_t i = 0; i < rails.size(); ++i) {
        const auto& reading = snapshot.rails[i].energy;
        if (reading) energy.add(label("rail", rails[i]), reading->energyUWs, 1'000'000);
    }
    const std::vector<std::string> entities = labelNames(snapshot.entities);
    for (size_t i = 0; i < entities.size(); ++i) {
        const auto& states = snapshot.entities[i].states;
        const std::vector<std::string> names = labelNames(states);
        for (size_t j = 0; j < names.size(); ++j) {
            if (!states[j].residency) continue;
            const std::string labels =
                label("entity", entities[i]) + "," + label("state", names[j]);
            residency.add(labels, states[j].residency->totalTimeMs, 1000);
            entries.add(labels, states[j].residency->entryCount, 1);
        }
    }
    return text(energy, format) + text(residency, format) + text(entries, format) +
           (format == MetricsFormat::kOpenMetrics ? "# EOF\n" : "");
}

}  // namespace powerstats
