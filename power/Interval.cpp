// SPDX-License-Identifier: Apache-2.0

#include "power/Interval.h"

#include <algorithm>
#include <map>
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

/// Finds the position before of each thing.
/// @param before [in] the things of the first reading.
/// @param all [in,out] those of the second; those that only the first one has are added.
template <typename Thing>
std::vector<Position> pair(const std::vector<Thing>& before, std::vector<Thing>* all) {
    std::map<std::pair<int64_t, std::string>, size_t> left;
    for (size_t i = 0; i < before.size(); ++i)
        left.emplace(std::pair(before[i].id, before[i].name), i);
    std::vector<Position> positions;
    for (const Thing& thing : *all) {
        const auto found = left.find({thing.id, thing.name});
        positions.push_back(found == left.end() ? Position() : Position(found->second));
        if (found != left.end()) left.erase(found);
    }
    for (size_t i = 0; i < before.size(); ++i) {
        const auto found = left.find({before[i].id, before[i].name});
        if (found == left.end() || found->second != i) continue;
        all->push_back(before[i]);
        positions.emplace_back(i);
    }
    return positions;
}

/// Why nothing can be compared.
/// @param before, after [in] why a list could not be read; then nothing came or went.
Trouble troubleOf(bool inBefore, bool inAfter, const Failure& before, const Failure& after) {
    if (after) return Trouble::kNotRead;
    if (!inBefore) return before ? Trouble::kNotRead : Trouble::kCame;
    return inAfter ? Trouble::kNone : Trouble::kWent;
}

Trouble measure(const Energy& before, const Energy& after, Interval::RailFigures* rail) {
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

/// @param positions [in] those of the states before.
Trouble measure(const Residencies& before, const Residencies& after,
                const std::vector<Position>& positions, Interval::EntityFigures* entity) {
    const nanoseconds elapsed = difference(before.time, after.time);
    if (elapsed <= nanoseconds::zero()) return Trouble::kNoTime;
    if (after.resets != before.resets) return Trouble::kReset;
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

std::vector<Position> samePositions(size_t count) {
    std::vector<Position> positions(count);
    for (size_t i = 0; i < count; ++i) positions[i] = i;
    return positions;
}

/// Which positions two readings compare.
struct Pairing {
    /// The second reading's, and things that only the first one has.
    std::shared_ptr<const Lists> lists;
    /// Those before, by position in `lists`.
    std::vector<Position> rails;
    std::vector<Position> entities;
    std::vector<std::vector<Position>> states;
};

Pairing pair(const std::shared_ptr<const Lists>& before,
             const std::shared_ptr<const Lists>& after) {
    if (before == after) {
        Pairing same{
            after, samePositions(after->rails.size()), samePositions(after->entities.size()), {}};
        for (const Entity& entity : after->entities) {
            same.states.push_back(samePositions(entity.states.size()));
        }
        return same;
    }
    Lists all = *after;
    Pairing pairing;
    pairing.rails = pair(before->rails, &all.rails);
    pairing.entities = pair(before->entities, &all.entities);
    for (size_t i = 0; i < all.entities.size(); ++i) {
        auto& states = all.entities[i].states;
        const Position position = pairing.entities[i];
        pairing.states.push_back(position ? pair(before->entities[*position].states, &states)
                                          : std::vector<Position>(states.size()));
    }
    pairing.lists = std::make_shared<const Lists>(std::move(all));
    return pairing;
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
    Pairing pairing = pair(before.lists, after.lists);
    Interval interval;
    interval.lists = pairing.lists;
    interval.railsFailure = after.railsFailure ? after.railsFailure : before.railsFailure;
    interval.entitiesFailure =
        after.entitiesFailure ? after.entitiesFailure : before.entitiesFailure;
    interval.time = after.time;
    interval.elapsed = std::max(nanoseconds::zero(), after.time - before.time);
    const nanoseconds suspended = after.suspended - before.suspended;
    if (suspended > kClockTolerance) interval.suspended = suspended;

    const auto fill = [](auto* figures, const auto& positions, const auto& first,
                         const auto& second, const Failure& failureBefore,
                         const Failure& failureAfter, const auto&... states) {
        figures->resize(positions.size());
        for (size_t i = 0; i < positions.size(); ++i) {
            auto& figuresOf = (*figures)[i];
            const Position before = positions[i];
            figuresOf.trouble =
                troubleOf(before.has_value(), i < second.size(), failureBefore, failureAfter);
            if (figuresOf.trouble != Trouble::kNone) continue;
            figuresOf.trouble = first[*before] && second[i]
                                    ? measure(*first[*before], *second[i], states[i]..., &figuresOf)
                                    : Trouble::kNotRead;
        }
    };
    fill(&interval.rails, pairing.rails, before.rails, after.rails, before.railsFailure,
         after.railsFailure);
    fill(&interval.entities, pairing.entities, before.entities, after.entities,
         before.entitiesFailure, after.entitiesFailure, pairing.states);
    for (size_t i = 0; i < interval.entities.size(); ++i) {
        interval.entities[i].states.resize(pairing.lists->entities[i].states.size());
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
