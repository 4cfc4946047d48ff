// SPDX-License-Identifier: Apache-2.0

#include "tools/IntervalPrinter.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <utility>

#include "hal/NamesAndIds.h"
#include "tools/TextTable.h"

namespace powerstats {

namespace {

std::string percent(double share) {
    return fmt::format("{:.1f}", share * 100);
}

std::string railRows(const Interval& interval) {
    std::string text = tableRow(kIndent, "rail", {"power (mW)"});
    for (const Interval::Rail& rail : interval.rails) {
        text += tableRow(kIndent, rail.name,
                         {rail.trouble == Trouble::kNone ? fmt::format("{:.1f}", rail.milliwatts)
                                                         : toText(rail.trouble)});
    }
    return text;
}

std::string entityRows(const Interval& interval) {
    std::string text = tableRow(kIndent, "entity and state", {"time (%)", "entries/s"});
    for (const Interval::Entity& entity : interval.entities) {
        if (entity.trouble != Trouble::kNone) {
            text += tableRow(kIndent, entity.name, {toText(entity.trouble)});
            continue;
        }
        if (const char* const state = steadyState(entity)) {
            text += tableRow(kIndent, entity.name + ": " + state, {"100.0", ""});
            continue;
        }
        text += tableRow(kIndent, entity.name, {});
        for (const Interval::State& state : entity.states) {
            text += tableRow(2 * kIndent, state.name,
                             {percent(state.share), fmt::format("{:.1f}", state.entriesPerSecond)});
        }
        if (entity.noneShare > 0) {
            text += tableRow(2 * kIndent, kNoState, {percent(entity.noneShare), ""});
        }
    }
    return text;
}

std::string printTable(const Interval& interval) {
    std::string text =
        fmt::format("{} ms to {}\n", interval.elapsedMs, afterBoot(interval.timestampMs));
    if (!interval.rails.empty()) text += railRows(interval);
    if (!interval.entities.empty()) text += entityRows(interval);
    // Those of single rails and entities are in their rows.
    for (const std::string& note : notesOf(interval)) text += "  " + note + '\n';
    return text + '\n';
}

Json nullUnless(bool condition, const Json& value) {
    return condition ? value : Json();
}

/// The figures of an interval by their columns, in order; an empty text where one is not known.
std::vector<std::pair<std::string, std::string>> csvFigures(const Interval& interval) {
    std::vector<std::pair<std::string, std::string>> figures;
    const auto add = [&](std::string column, Trouble trouble, double value) {
        figures.emplace_back(std::move(column),
                             trouble == Trouble::kNone ? fmt::format("{:.3f}", value) : "");
    };
    for (const Interval::Rail& rail : interval.rails) {
        add("rail." + rail.name + ".mw", rail.trouble, rail.milliwatts);
    }
    for (const Interval::Entity& entity : interval.entities) {
        const std::string name = "entity." + entity.name + ".";
        for (const Interval::State& state : entity.states) {
            add(name + state.name + ".percent", entity.trouble, state.share * 100);
            add(name + state.name + ".entries_per_s", entity.trouble, state.entriesPerSecond);
        }
        add(name + kNoState + ".percent", entity.trouble, entity.noneShare * 100);
    }
    return figures;
}

}  // namespace

std::vector<std::string> notesOf(const Interval& interval) {
    std::vector<std::string> notes;
    if (interval.suspendedMs != 0) {
        notes.push_back(
            fmt::format("the machine was suspended for {} ms of it", interval.suspendedMs));
    }
    const bool isShared = interval.railsError == interval.entitiesError;
    if (!interval.railsError.empty()) {
        notes.push_back((isShared ? "rails and power entities: " : "rails: ") +
                        safeName(interval.railsError, SIZE_MAX));
    }
    if (!interval.entitiesError.empty() && !isShared) {
        notes.push_back("power entities: " + safeName(interval.entitiesError, SIZE_MAX));
    }
    for (const Interval::Entity& entity : interval.entities) {
        if (!entity.isOverfull) continue;
        notes.push_back(safeName(entity.name, SIZE_MAX) +
                        ": more time in states than passed (a stay is counted when it ends)");
    }
    return notes;
}

Json toJson(const Interval& interval) {
    std::vector<Json> rails;
    for (const Interval::Rail& rail : interval.rails) {
        const bool isKnown = rail.trouble == Trouble::kNone;
        rails.push_back(Json::object({{"id", rail.id},
                                      {"name", safeName(rail.name, SIZE_MAX)},
                                      {"subsystem", safeName(rail.subsystem, SIZE_MAX)},
                                      {"timestamp_ms", nullUnless(isKnown, rail.timestampMs)},
                                      {"interval_ms", nullUnless(isKnown, rail.elapsedMs)},
                                      {"energy_uws", nullUnless(isKnown, rail.energyUWs)},
                                      {"power_mw", nullUnless(isKnown, rail.milliwatts)},
                                      {"trouble", toText(rail.trouble)}}));
    }
    std::vector<Json> entities;
    for (const Interval::Entity& entity : interval.entities) {
        const bool isKnown = entity.trouble == Trouble::kNone;
        std::vector<Json> states;
        for (const Interval::State& state : entity.states) {
            states.push_back(
                Json::object({{"id", state.id},
                              {"name", safeName(state.name, SIZE_MAX)},
                              {"time_ms", nullUnless(isKnown, state.timeMs)},
                              {"share_percent", nullUnless(isKnown, state.share * 100)},
                              {"entries", nullUnless(isKnown, state.entries)},
                              {"entries_per_s", nullUnless(isKnown, state.entriesPerSecond)}}));
        }
        entities.push_back(
            Json::object({{"id", entity.id},
                          {"name", safeName(entity.name, SIZE_MAX)},
                          {"states", Json::array(states)},
                          {"none_of_these_percent", nullUnless(isKnown, entity.noneShare * 100)},
                          {"trouble", toText(entity.trouble)}}));
    }
    const std::vector<std::string> notes = notesOf(interval);
    return Json::object({{"timestamp_ms", interval.timestampMs},
                         {"interval_ms", interval.elapsedMs},
                         {"suspended_ms", interval.suspendedMs},
                         {"rails", Json::array(rails)},
                         {"entities", Json::array(entities)},
                         {"notes", Json::array({notes.begin(), notes.end()})}});
}

std::string csvField(const std::string& name) {
    std::string text = safeName(name, SIZE_MAX);
    if (!text.empty() && std::string("=+-@").find(text[0]) != std::string::npos) {
        text = fmt::format("\\x{:02X}", text[0]) + text.substr(1);
    }
    if (text.find_first_of(",\"") == std::string::npos) return text;
    std::string quoted;
    for (const char character : text)
        quoted += character == '"' ? "\"\"" : std::string(1, character);
    return '"' + quoted + '"';
}

std::string IntervalPrinter::printCsv(const Interval& interval) {
    std::map<std::string, std::string> known;
    std::vector<std::string> columns;
    for (auto& [column, figure] : csvFigures(interval)) {
        columns.push_back(column);
        known.emplace(column, std::move(figure));
    }
    std::string text;
    const bool allKnown =
        mColumns && std::all_of(columns.begin(), columns.end(), [&](const auto& column) {
            return std::find(mColumns->begin(), mColumns->end(), column) != mColumns->end();
        });
    if (!allKnown) {
        mColumns = columns;
        text = "timestamp_ms,interval_ms,suspended_ms";
        for (const std::string& column : *mColumns) text += ',' + csvField(column);
        text += ",notes\n";
    }
    text += fmt::format("{},{},{}", interval.timestampMs, interval.elapsedMs, interval.suspendedMs);
    for (const std::string& column : *mColumns) text += ',' + known[column];
    std::vector<std::string> notes = notesOf(interval);
    for (const Interval::Rail& rail : interval.rails) {
        if (rail.trouble != Trouble::kNone) notes.push_back(rail.name + ' ' + toText(rail.trouble));
    }
    for (const Interval::Entity& entity : interval.entities) {
        if (entity.trouble != Trouble::kNone) {
            notes.push_back(entity.name + ' ' + toText(entity.trouble));
        }
    }
    std::string joined;
    for (const std::string& note : notes) joined += (joined.empty() ? "" : "; ") + note;
    return text + ',' + csvField(joined) + '\n';
}

std::string IntervalPrinter::print(const Interval& interval) {
    if (mFormat == "csv") return printCsv(interval);
    return mFormat == "jsonl" ? toJson(interval).toText(-1) + '\n' : printTable(interval);
}

}  // namespace powerstats
