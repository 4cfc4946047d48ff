// SPDX-License-Identifier: Apache-2.0

#include "tools/Interval.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <utility>

namespace powerstats {

namespace {

/// No rail of a machine carries a megawatt.
constexpr double kMaxMilliwatts = 1e9;
/// Two clocks cannot be read at one moment, so their difference wavers by this.
constexpr int64_t kClockToleranceMs = 10;

/// The difference of two totals, which may be any 64 bits; negative when the second is lower.
int64_t difference(int64_t before, int64_t after) {
    return static_cast<int64_t>(static_cast<uint64_t>(after) - static_cast<uint64_t>(before));
}

/// Pairs the things of two lists by id and name, in the order of the second list. Those that are in
/// the first list only come last.
template <typename Thing>
std::vector<std::pair<const Thing*, const Thing*>> pair(const std::vector<Thing>& before,
                                                        const std::vector<Thing>& after) {
    std::vector<std::pair<const Thing*, const Thing*>> pairs;
    // Nearly always the lists are the same.
    const auto isSame = [](const Thing& one, const Thing& other) {
        return one.id == other.id && one.name == other.name;
    };
    pairs.reserve(after.size());
    if (std::equal(before.begin(), before.end(), after.begin(), after.end(), isSame)) {
        for (size_t i = 0; i < after.size(); ++i) pairs.emplace_back(&before[i], &after[i]);
        return pairs;
    }
    std::map<std::pair<int64_t, std::string>, const Thing*> left;
    for (const Thing& thing : before) left.emplace(std::pair(thing.id, thing.name), &thing);
    for (const Thing& thing : after) {
        const auto found = left.find({thing.id, thing.name});
        pairs.emplace_back(found == left.end() ? nullptr : found->second, &thing);
        if (found != left.end()) left.erase(found);
    }
    for (const Thing& thing : before) {
        const auto found = left.find({thing.id, thing.name});
        if (found != left.end() && found->second == &thing) pairs.emplace_back(&thing, nullptr);
    }
    return pairs;
}

/// Why a thing that is in one list alone is not in the other.
/// @param errorBefore, errorAfter [in] why a list could not be read; then nothing came or went.
Trouble troubleOf(bool inBefore, bool inAfter, const std::string& errorBefore,
                  const std::string& errorAfter) {
    if (!inBefore) return errorBefore.empty() ? Trouble::kCame : Trouble::kNotRead;
    if (!inAfter) return errorAfter.empty() ? Trouble::kWent : Trouble::kNotRead;
    return Trouble::kNone;
}

/// Fills in the figures of a rail that both snapshots list.
Trouble measure(const Snapshot::Rail& before, const Snapshot::Rail& after, Interval::Rail* rail) {
    if (!before.energy || !after.energy) return Trouble::kNotRead;
    const int64_t elapsedMs = difference(before.energy->timestampMs, after.energy->timestampMs);
    const int64_t energyUWs = difference(before.energy->energyUWs, after.energy->energyUWs);
    if (elapsedMs <= 0) return Trouble::kNoTime;
    // A service that has restarted counts a shorter time, whatever its energy is by now.
    if (energyUWs < 0 || after.energy->durationMs < before.energy->durationMs) {
        return Trouble::kReset;
    }
    const double milliwatts = static_cast<double>(energyUWs) / static_cast<double>(elapsedMs);
    if (milliwatts > kMaxMilliwatts) return Trouble::kImplausible;
    rail->timestampMs = after.energy->timestampMs;
    rail->elapsedMs = elapsedMs;
    rail->energyUWs = energyUWs;
    rail->milliwatts = milliwatts;
    return Trouble::kNone;
}

/// Fills in the figures of the states of an entity that both snapshots list.
Trouble measure(const Snapshot::Entity& before, const Snapshot::Entity& after, int64_t elapsedMs,
                Interval::Entity* entity) {
    if (elapsedMs <= 0) return Trouble::kNoTime;
    double claimedMs = 0;
    // Each total, and the clock, is cut to whole milliseconds.
    double roundingMs = 1;
    std::vector<Interval::State> states;
    states.reserve(after.states.size());
    for (const auto& [first, second] : pair(before.states, after.states)) {
        // With a state more or less, the others say nothing of the time that none of them has.
        if (first == nullptr) return Trouble::kCame;
        if (second == nullptr) return Trouble::kWent;
        if (!first->residency || !second->residency) return Trouble::kNotRead;
        Interval::State state{second->id, second->name};
        state.timeMs = difference(first->residency->totalTimeMs, second->residency->totalTimeMs);
        state.entries = difference(first->residency->entryCount, second->residency->entryCount);
        if (state.timeMs < 0 || state.entries < 0) return Trouble::kReset;
        claimedMs += static_cast<double>(state.timeMs);
        roundingMs += state.timeMs > 0 ? 1 : 0;
        states.push_back(std::move(state));
    }
    const auto passedMs = static_cast<double>(elapsedMs);
    const bool isRounded = claimedMs > 0 && std::abs(passedMs - claimedMs) <= roundingMs;
    const double wholeMs = isRounded ? claimedMs : std::max(claimedMs, passedMs);
    for (Interval::State& state : states) {
        state.share = static_cast<double>(state.timeMs) / wholeMs;
        state.entriesPerSecond = static_cast<double>(state.entries) * 1000 / passedMs;
    }
    entity->noneShare = (wholeMs - claimedMs) / wholeMs;
    entity->isOverfull = !isRounded && claimedMs > passedMs;
    entity->states = std::move(states);
    return Trouble::kNone;
}

}  // namespace

const char* toText(Trouble trouble) {
    switch (trouble) {
        case Trouble::kNone:
            break;
        case Trouble::kNotRead:
            return "was not read";
        case Trouble::kCame:
            return "is new";
        case Trouble::kWent:
            return "is gone";
        case Trouble::kReset:
            return "was reset";
        case Trouble::kNoTime:
            return "has no new reading";
        case Trouble::kImplausible:
            return "is over 1 MW";
    }
    return "";
}

const char* steadyState(const Interval::Entity& entity) {
    constexpr double kAll = 0.9995;  // 100.0 % in a table
    if (entity.trouble != Trouble::kNone || entity.isOverfull) return nullptr;
    if (entity.noneShare >= kAll) return kNoState;
    for (const Interval::State& state : entity.states) {
        if (state.share >= kAll) return state.name.c_str();
    }
    return nullptr;
}

Interval subtract(const Snapshot& before, const Snapshot& after) {
    Interval interval;
    interval.railsError = after.railsError.empty() ? before.railsError : after.railsError;
    interval.entitiesError =
        after.entitiesError.empty() ? before.entitiesError : after.entitiesError;
    interval.timestampMs = after.timestampMs;
    interval.elapsedMs = std::max<int64_t>(0, after.timestampMs - before.timestampMs);
    const int64_t suspendedMs = after.suspendedMs - before.suspendedMs;
    interval.suspendedMs = suspendedMs > kClockToleranceMs ? suspendedMs : 0;

    interval.rails.reserve(after.rails.size());
    for (const auto& [first, second] : pair(before.rails, after.rails)) {
        const Snapshot::Rail& known = second != nullptr ? *second : *first;
        Interval::Rail rail{known.id, known.name, known.subsystem};
        rail.trouble =
            troubleOf(first != nullptr, second != nullptr, before.railsError, after.railsError);
        if (rail.trouble == Trouble::kNone) rail.trouble = measure(*first, *second, &rail);
        interval.rails.push_back(std::move(rail));
    }
    interval.entities.reserve(after.entities.size());
    for (const auto& [first, second] : pair(before.entities, after.entities)) {
        const Snapshot::Entity& known = second != nullptr ? *second : *first;
        Interval::Entity entity{known.id, known.name};
        entity.trouble = troubleOf(first != nullptr, second != nullptr, before.entitiesError,
                                   after.entitiesError);
        entity.states.reserve(known.states.size());
        for (const Snapshot::State& state : known.states) {
            entity.states.push_back({state.id, state.name});
        }
        if (entity.trouble == Trouble::kNone) {
            entity.trouble = measure(*first, *second, interval.elapsedMs, &entity);
        }
        interval.entities.push_back(std::move(entity));
    }
    return interval;
}

}  // namespace powerstats
