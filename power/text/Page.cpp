// SPDX-License-Identifier: Apache-2.0

#include "power/text/Page.h"

#include <fmt/format.h>

#include <numeric>
#include <unordered_map>
#include <utility>

#include "power/text/Names.h"

namespace powerstats {

namespace {

constexpr size_t kIndent = 2;
constexpr size_t kLineWidth = 80;
constexpr size_t kNumberWidth = 16;

/// Formats one row of a table: a name, and right-aligned columns after it.
std::string tableRow(size_t indent, const std::string& name,
                     const std::vector<std::string>& columns) {
    const size_t nameWidth = kLineWidth - indent - columns.size() * (kNumberWidth + 1);
    std::string text(indent, ' ');
    size_t width = 0;
    for (size_t i = 0, size; i < name.size(); i += size, ++width) {
        size = decodeUtf8(name, i).size;
        if (width == nameWidth) {
            text += '\n' + std::string(indent, ' ');
            width = 0;
        }
        text += name.substr(i, size);
    }
    if (!columns.empty()) text += std::string(nameWidth - width, ' ');
    for (const std::string& column : columns) text += fmt::format(" {:>{}}", column, kNumberWidth);
    return text.erase(text.find_last_not_of(' ') + 1) + '\n';
}

std::vector<std::string> tableCells(const Row& row, const std::vector<Column>& columns) {
    std::vector<std::string> cells;
    for (size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].heading == nullptr) continue;
        cells.push_back(i < row.cells.size() ? formatCell(row.cells[i], columns[i].digits) : "");
    }
    return cells;
}

Json::Object toJson(const Row& row, const std::vector<Column>& columns,
                    const std::vector<Column>& stateColumns) {
    Json::Object object;
    if (row.id) object.emplace_back("id", *row.id);
    object.emplace_back("name", row.name);
    if (row.subsystem) object.emplace_back("subsystem", *row.subsystem);
    for (size_t i = 0; i < columns.size(); ++i) {
        if (columns[i].key != std::string_view(kStates)) {
            object.emplace_back(columns[i].key, toJson(row.cells[i]));
            continue;
        }
        Json::Array states;
        for (const Row& state : row.states) {
            if (!state.isRest) states.emplace_back(toJson(state, stateColumns, {}));
        }
        object.emplace_back(kStates, states);
    }
    if (row.trouble != nullptr) object.emplace_back("trouble", row.trouble);
    return object;
}

/// The figures that CSV has, after the names of their columns.
using CsvFigures = std::vector<std::pair<std::string, Cell>>;

CsvFigures csvFiguresOf(const std::vector<Section>& sections) {
    CsvFigures figures;
    const auto add = [&](const std::string& name, const Row& row,
                         const std::vector<Column>& columns) {
        for (size_t i = 0; i < row.cells.size(); ++i) {
            if (columns[i].csvSuffix == nullptr) continue;
            figures.emplace_back(name + columns[i].csvSuffix, row.cells[i]);
        }
    };
    for (const Section& section : sections) {
        for (const Row& row : section.rows) {
            add(fmt::format("rail.{}", row.name), row, section.columns);
            for (const Row& state : row.states) {
                add(fmt::format("entity.{}.{}", row.name, state.name), state, section.stateColumns);
            }
        }
    }
    return figures;
}

/// The cells where they are known, otherwise as many without a figure.
template <typename... Values>
std::vector<Cell> cellsIf(bool isKnown, Values... values) {
    if (!isKnown) return std::vector<Cell>(sizeof...(values));
    return {Cell(values)...};
}

}  // namespace

std::string formatCell(const Cell& cell, int digits) {
    if (const auto* number = std::get_if<int64_t>(&cell)) return fmt::to_string(*number);
    if (const auto* number = std::get_if<double>(&cell)) {
        return fmt::format("{:.{}f}", *number, digits);
    }
    if (const auto* spread = std::get_if<Spread>(&cell)) {
        std::string mean = fmt::format("{:.{}f}", spread->mean, digits);
        if (!spread->deviation) return mean;
        return fmt::format("{} ± {:.{}f}", mean, *spread->deviation, digits);
    }
    return "";
}

