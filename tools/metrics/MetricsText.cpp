// SPDX-License-Identifier: Apache-2.0

#include "tools/metrics/MetricsText.h"

#include <fmt/format.h>

#include <vector>

namespace powerstats {

namespace {

/// The lines of one counter.
struct Family {
    const char* name;  ///< without `_total`
    const char* unit;  ///< empty: a plain number
    const char* help;
    std::string samples;

    /// @param labels [in] with their braces; empty when there are none.
    /// @param perUnit [in] how much of the total is one unit.
    void add(const std::string& labels, int64_t total, int64_t perUnit) {
        // As integers, since a double has not enough digits.
        std::string value = std::to_string(total / perUnit);
        if (perUnit > 1) {
            const std::string fraction = std::to_string(perUnit + total % perUnit);
            value += "." + fraction.substr(1);
        }
        samples += fmt::format("{}_total{} {}\n", name, labels, value);
    }
};

/// Formats a label. Names of lists have no line break that would have to be escaped.
std::string label(const char* key, const std::string& name) {
    std::string value;
    for (const char character : name) {
        if (character == '\\' || character == '"') value += '\\';
        value += character;
    }
    return fmt::format("{}=\"{}\"", key, value);
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

std::string formatMetrics(const Reading& reading, MetricsFormat format) {
    Family energy{"powerstats_rail_energy_joules", "joules",
                  "Energy that a power rail carried, since boot or since its counter began.", ""};
    Family residency{"powerstats_state_residency_seconds", "seconds",
                     "Time that a power entity spent in a state since boot.", ""};
    Family entries{"powerstats_state_entries", "",
                   "Entries of a power entity into a state since boot.", ""};

    Family time{"powerstats_reading_time_seconds", "seconds",
                "Time of the reading since boot, with suspend. A rate by this one's rate is exact, "
                "however often the totals are read.",
                ""};

    const Lists& lists = *reading.lists;
    for (size_t i = 0; i < lists.rails.size(); ++i) {
        const std::optional<Energy>& rail = reading.rails[i];
        // A counter that may have wrapped before its first reading has counted nothing yet.
        if (!rail || (rail->energyUWs == 0 && rail->duration == nanoseconds::zero())) continue;
        energy.add(fmt::format("{{{}}}", label("rail", lists.rails[i].name)), rail->energyUWs,
                   1'000'000);
    }
    for (size_t i = 0; i < lists.entities.size(); ++i) {
        if (!reading.entities[i]) continue;
        for (size_t j = 0; j < lists.entities[i].states.size(); ++j) {
            const Residency& state = reading.entities[i]->states[j];
            const std::string labels =
                fmt::format("{{{},{}}}", label("entity", lists.entities[i].name),
                            label("state", lists.entities[i].states[j].name));
            residency.add(labels, toMilliseconds(state.totalTime), 1000);
            entries.add(labels, state.entryCount, 1);
        }
    }
    std::string all = text(energy, format) + text(residency, format) + text(entries, format);
    if (!all.empty()) {
        time.add("", reading.time.count(), 1'000'000'000);
        all += text(time, format);
    }
    return all + (format == MetricsFormat::kOpenMetrics ? "# EOF\n" : "");
}

}  // namespace powerstats
