// SPDX-License-Identifier: Apache-2.0
//
// The three forms in which figures are written: a table for people, CSV and JSON for programs. A
// row is an object of JSON, as docs/formats.md has it.

#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "power/Interval.h"
#include "power/text/Json.h"

namespace powerstats {

/// A column of a table.
struct Column {
    /// Of the figure in a row.
    const char* key;
    const char* heading;
    /// The digits after the point of a number that is not whole.
    int digits = 0;
};

/// Formats rows within 80 characters: aligned columns, and a heading; nothing for no rows. A
/// name that is too long for its column goes on in further lines. Every character is taken to be
/// one column wide.
/// @param heading [in] of the names: "rail".
/// @param rows [in] objects with a safe "name" and figures, each a number, a text or absent. In
///     place of the figures a row may have "trouble", unless empty; "steady", the name of the state
///     that had all the time; or "states" with rows of their own.
std::string formatTable(const char* heading, const std::vector<Column>& columns, const Json& rows);

/// A field of CSV: quoted where it must be. A text that a spreadsheet would take for a formula
/// begins with an escape.
std::string csvField(std::string_view text);

/// A time since boot, such as "01:11:41.211 after boot (4301211 ms)".
std::string afterBoot(nanoseconds time);

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
    std::string printCsv(const Interval& interval);

    const std::string mFormat;
    /// The columns of the last header of CSV, with their places.
    std::map<std::string, size_t> mColumns;
    /// The places of the fields of these lists.
    std::vector<size_t> mPlaces;
    std::shared_ptr<const Lists> mPlacesOf;
};

}  // namespace powerstats