std::string formatTable(const Section& section) {
    std::vector<std::string> headings;
    for (const auto* columns : {&section.columns, &section.stateColumns}) {
        for (const Column& column : *columns) {
            if (column.heading != nullptr) headings.emplace_back(column.heading);
        }
    }
    std::string text = tableRow(kIndent, section.heading, headings);
    for (const Row& row : section.rows) {
        const std::string name(row.name);
        if (row.trouble != nullptr && *row.trouble != '\0') {
            text += tableRow(kIndent, name, {row.trouble});
            continue;
        }
        if (row.steady != nullptr) {
            text += tableRow(kIndent, name + ": " + row.steady, {"100.0", ""});
            continue;
        }
        text += tableRow(kIndent, name, tableCells(row, section.columns));
        for (const Row& state : row.states) {
            text += tableRow(2 * kIndent, std::string(state.name),
                             tableCells(state, section.stateColumns));
        }
    }
    return text;
}

Json toJson(const Cell& cell) {
    if (const auto* number = std::get_if<int64_t>(&cell)) return *number;
    if (const auto* number = std::get_if<double>(&cell)) return *number;
    const auto* const spread = std::get_if<Spread>(&cell);
    if (spread == nullptr) return {};
    return Json::Object{{"mean", spread->mean},
                        {"standard_deviation", spread->deviation.value_or(0)}};
}

Json toJson(const Section& section) {
    Json::Array list;
    for (const Row& row : section.rows) {
        list.emplace_back(toJson(row, section.columns, section.stateColumns));
    }
    return list;
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
    const int64_t timestampMs = toMilliseconds(time);
    if (timestampMs == 0) return "an unknown time";  // the clock could not be read
    const int64_t seconds = timestampMs / 1000;
    const int64_t days = seconds / 86400;
    return fmt::format("{}{:02}:{:02}:{:02}.{:03} after boot ({} ms)",
                       days == 0 ? "" : fmt::format("{} d ", days), seconds / 3600 % 24,
                       seconds / 60 % 60, seconds % 60, timestampMs % 1000, timestampMs);
}

std::vector<Section> sectionsOf(const Interval& interval) {
    Section rails{
        "rails",
        "rail",
        {{"timestamp_ms"}, {"interval_ms"}, {"energy_uws"}, {"power_mw", "power (mW)", 1, ".mw"}}};
    const Lists& lists = *interval.lists;
    for (size_t i = 0; i < lists.rails.size(); ++i) {
        const Interval::RailFigures& rail = interval.rails[i];
        rails.rows.push_back(
            {lists.rails[i].name, lists.rails[i].id, lists.rails[i].subsystem,
             cellsIf(rail.trouble == Trouble::kNone, toMilliseconds(rail.time),
                     roundToMilliseconds(rail.elapsed), rail.energyUWs, rail.milliwatts),
             toText(rail.trouble)});
    }
    Section entities{"entities",
                     "entity and state",
                     {{"interval_ms"}, {kStates}, {"none_of_these_percent"}},
                     {{"time_ms"},
                      {"share_percent", "time (%)", 1, ".percent"},
                      {"entries"},
                      {"entries_per_s", "entries/s", 1, ".entries_per_s"}}};
    for (size_t i = 0; i < lists.entities.size(); ++i) {
        const Interval::EntityFigures& entity = interval.entities[i];
        const bool isKnown = entity.trouble == Trouble::kNone;
        Row& row = entities.rows.emplace_back();
        row.name = lists.entities[i].name;
        row.id = lists.entities[i].id;
        row.cells = cellsIf(isKnown, roundToMilliseconds(entity.elapsed), std::monostate(),
                            entity.noneShare * 100);
        row.trouble = toText(entity.trouble);
        row.steady = steadyState(interval, i);
        for (size_t j = 0; j < entity.states.size(); ++j) {
            const Interval::StateFigures& state = entity.states[j];
            row.states.push_back(
                {lists.entities[i].states[j].name, lists.entities[i].states[j].id, std::nullopt,
                 cellsIf(isKnown, roundToMilliseconds(state.time), state.share * 100, state.entries,
                         state.entriesPerSecond)});
        }
        Row& rest = row.states.emplace_back();
        rest.name = kNoState;
        rest.isRest = true;
        rest.cells = cellsIf(isKnown, std::monostate(), entity.noneShare * 100);
    }
    return {std::move(rails), std::move(entities)};
}

