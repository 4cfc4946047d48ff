// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "hal/CounterSources.h"
#include "hal/PeriodicThread.h"
#include "hal/Sysfs.h"

namespace powerstats {

struct Rail {
    /// From the rail's identity: the same for the same rail in every run.
    int32_t id = 0;
    std::string name;
    RailSource source;
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

/// The power counters of a Linux machine's kernel: energy rails, and entities with the time spent
/// in each of their states. Nothing is estimated: a quantity that a machine does not measure is not
/// shown.
///
/// The set of rails, entities and states is fixed when this object is made. Clients keep names by
/// their ids and some end on an id that they do not know, so nothing is ever added. A rail or
/// entity that goes away, or cannot be read, is missing from an answer until it is back.
///
/// Names are safe (safeName()) and distinct: those of rails among the rails, those of entities
/// among the entities, those of states in their entity.
///
/// Ids are never negative and come from the thing itself: a CPU has its number, the system 0x10000,
/// a device 0x40000000 and more by its path, a rail a number by its identity.
///
/// Energy is since boot where that is certain (EnergyCounter); EnergyReading says so for each rail.
/// While a counter that wraps is among the rails, a thread reads it often enough that no wrap is
/// missed. Safe to use from any thread.
class LinuxCounters {
  public:
    struct Options {
        std::string root = "/sys";
        /// Receives a line for each file that is there and cannot be used, once.
        WarningCallback warn;
        ReadClock readClock = readKernelClock;
        /// Whether the energy counters started with this machine; see EnergyCounter. By default
        /// whether `root` is the kernel's own tree.
        std::optional<bool> hasBoot;
    };

    explicit LinuxCounters(const Options& options);

    const std::vector<Rail>& rails() const { return mRails; }
    const std::vector<EntitySource>& entities() const { return mEntities; }

    /// The entities of a request, readable or not.
    Answer<const EntitySource*> selectEntities(const std::vector<int32_t>& ids) const;

    Answer<RailEnergy> readRails(const std::vector<int32_t>& ids) const;

    /// Every entity in the answer has all of its states. A state that cannot be read now has its
    /// latest value: it is one of a part that is off, such as a CPU, and no time is spent in it.
    Answer<EntityResidency> readEntities(const std::vector<int32_t>& ids) const;

  private:
    void startSampling();
    std::optional<EntityResidency> readEntity(const EntitySource& entity) const;

    std::vector<Rail> mRails;
    std::vector<EntitySource> mEntities;
    /// Ids to indices into the list above.
    std::unordered_map<int32_t, size_t> mRailIndices;
    std::unordered_map<int32_t, size_t> mEntityIndices;
    mutable std::mutex mMutex;
    /// The latest value of each state, by the indices of its entity and its own.
    mutable std::vector<std::vector<Residency>> mLatest;
    /// The last member, so that the thread ends before the counters that it reads. Null when no
    /// counter wraps.
    std::unique_ptr<PeriodicThread> mSampler;
};

}  // namespace powerstats
