// SPDX-License-Identifier: Apache-2.0

#include "tools/run/RunReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <utility>

#include "power/text/Names.h"
#include "power/text/Page.h"
#include "tools/CommandLine.h"

namespace powerstats {

namespace {

Spread summarize(const std::vector<double>& values) {
    const auto count = static_cast<double>(values.size());
    Spread spread;
    for (const double value : values) spread.mean += value / count;
    if (values.size() < 2) return spread;
    double squares = 0;
    for (const double value : values) squares += (value - spread.mean) * (value - spread.mean);
    spread.deviation = std::sqrt(squares / (count - 1));
    return spread;
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

/// The figures of one thing in every run that has some.
template <typename Figures>
struct Runs {
    std::vector<const Figures*> runs;
    /// The first run's that has any; then there are no statistics.
    Trouble trouble = Trouble::kNone;

    template <typename GetValue>
    Spread summarize(const GetValue& valueOf) const {
        std::vector<double> values;
        for (const Figures* figures : runs) values.push_back(valueOf(*figures));
        return powerstats::summarize(values);
    }
};

/// Collects the figures of a thing of the first run, which the others list by its id and name.
template <typename Thing, typename Figures>
Runs<Figures> collect(const std::vector<Interval>& runs, size_t position,
                      std::vector<Thing> Lists::*things, std::vector<Figures> Interval::*figures) {
    Runs<Figures> row;
    const Thing& thing = (*runs[0].lists.*things)[position];
    for (const Interval& run : runs) {
        const std::vector<Thing>& list = *run.lists.*things;
        size_t i = position;
        if (run.lists != runs[0].lists) {
            i = static_cast<size_t>(std::find_if(list.begin(), list.end(),
                                                 [&](const Thing& other) {
                                                     return other.id == thing.id &&
                                                            other.name == thing.name;
                                                 }) -
                                    list.begin());
        }
        const Trouble trouble = i < list.size() ? (run.*figures)[i].trouble : Trouble::kWent;
        if (row.trouble == Trouble::kNone) row.trouble = trouble;
        if (trouble == Trouble::kNone) row.runs.push_back(&(run.*figures)[i]);
    }
    return row;
}

double joulesOf(const Interval::RailFigures& rail) {
    return static_cast<double>(rail.energyUWs) / 1e6;
}

double wattsOf(const Interval::RailFigures& rail) {
    return rail.milliwatts / 1000;
}

Section railsOf(const std::vector<Interval>& runs) {
    Section section{"rails", "rail", {{"energy_j", "energy (J)", 3}, {"power_w", "power (W)", 3}}};
    if (runs.empty()) return section;
    const std::vector<Rail>& rails = runs[0].lists->rails;
    for (size_t i = 0; i < rails.size(); ++i) {
        const auto row = collect(runs, i, &Lists::rails, &Interval::rails);
        std::vector<Cell> cells(2);
        if (row.trouble == Trouble::kNone)
            cells = {row.summarize(joulesOf), row.summarize(wattsOf)};
        section.rows.push_back(
            {rails[i].name, rails[i].id, std::nullopt, std::move(cells), toText(row.trouble)});
    }
    return section;
}

/// The state that had all of the time of every run, or null.
const char* steadyState(const std::vector<Interval>& runs, size_t entity) {
    const char* const steady = steadyState(runs[0], entity);
    const bool isSteady =
        steady != nullptr && std::all_of(runs.begin(), runs.end(), [&](const Interval& run) {
            const char* const state =
                run.lists == runs[0].lists ? steadyState(run, entity) : nullptr;
            return state != nullptr && std::string_view(state) == steady;
        });
    return isSteady ? steady : nullptr;
}

Section entitiesOf(const std::vector<Interval>& runs) {
    using Figures = Interval::EntityFigures;
    Section section{"entities",
                    "entity and state",
                    {},
                    {{"share_percent", "time (%)", 1}, {"entries_per_s", "entries/s", 1}}};
    if (runs.empty()) return section;
    const std::vector<Entity>& entities = runs[0].lists->entities;
    for (size_t i = 0; i < entities.size(); ++i) {
        auto figures = collect(runs, i, &Lists::entities, &Interval::entities);
        const size_t count = entities[i].states.size();
        for (const Figures* run : figures.runs) {
            if (run->states.size() != count) figures.trouble = Trouble::kWent;
        }
        Row& row = section.rows.emplace_back();
        row.name = entities[i].name;
        row.trouble = toText(figures.trouble);
        if (figures.trouble != Trouble::kNone) continue;
        row.steady = steadyState(runs, i);
        for (size_t j = 0; j < count; ++j) {
            const auto share =
                figures.summarize([j](const Figures& run) { return run.states[j].share * 100; });
            const auto rate = figures.summarize(
                [j](const Figures& run) { return run.states[j].entriesPerSecond; });
            row.states.push_back({entities[i].states[j].name, {}, {}, {share, rate}});
        }
        const auto rest = figures.summarize([](const Figures& run) { return run.noneShare * 100; });
        if (rest.mean > 0) row.states.push_back({kNoState, {}, {}, {rest}});
    }
    return section;
}

/// The figures of the rail with a name, or null.
const Interval::RailFigures* findRail(const Interval& run, const std::string& name) {
    for (size_t i = 0; i < run.rails.size(); ++i) {
        if (run.lists->rails[i].name == name) return &run.rails[i];
    }
    return nullptr;
}

/// Says in which run a rail has no figures, and why.
std::string findUnread(const std::string& name, const std::vector<Interval>& runs) {
    for (size_t i = 0; i < runs.size(); ++i) {
        const Interval::RailFigures* const rail = findRail(runs[i], name);
        const Trouble trouble = rail == nullptr ? Trouble::kWent : rail->trouble;
        if (trouble == Trouble::kNone) continue;
        return trouble == Trouble::kNoTime
                   ? fmt::format("run {} was shorter than one reading of this rail", i + 1)
                   : fmt::format("in run {} it {}", i + 1, toText(trouble));
    }
    return "";
}

std::string describe(const Limit& limit, const std::vector<Interval>& runs) {
    const LimitJudgement judgement = judge(limit, runs);
    const std::string name = safeName(limit.rail);
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

Spread elapsedOf(const RunReport& report) {
    std::vector<double> seconds;
    for (const Interval& run : report.runs) seconds.push_back(toSeconds(run.elapsed));
    return summarize(seconds);
}

std::string formatTable(const RunReport& report) {
    const size_t runs = report.runs.size();
    std::string text = fmt::format("{}: {} of {} s\n", commandLine(report),
                                   runs == 1 ? "1 run" : fmt::format("{} runs", runs),
                                   formatCell(elapsedOf(report), 3));
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
    for (size_t i = 0; i < report.runs.size(); ++i) {
        const Interval& run = report.runs[i];
        const auto add = [&](const auto& thing, const char* kind, std::string_view name,
                             std::string_view state, const std::string& figures) {
            const bool isKnown = thing.trouble == Trouble::kNone;
            text += fmt::format("{},{},{},{},{},{},{}\n", i + 1,
                                roundToMilliseconds(isKnown ? thing.elapsed : run.elapsed), kind,
                                csvField(name), csvField(state), isKnown ? figures : ",,,",
                                toText(thing.trouble));
        };
        for (size_t j = 0; j < run.rails.size(); ++j) {
            const Interval::RailFigures& rail = run.rails[j];
            add(rail, "rail", run.lists->rails[j].name, "",
                fmt::format("{},{},,", joulesOf(rail), wattsOf(rail)));
        }
        for (size_t j = 0; j < run.entities.size(); ++j) {
            const Interval::EntityFigures& entity = run.entities[j];
            const Entity& names = run.lists->entities[j];
            for (size_t k = 0; k < entity.states.size(); ++k) {
                add(entity, "state", names.name, names.states[k].name,
                    fmt::format(",,{},{}", entity.states[k].share * 100, entity.states[k].entries));
            }
            if (entity.trouble != Trouble::kNone) continue;
            add(entity, "state", names.name, kNoState,
                fmt::format(",,{},", entity.noneShare * 100));
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
    std::vector<double> watts;
    for (const Interval& run : runs) {
        const Interval::RailFigures* const rail = findRail(run, limit.rail);
        if (rail != nullptr && rail->trouble == Trouble::kNone) watts.push_back(wattsOf(*rail));
    }
    if (watts.empty() || watts.size() != runs.size()) return {};
    const Spread spread = summarize(watts);
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
