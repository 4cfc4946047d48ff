// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace powerstats {

struct Rail {
    int32_t id = 0;
    std::string name;
    std::string subsystem;
};

struct State {
    /// Unique within the entity.
    int32_t id = 0;
    std::string name;
};

enum class EntityType { kSystem, kCpu, kDevice };

struct Entity {
    int32_t id = 0;
    std::string name;
    EntityType type = EntityType::kDevice;
    /// At least one.
    std::vector<State> states;
};

/// A rail's energy at one moment. Neither `energyUWs` nor `durationMs` ever goes backwards.
struct EnergyReading {
    /// In microwatt-seconds, which are microjoules.
    int64_t energyUWs = 0;
    /// Milliseconds since boot, with suspend, when the energy was read.
    int64_t timestampMs = 0;
    /// `timestampMs` minus the time that `energyUWs` does not cover.
    int64_t durationMs = 0;
    /// The end of the last time that is not covered, in milliseconds since boot; 0 when the energy
    /// is since boot.
    int64_t countedSinceMs = 0;

    bool isSinceBoot() const { return durationMs == timestampMs; }
};

/// Time spent in a state, and how often it was entered.
struct Residency {
    int64_t totalTimeMs = 0;
    /// 0 when entries are not counted.
    int64_t entryCount = 0;
    /// Milliseconds since boot, with suspend; 0 when it is not known.
    int64_t lastEntryMs = 0;
};

struct RailEnergy {
    int32_t id = 0;
    EnergyReading reading;
};

struct StateResidency {
    int32_t id = 0;
    Residency residency;
};

struct EntityResidency {
    int32_t id = 0;
    std::vector<StateResidency> states;
};

/// The answer to a request for certain ids.
template <typename Record>
struct Answer {
    /// Why the request is refused, in words; then nothing was read and there are no records. A
    /// request is refused that has more ids than there are things, an unknown id, or an id twice.
    /// So the work that a client can cause is bounded by the set.
    std::optional<std::string> refusal;
    /// In the order of the request, or of the set when the request was empty, which means all. A
    /// rail that cannot be read now is left out, and so is an entity none of whose states can.
    std::vector<Record> records;
};

/// The counters that a power stats service shows: energy rails, and entities with the time spent in
/// each of their states.
///
/// The set of rails, entities and states is fixed when the object is made. Clients keep names by
/// their ids and some end on an id that they do not know, so nothing is ever added.
///
/// Names are safe (safeName()) and distinct: those of rails among the rails, those of entities
/// among the entities, those of states in their entity. Ids are never negative.
///
/// Safe to use from any thread.
class Counters {
  public:
    virtual ~Counters() = default;
    Counters(const Counters&) = delete;
    Counters& operator=(const Counters&) = delete;

    const std::vector<Rail>& rails() const { return mRails; }
    const std::vector<Entity>& entities() const { return mEntities; }

    /// Whether a rail's energy is since boot, as of its latest reading. A rail that is not so never
    /// becomes so again.
    /// @param index [in] into rails().
    virtual bool isSinceBoot(size_t index) const = 0;

    /// The entities of a request, readable or not.
    Answer<const Entity*> selectEntities(const std::vector<int32_t>& ids) const;

    Answer<RailEnergy> readRails(const std::vector<int32_t>& ids) const;

    /// Every entity in the answer has all of its states.
    Answer<EntityResidency> readEntities(const std::vector<int32_t>& ids) const;

  protected:
    Counters() = default;

    /// Fixes the set. To be called once, while the object is made. Makes the names safe, and
    /// distinct by a number.
    void setLists(std::vector<Rail> rails, std::vector<Entity> entities);

  private:
    /// Reads those things that can be read now, in the order of `indices`, which are those of
    /// rails() or entities().
    virtual std::vector<RailEnergy> readRailsAt(const std::vector<size_t>& indices) const = 0;
    virtual std::vector<EntityResidency> readEntitiesAt(
        const std::vector<size_t>& indices) const = 0;

    std::vector<Rail> mRails;
    std::vector<Entity> mEntities;
    /// Ids to indices into the list above.
    std::unordered_map<int32_t, size_t> mRailIndices;
    std::unordered_map<int32_t, size_t> mEntityIndices;
};

}  // namespace powerstats
