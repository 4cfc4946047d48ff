// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/Interval.h"
#include "tools/Json.h"

namespace powerstats {

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
    /// The columns of rails and states, as the last header has them; std::nullopt before the first.
    std::optional<std::vector<std::string>> mColumns;
};

/// What keeps figures out of an interval, or makes them doubtful: one text for each cause.
std::vector<std::string> notesOf(const Interval& interval);

/// The object of JSON for an interval.
Json toJson(const Interval& interval);

/// A field of CSV: a safe name, quoted where it must be. A name that a spreadsheet would take for a
/// formula begins with an escape.
std::string csvField(const std::string& name);

}  // namespace powerstats
