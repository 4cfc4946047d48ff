// SPDX-License-Identifier: Apache-2.0

#include "power/Interval.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <utility>

namespace powerstats {

namespace {

/// No rail of a machine carries a megawatt.
constexpr double kMaxMilliwatts = 1e9;
/// Two clocks cannot be read at one moment, so their difference wavers by this.
constexpr std::chrono::milliseconds kClockTolerance{10};
/// A counter of milliseconds is cut to whole ones.
constexpr std::chrono::milliseconds kRounding{1};

/// The difference of two totals, which may be any 64 bits; negative when the second is lower.
int64_t difference(int64_t before, int64_t after) {
    return static_cast<int64_t>(static_cast<uint64_t>(after) - static_cast<uint64_t>(before));
}

nanoseconds difference(nanoseconds before, nanoseconds after) {
    return nanoseconds(difference(before.count(), after.count()));
}

using Position = std::optional<size_t>;

/// Finds the position before of each thing, and then of those that are only before.
template <typename Thing>
std::vector<Position> pair(const std::vector<Thing>& before, const std::vector<Thing>& after) {
    std::vector<Position> positions(after.size());
    if (&before == &after) {
        std::iota(positions.begin(), positions.end(), size_t{0});
        return positions;
    }
    std::map<std::pair<int64_t, std::string>, size_t> left;
    for (size_t i = 0; i < before.size(); ++i) left[{before[i].id, before[i].name}] = i;
    for (size_t i = 0; i < after.size(); ++i) {
        const auto found = left.extract({after[i].id, after[i].name});
        if (found) positions[i] = found.mapped();
    }
    for (const auto& [name, i] : left) positions.emplace_back(i);
    return positions;
}

Trouble measure(const Rail& /*before*/, const Rail& /*after*/, const Energy& before,
                const Energy& after, Interval::RailFigures* rail) {
    const nanoseconds elapsed = difference(before.time, after.time);
    const int64_t energyUWs = difference(before.energyUWs, after.energyUWs);
    if (elapsed <= nanoseconds::zero()) return Trouble::kNoTime;
    // A service that has restarted counts a shorter time, whatever its energy is by now.
    if (energyUWs < 0 || after.duration < before.duration || after.resets != before.resets) {
        return Trouble::kReset;
    }
    // Microwatt-seconds by milliseconds are milliwatts.
    const double milliwatts =
        static_cast<double>(energyUWs) / std::chrono::duration<double, std::milli>(elapsed).count();
    if (milliwatts > kMaxMilliwatts) return Trouble::kImplausible;
    *rail = {Trouble::kNone, after.time, elapsed, energyUWs, milliwatts};
    return Trouble::kNone;
}

Trouble measure(const Entity& entityBefore, const Entity& entityAfter, const Residencies& before,
                const Residencies& after, Interval::EntityFigures* entity) {
    const nanoseconds elapsed = difference(before.time, after.time);
    if (elapsed <= nanoseconds::zero()) return Trouble::kNoTime;
    if (after.resets != before.resets) return Trouble::kReset;
    const std::vector<Position> positions = pair(entityBefore.states, entityAfter.states);
    nanoseconds claimed{};
    nanoseconds rounding = kRounding;
    std::vector<Interval::StateFigures> states(positions.size());
    for (size_t i = 0; i < positions.size(); ++i) {
        // With a state more or less, the others say nothing of the time that none of them has.
        if (!positions[i]) return Trouble::kCame;
        if (i >= after.states.size()) return Trouble::kWent;
        const Residency& first = before.states[*positions[i]];
        Interval::StateFigures& state = states[i];
        state.time = difference(first.totalTime, after.states[i].totalTime);
        state.entries = difference(first.entryCount, after.states[i].entryCount);
        if (state.time < nanoseconds::zero() || state.entries < 0) return Trouble::kReset;
        // A hostile service may claim any time.
        claimed =
            state.time > nanoseconds::max() - claimed ? nanoseconds::max() : claimed + state.time;
        if (state.time > nanoseconds::zero()) rounding += kRounding;
    }
    const bool isRounded =
        claimed > nanoseconds::zero() && std::chrono::abs(elapsed - claimed) <= rounding;
    const nanoseconds whole = isRounded ? claimed : std::max(claimed, elapsed);
    for (Interval::StateFigures& state : states) {
        state.share = toSeconds(state.time) / toSeconds(whole);
        state.entriesPerSecond = static_cast<double>(state.entries) / toSeconds(elapsed);
    }
    *entity = {Trouble::kNone, elapsed, std::move(states),
               toSeconds(whole - claimed) / toSeconds(whole), !isRounded && claimed > elapsed};
    return Trouble::kNone;
}

}  // namespace

const char* toText(Trouble trouble) {
    // In the order of the enumerators.
    constexpr const char* kTexts[] = {"",          "was not read",       "is new",      "is gone",
                                      "was reset", "has no new reading", "is over 1 MW"};
    return kTexts[static_cast<size_t>(trouble)];
}

const char* steadyState(const Interval& interval, size_t entity) {
    constexpr double kAll = 0.9995;  // 100.0 % in a table
    const Interval::EntityFigures& figures = interval.entities[entity];
    if (figures.trouble != Trouble::kNone || figures.isOverfull) return nullptr;
    if (figures.noneShare >= kAll) return kNoState;
    for (size_t i = 0; i < figures.states.size(); ++i) {
        if (figures.states[i].share < kAll) continue;
        return interval.lists->entities[entity].states[i].name.c_str();
    }
    return nullptr;
}

Interval subtract(const Reading& before, const Reading& after) {
    Interval interval;
    interval.time = after.time;
    interval.stampUnit = after.stampUnit;
    interval.elapsed = std::max(nanoseconds::zero(), after.time - before.time);
    const nanoseconds suspended = after.suspended - before.suspended;
    if (suspended > kClockTolerance) interval.suspended = suspended;

    std::shared_ptr<Lists> all;
    if (before.lists != after.lists) all = std::make_shared<Lists>(*after.lists);
    const auto compare = [&](auto things, auto totals, auto failure, auto figures,
                             auto figuresFailure) {
        interval.*figuresFailure = after.*failure ? after.*failure : before.*failure;
        const auto& thingsBefore = (*before.lists).*things;
        const auto& thingsAfter = (*after.lists).*things;
        const std::vector<Position> positions = pair(thingsBefore, thingsAfter);
        for (size_t i = 0; i < positions.size(); ++i) {
            const Position from = positions[i];
            const bool went = i >= thingsAfter.size();
            if (went) ((*all).*things).push_back(thingsBefore[*from]);
            auto& its = (interval.*figures).emplace_back();
            its.trouble = after.*failure || (!from && before.*failure) ? Trouble::kNotRead
                          : !from                                      ? Trouble::kCame
                          : went                                       ? Trouble::kWent
                          : !(before.*totals)[*from] || !(after.*totals)[i]
                              ? Trouble::kNotRead
                              : measure(thingsBefore[*from], thingsAfter[i],
                                        *(before.*totals)[*from], *(after.*totals)[i], &its);
        }
    };
    compare(&Lists::rails, &Reading::rails, &Reading::railsFailure, &Interval::rails,
            &Interval::railsFailure);
    compare(&Lists::entities, &Reading::entities, &Reading::entitiesFailure, &Interval::entities,
            &Interval::entitiesFailure);
    interval.lists = all != nullptr ? std::move(all) : after.lists;
    for (size_t i = 0; i < interval.entities.size(); ++i) {
        interval.entities[i].states.resize(interval.lists->entities[i].states.size());
    }
    return interval;
}

bool hasFigures(const Interval& interval) {
    const auto hasThem = [](const auto& figures) { return figures.trouble == Trouble::kNone; };
    return std::any_of(interval.rails.begin(), interval.rails.end(), hasThem) ||
           std::any_of(interval.entities.begin(), interval.entities.end(), hasThem);
}

void keepFigures(const Reading& before, Reading* after) {
    if (before.lists != after->lists) return;
    const auto keep = [](const auto& from, auto* to) {
        for (size_t i = 0; i < to->size(); ++i) {
            if (!(*to)[i]) (*to)[i] = from[i];
        }
    };
    keep(before.rails, &after->rails);
    keep(before.entities, &after->entities);
}

}  // namespace powerstats
