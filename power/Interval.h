// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "power/Reading.h"

namespace powerstats {

/// Why an interval has no figures for a rail or an entity.
enum class Trouble {
    kNone,
    kNotRead,      ///< one of the readings lacks it
    kCame,         ///< the source lists it since the second reading
    kWent,         ///< the source lists it no more
    kReset,        ///< the counter was reset, or a total went backwards
    kNoTime,       ///< there is no later reading
    kImplausible,  ///< more than 1 MW
};

/// In words, for output: "was reset".
const char* toText(Trouble trouble);

/// The difference of two readings. Figures are valid where `trouble` is kNone, and otherwise 0.
struct Interval {
    struct RailFigures {
        Trouble trouble = Trouble::kNone;
        /// The stamp of the second reading, and the time since the first one's.
        nanoseconds time{};
        nanoseconds elapsed{};
        int64_t energyUWs = 0;
        /// The average power.
        double milliwatts = 0;
    };
    struct StateFigures {
        nanoseconds time{};
        int64_t entries = 0;
        /// Of the time that passed, from 0 to 1.
        double share = 0;
        double entriesPerSecond = 0;
    };
    struct EntityFigures {
        Trouble trouble = Trouble::kNone;
        /// The time between the stamps of its two readings.
        nanoseconds elapsed{};
        /// By position in Entity::states; always as many.
        std::vector<StateFigures> states = {};
        /// The share of the time that no state claims, as that of a CPU that runs.
        double noneShare = 0;
        /// Whether the states claim more time than passed; see subtract().
        bool isOverfull = false;
    };

    /// Those of the second reading, and at their ends the rails and entities that only the first
    /// one has.
    std::shared_ptr<const Lists> lists = std::make_shared<const Lists>();
    /// By position in the lists; as many as those.
    std::vector<RailFigures> rails;
    std::vector<EntityFigures> entities;
    /// Why a reading lacks all rails, or all entities: the second's reason, otherwise the first's.
    Failure railsFailure;
    Failure entitiesFailure;
    /// The time of the second reading, and the time since the first.
    nanoseconds time{};
    nanoseconds elapsed{};
    /// As Reading::stampUnit.
    nanoseconds stampUnit{1};
    /// For how long of it the machine was suspended.
    nanoseconds suspended{};
};

/// Compares two readings of one source. Readings with the same lists are compared by position,
/// others by ids and names. Time comes from the stamps of the figures only.
///
/// A kernel counts a stay in a state when it ends, so an interval may be told of time that passed
/// before it. When an entity's states claim more than the time that passed, the shares are those of
/// the time claimed, so they never exceed the whole.
Interval subtract(const Reading& before, const Reading& after);

/// Whether any rail or entity has figures.
bool hasFigures(const Interval& interval);

/// Gives a reading the figures of an earlier one where it has none of its own, if both have the
/// same lists. Their old stamps tell that there is no new reading. After an outage the difference
/// then covers the whole time.
void keepFigures(const Reading& before, Reading* after);

/// The name of the time in no state.
constexpr char kNoState[] = "(none of these)";

/// The name of the state that had all of an entity's time, so that one line says everything about
/// the entity; null when there is none.
/// @param entity [in] its position.
const char* steadyState(const Interval& interval, size_t entity);

}  // namespace powerstats
