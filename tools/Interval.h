// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/Snapshot.h"

namespace powerstats {

/// Why an interval has no figures for a rail or an entity.
enum class Trouble {
    kNone,
    kNotRead,      ///< one of the readings lacks it, or lacks a state
    kCame,         ///< the service lists it since the second snapshot
    kWent,         ///< the service lists it no more
    kReset,        ///< a total went backwards
    kNoTime,       ///< the stamp did not move, or moved backwards
    kImplausible,  ///< more than 1 MW
};

/// In words, for output: "was reset".
const char* toText(Trouble trouble);

/// The difference of two snapshots. Figures are valid where `trouble` is kNone, and otherwise 0.
/// Names are the service's own bytes, as in a snapshot.
struct Interval {
    struct Rail {
        int64_t id = 0;
        std::string name;
        std::string subsystem;
        Trouble trouble = Trouble::kNone;
        /// The stamp of the second reading, and the time since the first one's.
        int64_t timestampMs = 0;
        int64_t elapsedMs = 0;
        int64_t energyUWs = 0;
        /// The average power: microwatt-seconds by milliseconds are milliwatts.
        double milliwatts = 0;
    };
    struct State {
        int64_t id = 0;
        std::string name;
        int64_t timeMs = 0;
        int64_t entries = 0;
        /// Of the interval, from 0 to 1.
        double share = 0;
        double entriesPerSecond = 0;
    };
    struct Entity {
        int64_t id = 0;
        std::string name;
        Trouble trouble = Trouble::kNone;
        std::vector<State> states = {};
        /// The share of the time that no state claims, as that of a CPU that runs.
        double noneShare = 0;
        /// Whether the states claim more time than passed; see subtract().
        bool isOverfull = false;
    };

    std::vector<Rail> rails;
    std::vector<Entity> entities;
    /// Why a snapshot lacks all rails, or all entities: the second's reason, otherwise the first's.
    std::string railsError;
    std::string entitiesError;
    /// The time of the second snapshot's residencies, and the time since the first's.
    int64_t timestampMs = 0;
    int64_t elapsedMs = 0;
    /// For how long of it the machine was suspended.
    int64_t suspendedMs = 0;
};

/// Compares two snapshots of one service, rail by rail and state by state, by their ids and names.
/// Time comes from the readings' stamps only.
///
/// A kernel counts a stay in a state when it ends, so an interval may be told of time that passed
/// before it. When an entity's states claim more than the time that passed, the shares are those of
/// the time claimed, so they never exceed the whole.
Interval subtract(const Snapshot& before, const Snapshot& after);

/// The name of the time in no state.
constexpr char kNoState[] = "(none of these)";

/// The name of the state that had all of the time, so that one line says everything about the
/// entity; null when there is none.
const char* steadyState(const Interval::Entity& entity);

}  // namespace powerstats
