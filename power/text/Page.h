// SPDX-License-Identifier: Apache-2.0
//
// Rows of figures, and the three forms in which they are written: a table for people, CSV and JSON
// for programs.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "power/Interval.h"
#include "power/text/Json.h"

namespace powerstats {

/// The mean of a figure over some runs, and its standard deviation.
struct Spread {
    double mean = 0;
    /// Of the sample; std::nullopt for a single run.
    std::optional<double> deviation = {};
};

/// Absent, a whole number, a number, or a spread.
using Cell = std::variant<std::monostate, int64_t, double, Spread>;

/// The column of JSON that has an entity's states in place of a figure.
inline constexpr const char* kStates = "states";

struct Column {
    /// In JSON.
    const char* key;
    /// In a table; null: the table has no such column.
    const char* heading = nullptr;
    /// The digits after the point in a table.
    int digits = 0;
    /// After the thing's name in a line of CSV for each interval; null: no such column.
    const char* csvSuffix = nullptr;
};

/// A rail, an entity or a state, with its figures by column.
struct Row {
    /// Must outlive the row, and be safe.
    std::string_view name;
    std::optional<int64_t> id = {};
    std::optional<std::string_view> subsystem = {};
    std::vector<Cell> cells = {};
    /// In place of the figures, or empty; null: figures are always known.
    const char* trouble = nullptr;
    /// Of an entity.
    std::vector<Row> states = {};
    /// The time in no state, which JSON has as a figure of the entity.
    bool isRest = false;
    /// The state that had all the time, so that a table has one line; or null.
    const char* steady = nullptr;
};

/// All rails or all entities.
struct Section {
    /// In JSON: "rails".
    const char* key;
    /// In a table: "rail".
    const char* heading;
    std::vector<Column> columns;
    std::vector<Column> stateColumns = {};
    std::vector<Row> rows = {};
};

/// A figure for people: "12.5", or "12.5 ± 0.1" for several runs; empty when it is absent.
std::string formatCell(const Cell& cell, int digits);

Json toJson(const Cell& cell);

/// Formats a section within 80 characters: aligned columns, and a heading. A name that is too long
/// for its column goes on in further lines. Every character is taken to be one column wide.
std::string formatTable(const Section& section);

/// Returns a list with an object for each row.
Json toJson(const Section& section);

/// A field of CSV: quoted where it must be. A text that a spreadsheet would take for a formula
/// begins with an escape.
std::string csvField(std::string_view text);

/// A time since boot, such as "01:11:41.211 after boot (4301211 ms)".
std::string afterBoot(nanoseconds time);

/// The rails and the entities of an interval.
std::vector<Section> sectionsOf(const Interval& interval);

/// The causes that keep figures out of an interval, or make them doubtful: one text for each.
std::vector<std::string> notesOf(const Interval& interval);

/// An interval as `watch --format jsonl` has it.
Json toJson(const Interval& interval);

/// Writes intervals as text, one after the other. docs/formats.md has every field and its unit.
class IntervalPrinter {
  public:
    /// @param format [in] "table" for people, "csv" or "jsonl" for programs.
    explicit IntervalPrinter(std::string format) : mFormat(std::move(format)) {}

    /// @return whole lines: of CSV one, and the header before it when a column is new; of JSON one.
    std::string print(const Interval& interval);

  private:
    bool placeColumns(const std::vector<std::pair<std::string, Cell>>& figures);
    std::string printCsv(const Interval& interval);

    const std::string mFormat;
    /// The columns of the last header of CSV; std::nullopt before the first.
    std::optional<std::vector<std::string>> mColumns;
    /// The places of the figures of these lists among the columns.
    std::vector<size_t> mPlaces;
    std::shared_ptr<const Lists> mPlacesOf;
};

}  // namespace powerstats