std::vector<std::string> notesOf(const Interval& interval) {
    std::vector<std::string> notes;
    if (interval.suspended != nanoseconds::zero()) {
        notes.push_back(fmt::format("the machine was suspended for {} ms of it",
                                    roundToMilliseconds(interval.suspended)));
    }
    const Failure& rails = interval.railsFailure;
    const Failure& entities = interval.entitiesFailure;
    // What a machine does not measure is said once, at the start.
    if (rails && rails.kind != Failure::Kind::kNotMeasured) {
        notes.push_back((rails == entities ? "rails and power entities: " : "rails: ") +
                        rails.text);
    }
    if (entities && !(rails == entities)) notes.push_back("power entities: " + entities.text);
    for (size_t i = 0; i < interval.entities.size(); ++i) {
        if (!interval.entities[i].isOverfull) continue;
        notes.push_back(interval.lists->entities[i].name +
                        ": more time in states than passed (a stay is counted when it ends)");
    }
    return notes;
}

Json toJson(const Interval& interval) {
    Json::Object json = {{"timestamp_ms", toMilliseconds(interval.time)},
                         {"interval_ms", roundToMilliseconds(interval.elapsed)},
                         {"suspended_ms", roundToMilliseconds(interval.suspended)}};
    for (const Section& section : sectionsOf(interval)) {
        json.emplace_back(section.key, toJson(section));
    }
    Json::Array notes;
    for (std::string& note : notesOf(interval)) notes.emplace_back(std::move(note));
    json.emplace_back("notes", std::move(notes));
    return json;
}

/// Finds the columns of the figures of an interval.
/// @return whether the header has them all.
bool IntervalPrinter::placeColumns(const CsvFigures& figures) {
    std::vector<std::vector<std::string>> names;
    for (const auto& [name, figure] : figures) names.push_back({name});
    const std::vector<std::string> distinct = distinctNames(names);
    std::unordered_map<std::string, size_t> known;
    if (mColumns) {
        for (const std::string& column : *mColumns) known.emplace(column, known.size());
    }
    mPlaces.clear();
    for (const std::string& name : distinct) {
        const auto found = known.find(name);
        if (found != known.end()) mPlaces.push_back(found->second);
    }
    if (mColumns && mPlaces.size() == distinct.size()) return true;
    mColumns = distinct;
    mPlaces.resize(distinct.size());
    std::iota(mPlaces.begin(), mPlaces.end(), 0);
    return false;
}

std::string IntervalPrinter::printCsv(const Interval& interval) {
    const std::vector<Section> sections = sectionsOf(interval);
    const CsvFigures figures = csvFiguresOf(sections);
    std::string text;
    if (mPlacesOf != interval.lists) {
        mPlacesOf = interval.lists;
        if (!placeColumns(figures)) {
            text = "timestamp_ms,interval_ms,suspended_ms";
            for (const std::string& column : *mColumns) text += ',' + csvField(column);
            text += ",notes\n";
        }
    }
    text +=
        fmt::format("{},{},{}", toMilliseconds(interval.time),
                    roundToMilliseconds(interval.elapsed), roundToMilliseconds(interval.suspended));
    std::vector<std::string> fields(mColumns->size());
    for (size_t i = 0; i < figures.size(); ++i) {
        fields[mPlaces[i]] = formatCell(figures[i].second, 3);
    }
    for (const std::string& field : fields) text += ',' + field;
    std::vector<std::string> notes = notesOf(interval);
    for (const Section& section : sections) {
        for (const Row& row : section.rows) {
            if (*row.trouble != '\0') notes.push_back(fmt::format("{} {}", row.name, row.trouble));
        }
    }
    std::string joined;
    for (const std::string& note : notes) joined += (joined.empty() ? "" : "; ") + note;
    return text + ',' + csvField(joined) + '\n';
}

std::string IntervalPrinter::print(const Interval& interval) {
    if (mFormat == "csv") return printCsv(interval);
    if (mFormat == "jsonl") return toJson(interval).print() + '\n';
    std::string text = fmt::format("{} ms to {}\n", roundToMilliseconds(interval.elapsed),
                                   afterBoot(interval.time));
    std::vector<Section> sections = sectionsOf(interval);
    for (size_t i = 0; i < interval.entities.size(); ++i) {
        if (interval.entities[i].noneShare > 0) continue;
        sections.back().rows[i].states.pop_back();  // the time in no state
    }
    for (const Section& section : sections) {
        if (!section.rows.empty()) text += formatTable(section);
    }
    // Those of single rails and entities are in their rows.
    for (const std::string& note : notesOf(interval)) text += "  " + note + '\n';
    return text + '\n';
}

}  // namespace powerstats
