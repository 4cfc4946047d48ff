// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "hal/CounterSources.h"
#include "hal/Counters.h"
#include "hal/PeriodicThread.h"
#include "hal/Sysfs.h"

namespace powerstats {

/// The power counters of a Linux machine's kernel. Nothing is estimated: a quantity that a machine
/// does not measure is not shown.
///
/// A rail or entity that goes away, or cannot be read, is missing from an answer until it is back.
/// A state that cannot be read has its latest value: it is one of a part that is off, such as a
/// CPU, and no time is spent in it. The kernel does not tell when a state was last entered.
///
/// Ids come from the thing itself and are the same in every run: a CPU has its number, the system
/// 0x10000, a device 0x40000000 and more by its path, a rail a number by its identity.
///
/// Energy is since boot where that is certain (EnergyCounter); EnergyReading says so for each rail.
/// While a counter that wraps is among the rails, a thread reads it often enough that no wrap is
/// missed.
class LinuxCounters : public Counters {
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

    bool isSinceBoot(size_t index) const override {
        return mRailSources[index].counter->isSinceBoot();
    }

  private:
    void startSampling();
    std::vector<RailEnergy> readRailsAt(const std::vector<size_t>& indices) const override;
    std::vector<EntityResidency> readEntitiesAt(const std::vector<size_t>& indices) const override;
    std::optional<EntityResidency> readEntity(size_t index) const;

    /// In the order of rails() and entities().
    std::vector<RailSource> mRailSources;
    std::vector<EntitySource> mEntitySources;
    mutable std::mutex mMutex;
    /// The latest value of each state, by the indices of its entity and its own.
    mutable std::vector<std::vector<Residency>> mLatest;
    /// The last member, so that the thread ends before the counters that it reads. Null when no
    /// counter wraps.
    std::unique_ptr<PeriodicThread> mSampler;
};

}  // namespace powerstats
