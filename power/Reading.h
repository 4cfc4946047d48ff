// SPDX-License-Identifier: Apache-2.0
//
// The records of everything that is read, compared, shown, recorded and served.

#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace powerstats {

using std::chrono::nanoseconds;

struct Rail {
    /// Not negative; of 31 bits, or of 32 bits over HIDL.
    int64_t id = 0;
    std::string name;
    std::string subsystem;

    bool operator==(const Rail& other) const {
        return id == other.id && name == other.name && subsystem == other.subsystem;
    }
};

struct State {
    /// Unique within the entity.
    int64_t id = 0;
    std::string name;

    bool operator==(const State& other) const { return id == other.id && name == other.name; }
};

enum class EntityType { kSystem, kCpu, kDevice };

struct Entity {
    int64_t id = 0;
    std::string name = {};
    EntityType type = EntityType::kDevice;
    std::vector<State> states = {};

    bool operator==(const Entity& other) const {
        return id == other.id && name == other.name && type == other.type && states == other.states;
    }
};

/// The things that a source reads. Lists are made once and never change; many readings share them.
/// Their names are safe and distinct, as nameLists() makes them.
struct Lists {
    std::vector<Rail> rails;
    std::vector<Entity> entities;
};

/// A rail's energy at one moment.
struct Energy {
    /// Since boot, with suspend, when the counter was read.
    nanoseconds time{};
    /// The part of `time` over which the energy was counted.
    nanoseconds duration{};
    /// Microwatt-seconds, which are microjoules.
    int64_t energyUWs = 0;
    /// How often the counter lost energy by starting again. A difference cannot show that, because
    /// the total goes on.
    uint32_t resets = 0;

    bool isSinceBoot() const { return duration == time; }
};

/// Time spent in a state, and how often it was entered.
struct Residency {
    nanoseconds totalTime{};
    /// 0 when entries are not counted.
    int64_t entryCount = 0;
    /// Since boot, with suspend; 0 when it is not known.
    nanoseconds lastEntry{};

    /// Whether a total is less than an earlier one's, which tells of a reset.
    bool isLessThan(const Residency& earlier) const {
        return totalTime < earlier.totalTime || entryCount < earlier.entryCount;
    }
};

/// The states of an entity at one moment.
struct Residencies {
    /// As Energy::time.
    nanoseconds time{};
    /// As Energy::resets.
    uint32_t resets = 0;
    /// By position in Entity::states.
    std::vector<Residency> states;
};

/// Why something could not be read.
struct Failure {
    enum class Kind {
        kNone,
        kNoService,     ///< no service is on the bus
        kHidlOnly,      ///< a service is on the bus over HIDL only
        kGone,          ///< the service ended
        kRefused,       ///< a policy or a permission forbids it
        kTimedOut,      ///< no answer came in time
        kNotSupported,  ///< the service has no such records
        kNotMeasured,   ///< this machine has no such counters, or this user may not read them
        kOther,
    };
    Kind kind = Kind::kNone;
    /// One line in words, without control characters; empty with kNone.
    std::string text = {};

    explicit operator bool() const { return kind != Kind::kNone; }
};

/// What a source reads at one time.
struct Reading {
    /// Never null.
    std::shared_ptr<const Lists> lists = std::make_shared<const Lists>();
    /// By position in the lists; as many as those. std::nullopt: not read.
    std::vector<std::optional<Energy>> rails;
    std::vector<std::optional<Residencies>> entities;
    /// Why no rail, or no entity, was read.
    Failure railsFailure;
    Failure entitiesFailure;
    /// The time of the reading as a whole, since boot with suspend. For a recording the time of the
    /// sample.
    nanoseconds time{};
    /// The unit of the rails' stamps.
    nanoseconds stampUnit{1};
    /// For how long the machine has been suspended since boot; 0 for a recording, which lacks it.
    nanoseconds suspended{};
};

/// Converts a number of an interface or a file. Times beyond 292 years become the greatest or least
/// duration.
template <typename Unit>
constexpr nanoseconds fromNumber(int64_t number) {
    constexpr int64_t kPerUnit = nanoseconds(Unit(1)).count();
    constexpr int64_t kMost = std::numeric_limits<int64_t>::max() / kPerUnit;
    if (number > kMost) return nanoseconds::max();
    return number < -kMost ? nanoseconds::min() : nanoseconds(number * kPerUnit);
}

constexpr nanoseconds fromMilliseconds(int64_t number) {
    return fromNumber<std::chrono::milliseconds>(number);
}

/// Rounds down.
constexpr int64_t toMilliseconds(nanoseconds time) {
    return std::chrono::floor<std::chrono::milliseconds>(time).count();
}

/// For the time between two stamps.
constexpr int64_t roundToMilliseconds(nanoseconds time) {
    return std::chrono::round<std::chrono::milliseconds>(time).count();
}

constexpr double toSeconds(nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace powerstats
