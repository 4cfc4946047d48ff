// SPDX-License-Identifier: Apache-2.0

#include "power/text/Page.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "power/text/Names.h"

namespace powerstats {

namespace {

constexpr size_t kIndent = 2;
constexpr size_t kLineWidth = 80;
constexpr size_t kNumberWidth = 16;

const std::string& textOf(const Json& row, const char* key) {
    return row[key].get_ref<const std::string&>();
}

/// Formats one row of a table: a name, and right-aligned columns after it.
std::string tableRow(size_t indent, const std::string& name,
                     const std::vector<std::string>& columns) {
    const size_t nameWidth = kLineWidth - indent - columns.size() * (kNumberWidth + 1);
    std::string text(indent, ' ');
    size_t width = 0;
    for (const char byte : name) {
        const bool isFirst = (static_cast<unsigned char>(byte) & 0xc0) != 0x80;  // of a character
        if (isFirst && width++ == nameWidth) {
            text += '\n' + std::string(indent, ' ');
            width = 1;
        }
        text += byte;
    }
    if (!columns.empty()) text += std::string(nameWidth - width, ' ');
    for (const std::string& column : columns) text += fmt::format(" {:>{}}", column, kNumberWidth);
    return text.erase(text.find_last_not_of(' ') + 1) + '\n';
}

std::string formatFigure(const Json& figure, int digits) {
    if (figure.is_null()) return "";
    if (figure.is_string()) return figure;
    return figure.is_number_float() ? fmt::format("{:.{}f}", figure.get<double>(), digits)
                                    : figure.dump();
}

/// Hands over each figure that has a column of CSV: the parts of the column's name, and the figure
/// or std::nullopt. The names are not joined here, because most intervals need the figures alone.
template <typename Take>
void forFigures(const Interval& interval, const Take& take) {
    using Parts = std::array<std::string_view, 4>;
    for (size_t i = 0; i < interval.rails.size(); ++i) {
        const Interval::RailFigures& rail = interval.rails[i];
        take(Parts{"rail", interval.lists->rails[i].name, "mw"}, rail.trouble, rail.milliwatts);
    }
    for (size_t i = 0; i < interval.entities.size(); ++i) {
        const Interval::EntityFigures& entity = interval.entities[i];
        const Entity& names = interval.lists->entities[i];
        for (size_t j = 0; j < entity.states.size(); ++j) {
            const auto& [time, entries, share, entriesPerSecond] = entity.states[j];
            const std::string& state = names.states[j].name;
            take(Parts{"entity", names.name, state, "percent"}, entity.trouble, share * 100);
            take(Parts{"entity", names.name, state, "entries_per_s"}, entity.trouble,
                 entriesPerSecond);
        }
        take(Parts{"entity", names.name, kNoState, "percent"}, entity.trouble,
             entity.noneShare * 100);
    }
}

}  // namespace

std::string formatTable(const char* heading, const std::vector<Column>& columns, const Json& rows) {
    if (rows.empty()) return "";
    std::vector<std::string> cells(columns.size());
    for (size_t i = 0; i < cells.size(); ++i) cells[i] = columns[i].heading;
    std::string text = tableRow(kIndent, heading, cells);
    const auto addFigures = [&](size_t indent, const Json& row) {
        for (size_t i = 0; i < cells.size(); ++i) {
            cells[i] = formatFigure(row.value(columns[i].key, Json()), columns[i].digits);
        }
        text += tableRow(indent, textOf(row, "name"), cells);
    };
    for (const Json& row : rows) {
        const std::string& name = textOf(row, "name");
        if (const std::string trouble = row.value("trouble", ""); !trouble.empty()) {
            text += tableRow(kIndent, name, {trouble});
        } else if (row.contains("steady")) {
            text += tableRow(kIndent, name + ": " + textOf(row, "steady"), {"100.0", ""});
        } else if (row.contains("states")) {
            text += tableRow(kIndent, name, {});
            for (const Json& state : row["states"]) addFigures(2 * kIndent, state);
        } else {
            addFigures(kIndent, row);
        }
    }
    return text;
}

std::string csvField(std::string_view text) {
    std::string field(text);
    if (!field.empty() && std::string_view("=+-@").find(field[0]) != std::string_view::npos) {
        field = fmt::format("\\x{:02X}", field[0]) + field.substr(1);
    }
    if (field.find_first_of(",\"") == std::string::npos) return field;
    for (size_t i = 0; (i = field.find('"', i)) != std::string::npos; i += 2) field.insert(i, "\"");
    return '"' + field + '"';
}

std::string afterBoot(nanoseconds time) {
    const auto timestamp = std::chrono::floor<std::chrono::milliseconds>(time);
    if (timestamp.count() == 0) return "an unknown time";  // the clock could not be read
    const auto days = timestamp / std::chrono::hours(24);
    return fmt::format("{}{:%T} after boot ({} ms)", days == 0 ? "" : fmt::format("{} d ", days),
                       timestamp, timestamp.count());
}

std::vector<std::string> notesOf(const Interval& interval) {
    std::vector<std::string> notes;
    if (interval.suspended != nanoseconds::zero()) {
        notes.push_back(fmt::format("the machine was suspended for {} ms of it",
                                    roundToMilliseconds(interval.suspended)));
    }
    const Failure& rails = interval.railsFailure;
    const Failure& entities = interval.entitiesFailure;
    const bool isSame = rails.text == entities.text;
    // What a machine does not measure is said once, at the start.
    if (rails && rails.kind != Failure::Kind::kNotMeasured) {
        notes.push_back((isSame ? "rails and power entities: " : "rails: ") + rails.text);
    }
    if (entities && !isSame) notes.push_back("power entities: " + entities.text);
    for (size_t i = 0; i < interval.entities.size(); ++i) {
        if (!interval.entities[i].isOverfull) continue;
        notes.push_back(interval.lists->entities[i].name +
                        ": more time in states than passed (a stay is counted when it ends)");
    }
    return notes;
}

Json toJson(const Interval& interval) {
    Json rails = Json::array();
    Json entities = Json::array();
    Trouble trouble{};
    const auto ifKnown = [&trouble](auto figure) {
        return trouble == Trouble::kNone ? Json(figure) : Json();
    };
    for (size_t i = 0; i < interval.rails.size(); ++i) {
        const Rail& names = interval.lists->rails[i];
        const Interval::RailFigures& rail = interval.rails[i];
        trouble = rail.trouble;
        rails.push_back({{"id", names.id},
                         {"name", names.name},
                         {"subsystem", names.subsystem},
                         {"timestamp_ms", ifKnown(toMilliseconds(rail.time))},
                         {"interval_ms", ifKnown(roundToMilliseconds(rail.elapsed))},
                         {"energy_uws", ifKnown(rail.energyUWs)},
                         {"power_mw", ifKnown(rail.milliwatts)},
                         {"trouble", toText(trouble)}});
    }
    for (size_t i = 0; i < interval.entities.size(); ++i) {
        const Entity& names = interval.lists->entities[i];
        const Interval::EntityFigures& entity = interval.entities[i];
        trouble = entity.trouble;
        Json states = Json::array();
        for (size_t j = 0; j < entity.states.size(); ++j) {
            const Interval::StateFigures& state = entity.states[j];
            states.push_back({{"id", names.states[j].id},
                              {"name", names.states[j].name},
                              {"time_ms", ifKnown(roundToMilliseconds(state.time))},
                              {"share_percent", ifKnown(state.share * 100)},
                              {"entries", ifKnown(state.entries)},
                              {"entries_per_s", ifKnown(state.entriesPerSecond)}});
        }
        entities.push_back({{"id", names.id},
                            {"name", names.name},
                            {"interval_ms", ifKnown(roundToMilliseconds(entity.elapsed))},
                            {"states", std::move(states)},
                            {"none_of_these_percent", ifKnown(entity.noneShare * 100)},
                            {"trouble", toText(trouble)}});
    }
    return {{"timestamp_ms", toMilliseconds(interval.time)},
            {"interval_ms", roundToMilliseconds(interval.elapsed)},
            {"suspended_ms", roundToMilliseconds(interval.suspended)},
            {"rails", std::move(rails)},
            {"entities", std::move(entities)},
            {"notes", notesOf(interval)}};
}

std::string IntervalPrinter::printCsv(const Interval& interval) {
    std::string header;
    if (mPlacesOf != interval.lists) {
        mPlacesOf = interval.lists;
        std::vector<std::vector<std::string>> names{
            {"timestamp_ms"}, {"interval_ms"}, {"suspended_ms"}};
        forFigures(interval, [&](const auto& parts, Trouble, double) {
            const auto end = std::find(parts.begin(), parts.end(), "");
            names.push_back({fmt::format("{}", fmt::join(parts.begin(), end, "."))});
        });
        names.push_back({"notes"});
        std::vector<std::string> columns = distinctNames(names);
        const bool isNew = std::any_of(columns.begin(), columns.end(),
                                       [&](const auto& name) { return mColumns.count(name) == 0; });
        if (isNew) mColumns.clear();
        mPlaces.clear();
        for (std::string& column : columns) {
            mPlaces.push_back(mColumns.emplace(column, mColumns.size()).first->second);
            column = csvField(column);
        }
        if (isNew) header = fmt::format("{}\n", fmt::join(columns, ","));
    }
    std::vector<std::string> fields(mColumns.size());
    auto place = mPlaces.begin();
    for (const int64_t number :
         {toMilliseconds(interval.time), roundToMilliseconds(interval.elapsed),
          roundToMilliseconds(interval.suspended)}) {
        fields[*place++] = std::to_string(number);
    }
    std::vector<std::string> notes = notesOf(interval);
    std::string_view troubled;
    forFigures(interval, [&](const auto& parts, Trouble trouble, double figure) {
        std::string& field = fields[*place++];
        if (trouble == Trouble::kNone) field = fmt::format("{:.3f}", figure);
        if (trouble == Trouble::kNone || troubled.data() == parts[1].data()) return;
        troubled = parts[1];
        notes.push_back(fmt::format("{} {}", troubled, toText(trouble)));
    });
    fields[*place] = csvField(fmt::format("{}", fmt::join(notes, "; ")));
    return header + fmt::format("{}\n", fmt::join(fields, ","));
}

std::string IntervalPrinter::print(const Interval& interval) {
    if (mFormat == "csv") return printCsv(interval);
    Json json = toJson(interval);
    if (mFormat == "jsonl") return printJson(json) + '\n';
    for (size_t i = 0; i < interval.entities.size(); ++i) {
        Json& entity = json["entities"][i];
        if (const char* const state = steadyState(interval, i)) entity["steady"] = state;
        if (interval.entities[i].noneShare == 0) continue;
        entity["states"].push_back(
            {{"name", kNoState}, {"share_percent", entity["none_of_these_percent"]}});
    }
    std::string text = fmt::format("{} ms to {}\n", roundToMilliseconds(interval.elapsed),
                                   afterBoot(interval.time));
    text += formatTable("rail", {{"power_mw", "power (mW)", 1}}, json["rails"]);
    text += formatTable("entity and state",
                        {{"share_percent", "time (%)", 1}, {"entries_per_s", "entries/s", 1}},
                        json["entities"]);
    // Those of single rails and entities are in their rows.
    for (const Json& note : json["notes"]) text += fmt::format("  {}\n", note.get<std::string>());
    return text + '\n';
}

}  // namespace powerstats
