// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "power/Source.h"
#include "power/linux/Counters.h"
#include "power/linux/PeriodicThread.h"
#include "power/linux/Sysfs.h"

namespace powerstats {

/// The power counters of a Linux machine's kernel. Nothing is estimated: a quantity that a machine
/// does not measure is not shown.
///
/// A rail or entity that goes away, or cannot be read, has no figures until it is back. A state
/// that cannot be read has its latest value: it is one of a part that is off, such as a CPU, and no
/// time is spent in it. The kernel does not tell when a state was last entered.
///
/// Ids come from the thing itself and are the same in every run: a CPU has its number, the system
/// 0x10000, a device 0x40000000 and more by its path, a rail a number by its identity.
///
/// Energy is since boot where that is certain (EnergyCounter). While a counter that wraps is among
/// the rails, a thread reads it often enough that no wrap is missed.
class LinuxSource : public Source {
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

    explicit LinuxSource(const Options& options);

    using Source::read;
    Reading read(const Positions& rails, const Positions& entities) override;

  private:
    void startSampling();
    std::optional<Residencies> readEntity(EntitySource* entity);

    const ReadClock mReadClock;
    std::shared_ptr<const Lists> mLists;
    /// In the order of the lists.
    std::vector<RailSource> mRails;
    std::vector<EntitySource> mEntities;
    Failure mRailsFailure;
    /// Guards the latest values of the states.
    std::mutex mMutex;
    /// The last member, so that the thread ends before the counters that it reads. Null when no
    /// counter wraps.
    std::unique_ptr<PeriodicThread> mSampler;
};

}  // namespace powerstats
