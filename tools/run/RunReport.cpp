// SPDX-License-Identifier: Apache-2.0

#include "tools/run/RunReport.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <numeric>
#include <utility>

#include "power/text/Names.h"
#include "power/text/Page.h"
#include "tools/CommandLine.h"

namespace powerstats {

namespace {

/// The mean of a figure over some runs, and its standard deviation.
struct Spread {
    double mean = 0;
    /// Of the sample; std::nullopt for a single run.
    std::optional<double> deviation = {};
};

Json toJson(const Spread& spread) {
    return {{"mean", spread.mean}, {"standard_deviation", spread.deviation.value_or(0)}};
}

/// For people: "12.5", or "12.5 ± 0.1" for several runs.
std::string format(const Spread& spread, int digits) {
    std::string mean = fmt::format("{:.{}f}", spread.mean, digits);
    if (!spread.deviation) return mean;
    return fmt::format("{} ± {:.{}f}", mean, *spread.deviation, digits);
}

/// Quotients are weighted by their divisors, so that a mean power is the sum of energies by the sum
/// of times. The mean of the quotients would be too high: short runs have noisy times. The standard
/// deviation is that of a ratio of two sums (Cochran, Sampling Techniques, 6.4); with equal weights
/// both are the usual ones.
Spread summarize(const std::vector<double>& values, const std::vector<double>& weights) {
    const auto count = static_cast<double>(values.size());
    const double weight = std::accumulate(weights.begin(), weights.end(), 0.0) / count;
    Spread spread;
    for (size_t i = 0; i < values.size(); ++i) {
        spread.mean += values[i] * weights[i] / weight / count;
    }
    if (values.size() < 2) return spread;
    double squares = 0;
    for (size_t i = 0; i < values.size(); ++i) {
        squares += std::pow(weights[i] / weight * (values[i] - spread.mean), 2);
    }
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
    Spread mean(const GetValue& valueOf) const {
        std::vector<double> values;
        for (const Figures* run : runs) values.push_back(valueOf(*run));
        return summarize(values, std::vector<double>(values.size(), 1));
    }
    /// @param rateOf [in] a figure by the time of its run.
    template <typename GetRate>
    Spread rate(const GetRate& rateOf) const {
        std::vector<double> rates, seconds;
        for (const Figures* run : runs) {
            rates.push_back(rateOf(*run));
            seconds.push_back(toSeconds(run->elapsed));
        }
        return summarize(rates, seconds);
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
            const auto found = std::find_if(list.begin(), list.end(), [&](const Thing& other) {
                return other.id == thing.id && other.name == thing.name;
            });
            i = static_cast<size_t>(found - list.begin());
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

/// Returns a row for each rail.
/// @param write [in] makes a figure of a spread.
template <typename Write>
Json railsOf(const std::vector<Interval>& runs, const Write& write) {
    Json rows = Json::array();
    for (size_t i = 0; !runs.empty() && i < runs[0].rails.size(); ++i) {
        const Rail& rail = runs[0].lists->rails[i];
        const auto figures = collect(runs, i, &Lists::rails, &Interval::rails);
        const bool isKnown = figures.trouble == Trouble::kNone;
        rows.push_back({{"id", rail.id},
                        {"name", rail.name},
                        {"energy_j", isKnown ? Json(write(figures.mean(joulesOf))) : Json()},
                        {"power_w", isKnown ? Json(write(figures.rate(wattsOf))) : Json()},
                        {"trouble", toText(figures.trouble)}});
    }
    return rows;
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

/// Returns a row for each entity, with its figures as texts.
Json entitiesOf(const std::vector<Interval>& runs) {
    using Figures = Interval::EntityFigures;
    Json rows = Json::array();
    for (size_t i = 0; !runs.empty() && i < runs[0].entities.size(); ++i) {
        const Entity& entity = runs[0].lists->entities[i];
        auto figures = collect(runs, i, &Lists::entities, &Interval::entities);
        const size_t count = entity.states.size();
        for (const Figures* run : figures.runs) {
            if (run->states.size() != count) figures.trouble = Trouble::kWent;
        }
        Json& row = rows.emplace_back(Json{{"name", entity.name},
                                           {"trouble", toText(figures.trouble)},
                                           {"states", Json::array()}});
        if (figures.trouble != Trouble::kNone) continue;
        if (const char* const state = steadyState(runs, i)) row["steady"] = state;
        for (size_t j = 0; j < count; ++j) {
            const auto share =
                figures.rate([j](const Figures& run) { return run.states[j].share * 100; });
            const auto rate =
                figures.rate([j](const Figures& run) { return run.states[j].entriesPerSecond; });
            row["states"].push_back({{"name", entity.states[j].name},
                                     {"share_percent", format(share, 1)},
                                     {"entries_per_s", format(rate, 1)}});
        }
        const auto rest = figures.rate([](const Figures& run) { return run.noneShare * 100; });
        if (rest.mean > 0) {
            row["states"].push_back({{"name", kNoState}, {"share_percent", format(rest, 1)}});
        }
    }
    return rows;
}

/// The figures of the rail with a name, or null.
const Interval::RailFigures* findFigures(const Interval& run, const std::string& name) {
    for (size_t i = 0; i < run.rails.size(); ++i) {
        if (run.lists->rails[i].name == name) return &run.rails[i];
    }
    return nullptr;
}

/// Says in which run a rail has no figures, and why.
std::string findUnread(const std::string& name, const std::vector<Interval>& runs) {
    for (size_t i = 0; i < runs.size(); ++i) {
        const Interval::RailFigures* const rail = findFigures(runs[i], name);
        const Trouble trouble = rail == nullptr ? Trouble::kWent : rail->trouble;
        if (trouble == Trouble::kNone) continue;
        return trouble == Trouble::kNoTime
                   ? fmt::format("run {} was shorter than one reading of this rail", i + 1)
                   : fmt::format("in run {} it {}", i + 1, toText(trouble));
    }
    return "";
}

/// How many runs are too short for the clock that stamps their rails.
size_t countTooShort(const std::vector<Interval>& runs) {
    return static_cast<size_t>(std::count_if(runs.begin(), runs.end(), [](const Interval& run) {
        return run.elapsed < kLeastUnits * run.stampUnit;
    }));
}

std::string describe(const Limit& limit, const std::vector<Interval>& runs) {
    const LimitJudgement judgement = judge(limit, runs);
    const std::string name = safeName(limit.rail);
    if (!judgement.mean) {
        return fmt::format("{}: not read in every run ({})", name, findUnread(limit.rail, runs));
    }
    const char* const verdict = judgement.verdict == LimitVerdict::kKept   ? "kept"
                                : judgement.verdict == LimitVerdict::kOver ? "exceeded"
                                : countTooShort(runs) > 0                  ? "not judged"
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
    return safeName(fmt::format("{}", fmt::join(report.command, " ")), SIZE_MAX);
}

Spread elapsedOf(const RunReport& report) {
    Runs<Interval> runs;
    for (const Interval& run : report.runs) runs.runs.push_back(&run);
    return runs.mean([](const Interval& run) { return toSeconds(run.elapsed); });
}

std::string formatTable(const RunReport& report) {
    const size_t runs = report.runs.size();
    std::string text = fmt::format("{}: {} of {} s\n", commandLine(report),
                                   runs == 1 ? "1 run" : fmt::format("{} runs", runs),
                                   format(elapsedOf(report), 3));
    const auto write = [](const Spread& spread) { return format(spread, 3); };
    text += powerstats::formatTable("rail", {{"energy_j", "energy (J)"}, {"power_w", "power (W)"}},
                                    railsOf(report.runs, write));
    text += powerstats::formatTable("entity and state",
                                    {{"share_percent", "time (%)"}, {"entries_per_s", "entries/s"}},
                                    entitiesOf(report.runs));
    for (size_t i = 0; i < runs; ++i) {
        for (const std::string& note : notesOf(report.runs[i])) {
            text += fmt::format("  run {}: {}\n", i + 1, note);
        }
    }
    if (const size_t tooShort = countTooShort(report.runs); tooShort > 0) {
        text += fmt::format(
            "  {} of {} runs too short for their clock, which counts in {} ms (run the command "
            "several times in one)\n",
            tooShort, runs, toMilliseconds(report.runs[0].stampUnit));
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
    Json command = Json::array(), limits = Json::array(), runs = Json::array();
    for (const std::string& word : report.command) command.push_back(safeName(word, SIZE_MAX));
    for (const Limit& limit : report.limits) {
        const LimitJudgement judgement = judge(limit, report.runs);
        limits.push_back({{"rail", safeName(limit.rail)},
                          {"max_w", limit.watts},
                          {"mean_w", orNull(judgement.mean)},
                          {"margin_w", orNull(judgement.margin)},
                          {"verdict", kVerdicts[static_cast<int>(judgement.verdict)]}});
    }
    for (const Interval& run : report.runs) runs.push_back(toJson(run));
    const auto write = [](const Spread& spread) { return toJson(spread); };
    return printJson({{"command", std::move(command)},
                      {"elapsed_s", toJson(elapsedOf(report))},
                      {"rails", railsOf(report.runs, write)},
                      {"limits", std::move(limits)},
                      {"runs_too_short", countTooShort(report.runs)},
                      {"runs", std::move(runs)}},
                     2) +
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

std::vector<size_t> findRail(const std::vector<Rail>& rails, const std::string& text) {
    const std::function<bool(const Rail&)> ways[] = {
        [&](const Rail& rail) { return rail.name == text; },
        [&](const Rail& rail) { return rail.subsystem + '/' + rail.name == text; },
        [&](const Rail& rail) { return "id:" + std::to_string(rail.id) == text; },
        // As nameLists() tells namesakes apart.
        [&](const Rail& rail) {
            const std::string id = fmt::format(" (id {})", rail.id);
            const std::string qualified = rail.subsystem + '/' + text;
            return rail.name == qualified || rail.name == qualified + id || rail.name == text + id;
        },
    };
    std::vector<size_t> found;
    for (const auto& isMeant : ways) {
        for (size_t i = 0; i < rails.size(); ++i) {
            if (isMeant(rails[i])) found.push_back(i);
        }
        if (!found.empty()) break;
    }
    return found;
}

LimitJudgement judge(const Limit& limit, const std::vector<Interval>& runs) {
    const std::vector<Rail>& rails = runs[0].lists->rails;
    const auto rail = std::find_if(rails.begin(), rails.end(),
                                   [&](const Rail& other) { return other.name == limit.rail; });
    if (rail == rails.end()) return {};
    const auto figures =
        collect(runs, static_cast<size_t>(rail - rails.begin()), &Lists::rails, &Interval::rails);
    if (figures.trouble != Trouble::kNone) return {};
    const Spread spread = figures.rate(wattsOf);
    // The limit belongs to the powers that keep it, also where a sum was rounded.
    const double most = limit.watts * (1 + 1e-9);
    if (countTooShort(runs) > 0) return {LimitVerdict::kUnclear, spread.mean, std::nullopt};
    if (runs.size() < 3) {
        return {spread.mean <= most ? LimitVerdict::kKept : LimitVerdict::kOver, spread.mean,
                std::nullopt};
    }
    const auto count = static_cast<double>(runs.size());
    const double margin = studentsT(runs.size() - 1) * *spread.deviation / std::sqrt(count);
    LimitVerdict verdict = LimitVerdict::kUnclear;
    if (spread.mean + margin <= most) verdict = LimitVerdict::kKept;
    if (spread.mean - margin > most) verdict = LimitVerdict::kOver;
    return {verdict, spread.mean, margin};
}

std::string formatReport(const RunReport& report, const std::string& format) {
    if (format == "csv") return formatCsv(report);
    return format == "json" ? formatJson(report) : formatTable(report);
}

}  // namespace powerstats
