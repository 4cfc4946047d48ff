// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "power/Interval.h"

namespace powerstats {

/// The greatest average power that a rail may have.
struct Limit {
    std::string rail;
    double watts = 0;
};

/// A run of fewer units of the stamps of its rails is too short to tell a power: the units at its
/// two ends are more than 2 % of it.
constexpr int kLeastUnits = 50;

/// Parses "RAIL=WATTS"; the name may contain "=" itself.
std::optional<Limit> parseLimit(const std::string& text);

/// Finds a rail by its name, by "SUBSYSTEM/NAME", or by "id:N"; the first of these that fits.
/// @return the positions of the rails that are meant: none when there is no such rail, several when
///     rails were told apart that have this name.
std::vector<size_t> findRail(const std::vector<Rail>& rails, const std::string& text);

/// From the best to the worst.
enum class LimitVerdict { kKept, kUnclear, kOver };

/// A limit against the runs' average powers, in watts.
struct LimitJudgement {
    LimitVerdict verdict = LimitVerdict::kUnclear;
    /// Absent where a run has no figures of the rail.
    std::optional<double> mean;
    /// Half the width of the 95 % interval of the mean; from three runs on.
    std::optional<double> margin;
};

/// With three runs or more, the 95 % confidence interval of the mean decides: wholly at or below
/// the limit it is kept, wholly above it is exceeded, and otherwise the runs differ too much to
/// tell. The interval is the mean plus and minus Student's t times the standard deviation by the
/// root of the number of runs. With fewer runs the mean decides. The mean is the sum of the
/// energies by the sum of the times. Nothing is judged if a run is too short; see kLeastUnits.
LimitJudgement judge(const Limit& limit, const std::vector<Interval>& runs);

/// The runs of a command.
struct RunReport {
    std::vector<std::string> command;
    std::vector<Interval> runs;
    /// Those to be shown with their judgements.
    std::vector<Limit> limits;
};

/// Writes a report. docs/formats.md has every field and its unit.
/// @param format [in] "table", "csv" or "json".
std::string formatReport(const RunReport& report, const std::string& format);

}  // namespace powerstats
