// SPDX-License-Identifier: Apache-2.0

#include "tools/RunReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "hal/NamesAndIds.h"
#include "tools/CommandLine.h"
#include "tools/IntervalPrinter.h"
#include "tools/TextTable.h"

namespace powerstats {

namespace {

double wattsOf(const Interval::Rail& rail) {
    return rail.milliwatts / 1000;
}

double joulesOf(const Interval::Rail& rail) {
    return static_cast<double>(rail.energyUWs) / 1e6;
}

struct Statistics {
    double mean = 0;
    /// Of the sample, so with one run it is 0.
    double standardDeviation = 0;
};

Statistics summarize(const std::vector<double>& values) {
    const auto count = static_cast<double>(values.size());
    Statistics statistics;
    for (const double value : values) statistics.mean += value / count;
    if (values.size() < 2) return statistics;
    double squares = 0;
    for (const double value : values) {
        squares += (value - statistics.mean) * (value - statistics.mean);
    }
    statistics.standardDeviation = std::sqrt(squares / (count - 1));
    return statistics;
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

/// A rail or an entity of the first run, in every run.
template <typename Thing>
struct Row {
    const Thing* first = nullptr;
    std::vector<const Thing*> runs = {};
    /// The first run's that has any; then there are no statistics.
    Trouble trouble = Trouble::kNone;
};

bool isSame(const Interval::Rail& one, const Interval::Rail& other) {
    return one.id == other.id && one.name == other.name;
}

bool isSame(const Interval::Entity& one, const Interval::Entity& other) {
    return one.id == other.id && one.name == other.name &&
           std::equal(one.states.begin(), one.states.end(), other.states.begin(),
                      other.states.end(), [](const auto& state, const auto& same) {
                          return state.id == same.id && state.name == same.name;
                      });
}

template <typename Thing>
std::vector<Row<Thing>> rowsOf(const std::vector<Interval>& runs,
                               std::vector<Thing> Interval::*things) {
    std::vector<Row<Thing>> rows;
    if (runs.empty()) return rows;
    for (const Thing& thing : runs[0].*things) {
        Row<Thing> row{&thing};
        for (const Interval& run : runs) {
            const auto& list = run.*things;
            const auto found = std::find_if(
                list.begin(), list.end(), [&](const Thing& other) { return isSame(thing, other); });
            const Trouble trouble = found == list.end() ? Trouble::kWent : found->trouble;
            if (row.trouble == Trouble::kNone) row.trouble = trouble;
            if (trouble == Trouble::kNone) row.runs.push_back(&*found);
        }
        rows.push_back(std::move(row));
    }
    return rows;
}

template <typename Thing, typename GetValue>
Statistics summarize(const Row<Thing>& row, const GetValue& valueOf) {
    std::vector<double> values;
    for (const Thing* thing : row.runs) values.push_back(valueOf(*thing));
    return summarize(values);
}

/// "12.5" for one run, "12.5 ± 0.1" for several.
std::string withDeviation(const Statistics& statistics, size_t runs, int digits) {
    std::string mean = fmt::format("{:.{}f}", statistics.mean, digits);
    if (runs < 2) return mean;
    return fmt::format("{} ± {:.{}f}", mean, statistics.standardDeviation, digits);
}

/// Says in which run a rail has no figures, and why.
std::string findUnread(const std::string& name, const std::vector<Interval>& runs) {
    for (size_t i = 0; i < runs.size(); ++i) {
        const auto rail = std::find_if(runs[i].rails.begin(), runs[i].rails.end(),
                                       [&](const auto& known) { return known.name == name; });
        const Trouble trouble = rail == runs[i].rails.end() ? Trouble::kWent : rail->trouble;
        if (trouble == Trouble::kNone) continue;
        return trouble == Trouble::kNoTime
                   ? fmt::format("run {} was shorter than one reading of this rail", i + 1)
                   : fmt::format("in run {} it {}", i + 1, toText(trouble));
    }
    return "";
}

std::string describe(const Limit& limit, const std::vector<Interval>& runs) {
    const LimitJudgement judgement = judge(limit, runs);
    const std::string name = safeName(limit.rail, SIZE_MAX);
    if (!judgement.mean) {
        return fmt::format("{}: not read in every run ({})", name, findUnread(limit.rail, runs));
    }
    const char* const verdict = judgement.verdict == LimitVerdict::kKept   ? "kept"
                                : judgement.verdict == LimitVerdict::kOver ? "exceeded"
                                                                           : "too noisy to tell";
    const std::string interval =
        !judgement.margin
            ? ""
            : fmt::format(", 95 % interval {:.3f} to {:.3f} W", *judgement.mean - *judgement.margin,
                          *judgement.mean + *judgement.margin);
    return fmt::format("{}: at most {:g} W: {} (mean {:.3f} W{})", name, limit.watts, verdict,
                       *judgement.mean, interval);
}

std::string commandLine(const RunReport& report) {
    std::string line;
    for (const std::string& word : report.command) line += (line.empty() ? "" : " ") + word;
    return safeName(line, SIZE_MAX);
}

Statistics elapsedOf(const RunReport& report) {
    std::vector<double> seconds;
    for (const Interval& run : report.runs) {
        seconds.push_back(static_cast<double>(run.elapsedMs) / 1000);
    }
    return summarize(seconds);
}

std::string formatTable(const RunReport& report) {
    const size_t runs = report.runs.size();
    const Statistics elapsed = elapsedOf(report);
    std::string text = fmt::format("{}: {} of {} s\n", commandLine(report),
                                   runs == 1 ? "1 run" : fmt::format("{} runs", runs),
                                   withDeviation(elapsed, runs, 3));
    const auto rails = rowsOf(report.runs, &Interval::rails);
    if (!rails.empty()) text += tableRow(kIndent, "rail", {"energy (J)", "power (W)"});
    for (const Row<Interval::Rail>& row : rails) {
        std::vector<std::string> columns = {toText(row.trouble)};
        if (row.trouble == Trouble::kNone) {
            columns = {withDeviation(summarize(row, joulesOf), runs, 3),
                       withDeviation(summarize(row, wattsOf), runs, 3)};
        }
        text += tableRow(kIndent, row.first->name, columns);
    }
    const auto entities = rowsOf(report.runs, &Interval::entities);
    if (!entities.empty()) {
        text += tableRow(kIndent, "entity and state", {"time (%)", "entries/s"});
    }
    for (const Row<Interval::Entity>& row : entities) {
        if (row.trouble != Trouble::kNone) {
            text += tableRow(kIndent, row.first->name, {toText(row.trouble)});
            continue;
        }
        const char* const steady = steadyState(*row.first);
        if (steady != nullptr &&
            std::all_of(row.runs.begin(), row.runs.end(), [&](const auto* run) {
                const char* const state = steadyState(*run);
                return state != nullptr && state == std::string(steady);
            })) {
            text += tableRow(kIndent, row.first->name + ": " + steady, {"100.0", ""});
            continue;
        }
        text += tableRow(kIndent, row.first->name, {});
        for (size_t i = 0; i < row.first->states.size(); ++i) {
            const auto share = summarize(row, [&](const auto& run) { return run.states[i].share; });
            const auto rate =
                summarize(row, [&](const auto& run) { return run.states[i].entriesPerSecond; });
            text +=
                tableRow(2 * kIndent, row.first->states[i].name,
                         {withDeviation({share.mean * 100, share.standardDeviation * 100}, runs, 1),
                          withDeviation(rate, runs, 1)});
        }
        const auto none = summarize(row, [](const auto& run) { return run.noneShare; });
        if (none.mean > 0) {
            text += tableRow(
                2 * kIndent, kNoState,
                {withDeviation({none.mean * 100, none.standardDeviation * 100}, runs, 1), ""});
        }
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
    for (size_t i = 0; i < report.runs.size(); ++i) {
        const Interval& run = report.runs[i];
        const auto add = [&](int64_t elapsedMs, const char* kind, const std::string& name,
                             const std::string& figures, Trouble trouble) {
            text += fmt::format("{},{},{},{},{},{}\n", i + 1, elapsedMs, kind, csvField(name),
                                figures, toText(trouble));
        };
        for (const Interval::Rail& rail : run.rails) {
            const bool isKnown = rail.trouble == Trouble::kNone;
            add(isKnown ? rail.elapsedMs : run.elapsedMs, "rail", rail.name,
                isKnown ? fmt::format(",{},{},,", joulesOf(rail), wattsOf(rail)) : ",,,,",
                rail.trouble);
        }
        for (const Interval::Entity& entity : run.entities) {
            const bool isKnown = entity.trouble == Trouble::kNone;
            for (const Interval::State& state : entity.states) {
                add(run.elapsedMs, "state", entity.name,
                    csvField(state.name) +
                        (isKnown ? fmt::format(",,,{},{}", state.share * 100, state.entries)
                                 : ",,,,"),
                    entity.trouble);
            }
            if (isKnown) {
                add(run.elapsedMs, "state", entity.name,
                    csvField(kNoState) + fmt::format(",,,{},", entity.noneShare * 100),
                    entity.trouble);
            }
        }
    }
    return text;
}

Json toJson(const Statistics& statistics) {
    return Json::object(
        {{"mean", statistics.mean}, {"standard_deviation", statistics.standardDeviation}});
}

Json toJson(const std::optional<double>& number) {
    return number ? Json(*number) : Json();
}

std::string formatJson(const RunReport& report) {
    std::vector<Json> command, rails, limits, runs;
    for (const std::string& word : report.command) command.emplace_back(safeName(word, SIZE_MAX));
    for (const Row<Interval::Rail>& row : rowsOf(report.runs, &Interval::rails)) {
        const bool isKnown = row.trouble == Trouble::kNone;
        rails.push_back(
            Json::object({{"id", row.first->id},
                          {"name", safeName(row.first->name, SIZE_MAX)},
                          {"energy_j", isKnown ? toJson(summarize(row, joulesOf)) : Json()},
                          {"power_w", isKnown ? toJson(summarize(row, wattsOf)) : Json()},
                          {"trouble", toText(row.trouble)}}));
    }
    for (const Limit& limit : report.limits) {
        const LimitJudgement judgement = judge(limit, report.runs);
        const char* const verdict = judgement.verdict == LimitVerdict::kKept   ? "kept"
                                    : judgement.verdict == LimitVerdict::kOver ? "exceeded"
                                                                               : "unclear";
        limits.push_back(Json::object({{"rail", safeName(limit.rail, SIZE_MAX)},
                                       {"max_w", limit.watts},
                                       {"mean_w", toJson(judgement.mean)},
                                       {"margin_w", toJson(judgement.margin)},
                                       {"verdict", verdict}}));
    }
    for (const Interval& run : report.runs) runs.push_back(toJson(run));
    const Json json = Json::object({{"command", Json::array(command)},
                                    {"elapsed_s", toJson(elapsedOf(report))},
                                    {"rails", Json::array(rails)},
                                    {"limits", Json::array(limits)},
                                    {"runs", Json::array(runs)}});
    return json.toText(2) + '\n';
}

}  // namespace

std::optional<Limit> parseLimit(const std::string& text) {
    const size_t equals = text.rfind('=');
    if (equals == std::string::npos || equals == 0) return std::nullopt;
    constexpr double kMostWatts = 1e9;
    const std::optional<double> watts = parseNumber(text.substr(equals + 1), {0, kMostWatts});
    if (!watts) return std::nullopt;
    return Limit{text.substr(0, equals), *watts};
}

LimitJudgement judge(const Limit& limit, const std::vector<Interval>& runs) {
    std::vector<double> watts;
    for (const Interval& run : runs) {
        for (const Interval::Rail& rail : run.rails) {
            if (rail.name != limit.rail || rail.trouble != Trouble::kNone) continue;
            watts.push_back(wattsOf(rail));
            break;
        }
    }
    if (watts.empty() || watts.size() != runs.size()) return {};
    const Statistics statistics = summarize(watts);
    if (runs.size() < 3) {
        return {statistics.mean <= limit.watts ? LimitVerdict::kKept : LimitVerdict::kOver,
                statistics.mean, std::nullopt};
    }
    const auto count = static_cast<double>(runs.size());
    const double margin =
        studentsT(runs.size() - 1) * statistics.standardDeviation / std::sqrt(count);
    LimitVerdict verdict = LimitVerdict::kUnclear;
    if (statistics.mean + margin < limit.watts) verdict = LimitVerdict::kKept;
    if (statistics.mean - margin > limit.watts) verdict = LimitVerdict::kOver;
    return {verdict, statistics.mean, margin};
}

std::string formatReport(const RunReport& report, const std::string& format) {
    if (format == "csv") return formatCsv(report);
    return format == "json" ? formatJson(report) : formatTable(report);
}

}  // namespace powerstats
