// SPDX-License-Identifier: Apache-2.0

#include "tools/run/RunReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <tuple>
#include <utility>
#include <variant>

#include "power/text/Names.h"
#include "power/text/Page.h"
#include "tools/CommandLine.h"

namespace powerstats {

namespace {

/// Adds a value to the mean and the standard deviation of those before.
/// @param count [in] the number of values with this one.
void add(double value, double count, Spread* spread) {
    const double step = value - spread->mean;
    spread->mean += step / count;
    if (count == 1) return;
    const double squares =
        std::pow(spread->deviation.value_or(0), 2) * (count - 2) + step * (value - spread->mean);
    spread->deviation = std::sqrt(squares / (count - 1));
}

/// The 97.5 % quantile of Student's t: from a table, and by its expansion in 1 / degrees beyond it,
/// which is right to three digits there.
double studentsT(size_t degrees) {
    constexpr double kTable[] = {12.706, 4.303, 3.182, 2.776, 2.571, 2.447, 2.365, 2.306,
                                 2.262,  2.228, 2.201, 2.179, 2.160, 2.145, 2.131, 2.120};
    if (degrees <= std::size(kTable)) return kTable[degrees - 1];
    constexpr double kNormal = 1.959964;
    const auto n = static_cast<double>(degrees);
    return kNormal + (std::pow(kNormal, 3) + kNormal) / (4 * n) +
           (5 * std::pow(kNormal, 5) + 16 * std::pow(kNormal, 3) + 3 * kNormal) / (96 * n * n);
}

/// A figure of the report: a column of a run's rows, in another unit.
struct Figure {
    size_t column;
    double divisor;
};

/// The value of a figure, if the row has it.
std::optional<double> valueOf(const Row& row, const Figure& figure) {
    const Cell cell = figure.column < row.cells.size() ? row.cells[figure.column] : Cell();
    if (const auto* whole = std::get_if<int64_t>(&cell)) {
        return static_cast<double>(*whole) / figure.divisor;
    }
    const auto* const number = std::get_if<double>(&cell);
    return number != nullptr ? std::optional(*number / figure.divisor) : std::nullopt;
}

/// Adds the figures of a run's row to the means of the runs before.
void add(const Row& row, const std::vector<Figure>& figures, double count, Row* mean) {
    if (count == 1) mean->cells.resize(figures.size());
    for (size_t i = 0; i < figures.size(); ++i) {
        const std::optional<double> value = valueOf(row, figures[i]);
        if (!value) continue;
        if (count == 1) mean->cells[i] = Spread();
        add(*value, count, &std::get<Spread>(mean->cells[i]));
    }
}

/// Finds a row by its name, which no other one has; null when there is none.
const Row* find(std::string_view name, const std::vector<Row>& rows) {
    const auto row = std::find_if(rows.begin(), rows.end(),
                                  [&](const Row& other) { return other.name == name; });
    return row != rows.end() ? &*row : nullptr;
}

/// Says why a run has no figures of a thing; empty when it has some.
const char* troubleOf(const Row* row) {
    return row != nullptr ? row->trouble : toText(Trouble::kWent);
}

/// The means of the things that the first run lists.
/// @param section [in] without rows.
/// @param kind [in] the position of the section among those of an interval.
Section average(const std::vector<Interval>& runs, size_t kind, Section section,
                const std::vector<Figure>& figures, const std::vector<Figure>& stateFigures) {
    double count = 0;
    for (const Interval& run : runs) {
        const std::vector<Row> rows = sectionsOf(run)[kind].rows;
        for (size_t i = 0; i < rows.size() && count == 0; ++i) {
            Row& mean = section.rows.emplace_back();
            std::tie(mean.name, mean.id, mean.steady) =
                std::tie(rows[i].name, rows[i].id, rows[i].steady);
            mean.trouble = "";
            for (const Row& state : rows[i].states) mean.states.push_back({state.name});
        }
        ++count;
        for (Row& mean : section.rows) {
            const Row* row = find(mean.name, rows);
            if (row != nullptr && row->states.size() != mean.states.size()) row = nullptr;
            // There are no means where a run has no figures.
            if (*mean.trouble == '\0') mean.trouble = troubleOf(row);
            if (row == nullptr || *mean.trouble != '\0') continue;
            if (row->steady != mean.steady) mean.steady = nullptr;
            add(*row, figures, count, &mean);
            for (size_t i = 0; i < row->states.size(); ++i) {
                add(row->states[i], stateFigures, count, &mean.states[i]);
            }
        }
    }
    for (Row& mean : section.rows) {
        if (*mean.trouble != '\0') {
            mean.cells.assign(section.columns.size(), {});
        } else if (!mean.states.empty() &&
                   std::get<Spread>(mean.states.back().cells[0]).mean == 0) {
            mean.states.pop_back();  // the time in no state
        }
    }
    return section;
}

Section railsOf(const std::vector<Interval>& runs) {
    return average(runs, 0,
                   {"rails", "rail", {{"energy_j", "energy (J)", 3}, {"power_w", "power (W)", 3}}},
                   {{2, 1e6}, {3, 1e3}}, {});
}

Section entitiesOf(const std::vector<Interval>& runs) {
    return average(runs, 1,
                   {"entities",
                    "entity and state",
                    {},
                    {{"share_percent", "time (%)", 1}, {"entries_per_s", "entries/s", 1}}},
                   {}, {{1, 1}, {3, 1}});
}

/// Says in which run a rail has no figures, and why.
std::string findUnread(const std::string& name, const std::vector<Interval>& runs) {
    size_t run = 0;
    std::string_view trouble;
    while (trouble.empty()) trouble = troubleOf(find(name, sectionsOf(runs[run++])[0].rows));
    return trouble == toText(Trouble::kNoTime)
               ? fmt::format("run {} was shorter than one reading of this rail", run)
               : fmt::format("in run {} it {}", run, trouble);
}

std::string describe(const Limit& limit, const std::vector<Interval>& runs) {
    const LimitJudgement judgement = judge(limit, runs);
    const std::string name = safeName(limit.rail);
    if (!judgement.mean) {
        return fmt::format("{}: not read in every run ({})", name, findUnread(limit.rail, runs));
    }
    constexpr const char* kTexts[] = {"kept", "too noisy to tell", "exceeded"};
    const std::string interval =
        !judgement.margin
            ? ""
            : fmt::format(", 95 % interval {:.3f} to {:.3f} W", *judgement.mean - *judgement.margin,
                          *judgement.mean + *judgement.margin);
    return fmt::format("{}: at most {:g} W: {} (mean {:.3f} W{})", name, limit.watts,
                       kTexts[static_cast<size_t>(judgement.verdict)], *judgement.mean, interval);
}

Spread elapsedOf(const RunReport& report) {
    Spread seconds;
    double count = 0;
    for (const Interval& run : report.runs) add(toSeconds(run.elapsed), ++count, &seconds);
    return seconds;
}

std::string formatTable(const RunReport& report) {
    const size_t runs = report.runs.size();
    std::string text = fmt::format(
        "{}: {} of {} s\n", safeName(fmt::format("{}", fmt::join(report.command, " ")), SIZE_MAX),
        runs == 1 ? "1 run" : fmt::format("{} runs", runs), formatCell(elapsedOf(report), 3));
    for (const Section& section : {railsOf(report.runs), entitiesOf(report.runs)}) {
        if (!section.rows.empty()) text += powerstats::formatTable(section);
    }
    for (size_t i = 0; i < runs; ++i) {
        for (const std::string& note : notesOf(report.runs[i])) {
            text += fmt::format("  run {}: {}\n", i + 1, note);
        }
    }
    for (const Limit& limit : report.limits) {
        text += "  " + describe(limit, report.runs) + '\n';
    }
    return text;
}

std::string formatCsv(const RunReport& report) {
    std::string text =
        "run,elapsed_ms,kind,name,state,energy_j,power_w,share_percent,entries,trouble\n";
    const auto field = [](const Row& row, const Figure& figure) {
        const std::optional<double> value = valueOf(row, figure);
        return value ? fmt::to_string(*value) : "";
    };
    for (size_t i = 0; i < report.runs.size(); ++i) {
        const auto add = [&](const Row& row, std::string elapsed, const char* kind,
                             std::string_view state, const std::string& figures) {
            if (elapsed.empty()) {
                elapsed = std::to_string(roundToMilliseconds(report.runs[i].elapsed));
            }
            text += fmt::format("{},{},{},{},{},{},{}\n", i + 1, elapsed, kind, csvField(row.name),
                                csvField(state), figures, row.trouble);
        };
        const std::vector<Section> sections = sectionsOf(report.runs[i]);
        for (const Row& rail : sections[0].rows) {
            add(rail, field(rail, {1, 1}), "rail", "",
                fmt::format("{},{},,", field(rail, {2, 1e6}), field(rail, {3, 1e3})));
        }
        for (const Row& entity : sections[1].rows) {
            for (const Row& state : entity.states) {
                if (state.isRest && *entity.trouble != '\0') continue;
                add(entity, field(entity, {0, 1}), "state", state.name,
                    fmt::format(",,{},{}", field(state, {1, 1}), field(state, {2, 1})));
            }
        }
    }
    return text;
}

const char* const kVerdicts[] = {"kept", "unclear", "exceeded"};

std::string formatJson(const RunReport& report) {
    const auto orNull = [](const std::optional<double>& value) {
        return value ? Json(*value) : Json();
    };
    Json::Array command, limits, runs;
    for (const std::string& word : report.command) command.emplace_back(safeName(word, SIZE_MAX));
    for (const Limit& limit : report.limits) {
        const LimitJudgement judgement = judge(limit, report.runs);
        limits.emplace_back(
            Json::Object{{"rail", safeName(limit.rail)},
                         {"max_w", limit.watts},
                         {"mean_w", orNull(judgement.mean)},
                         {"margin_w", orNull(judgement.margin)},
                         {"verdict", kVerdicts[static_cast<int>(judgement.verdict)]}});
    }
    for (const Interval& run : report.runs) runs.push_back(toJson(run));
    return Json(Json::Object{{"command", std::move(command)},
                             {"elapsed_s", toJson(Cell(elapsedOf(report)))},
                             {"rails", toJson(railsOf(report.runs))},
                             {"limits", std::move(limits)},
                             {"runs", std::move(runs)}})
               .print(2) +
           '\n';
}

}  // namespace

std::optional<Limit> parseLimit(const std::string& text) {
    const size_t equals = text.rfind('=');
    if (equals == std::string::npos || equals == 0) return std::nullopt;
    const auto watts = parseNumber(text.substr(equals + 1), {0, 1e9});
    if (!watts) return std::nullopt;
    return Limit{text.substr(0, equals), *watts};
}

LimitJudgement judge(const Limit& limit, const std::vector<Interval>& runs) {
    const Section rails = railsOf(runs);
    const Row* const rail = find(limit.rail, rails.rows);
    if (rail == nullptr || *rail->trouble != '\0') return {};
    const Spread spread = std::get<Spread>(rail->cells[1]);
    if (runs.size() < 3) {
        return {spread.mean <= limit.watts ? LimitVerdict::kKept : LimitVerdict::kOver, spread.mean,
                std::nullopt};
    }
    const auto count = static_cast<double>(runs.size());
    const double margin = studentsT(runs.size() - 1) * *spread.deviation / std::sqrt(count);
    LimitVerdict verdict = LimitVerdict::kUnclear;
    if (spread.mean + margin < limit.watts) verdict = LimitVerdict::kKept;
    if (spread.mean - margin > limit.watts) verdict = LimitVerdict::kOver;
    return {verdict, spread.mean, margin};
}

std::string formatReport(const RunReport& report, const std::string& format) {
    if (format == "csv") return formatCsv(report);
    return format == "json" ? formatJson(report) : formatTable(report);
}

}  // namespace powerstats
