// SPDX-License-Identifier: Apache-2.0
//
// The counters of the kernel. Each function here looks for one kind of counter once and adds those
// that can be read now, each with a function that reads it. A counter that appears later is
// not found; one that goes away reads as std::nullopt.

#pragma once

#include <time.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "power/Reading.h"
#include "power/linux/Sysfs.h"

namespace powerstats {

/// Reads one of the kernel's clocks.
using ReadClock = std::function<nanoseconds(clockid_t clock)>;

/// clock_gettime(); zero when it fails.
nanoseconds readKernelClock(clockid_t clock);

/// Options of all rails.
struct RailOptions {
    /// Whether the counters started with this machine. Those of a copied or made-up tree did not;
    /// their energy is always since boot.
    bool hasBoot = true;
    ReadClock readClock = readKernelClock;
};

/// Adds up the energy that a counter of the kernel shows, over its wraps and resets.
///
/// The first reading is since boot if the counter can neither have wrapped since boot nor hold
/// energy of a time before it, as after a kexec; otherwise the energy starts at 0 and the time
/// before is not covered. A later reading after so long a time that the counter may have wrapped
/// unseen adds the least energy that explains it, and that time is not covered. Any other lower
/// value is a wrap if the zone can have drawn that much in the time, and otherwise a reset to 0:
/// then the energy since the reading before is lost, which is one sampling interval at most, so the
/// rail remains since boot, and Energy::resets grows.
///
/// Safe to use from any thread.
class EnergyCounter {
  public:
    struct Options {
        /// Reads the kernel's counter, in microwatt-seconds. Called under a lock.
        std::function<std::optional<int64_t>()> readCounter;
        /// For a counter that wraps to 0: after how many microwatt-seconds it does. A counter
        /// without a range is taken to run since boot, and never wraps.
        std::optional<int64_t> rangeUWs;
        RailOptions ofRails;
        /// Called at each reset.
        std::function<void()> warnOfReset;
    };

    explicit EnergyCounter(Options options) : mOptions(std::move(options)) {}

    /// @return std::nullopt when the kernel's counter cannot be read.
    std::optional<Energy> read();

    /// How often a counter that wraps has to be read.
    std::optional<std::chrono::milliseconds> samplingInterval() const;

  private:
    void start(int64_t counterUWs, nanoseconds time);
    bool advance(int64_t counterUWs, nanoseconds runningTime, nanoseconds time);
    void skip(nanoseconds from, nanoseconds to);
    void add(int64_t energyUWs);

    struct Moment {
        int64_t counterUWs;
        /// CLOCK_MONOTONIC, which stops in suspend as the counter's zone does.
        nanoseconds runningTime;
        /// CLOCK_BOOTTIME.
        nanoseconds time;
    };

    const Options mOptions;
    std::mutex mMutex;
    std::optional<Moment> mLast;
    int64_t mEnergyUWs = 0;
    /// Whole milliseconds, so that durations round as stamps do.
    nanoseconds mUncovered{};
    uint32_t mResets = 0;
};

/// One energy counter of the kernel.
struct RailSource {
    /// Made of the path of the counter or of its device: the same for the same rail in every run,
    /// also after another boot. The rail's id comes from it.
    std::string identity;
    /// From the plainest to the most qualified; at least one. Bytes as the kernel has them.
    std::vector<std::string> names;
    std::string subsystem;
    std::shared_ptr<EnergyCounter> counter;
};

struct StateSource {
    /// Unique within the entity.
    int32_t id = 0;
    /// Bytes as the kernel has them.
    std::string name;
    std::function<std::optional<Residency>()> read;
    /// The latest value that was read.
    Residency latest = {};
};

struct EntitySource {
    int32_t id = 0;
    /// As of a state.
    std::string name;
    EntityType type = EntityType::kDevice;
    /// At least one.
    std::vector<StateSource> states;
};

/// Adds every zone of `class/powercap` with a readable `energy_uj`.
///
/// A zone is named by the zones it is in and itself ("package-0/core"), qualified by its control
/// type ("intel-rapl-mmio/package-0") and then by its folder. Its counter wraps after
/// `max_energy_range_uj`.
void addPowercapRails(const std::shared_ptr<const Sysfs>& sysfs, const RailOptions& options,
                      std::vector<RailSource>* rails);

/// Adds every readable `energy*_input` of the chips in `class/hwmon`.
///
/// The numbers of chips change between boots, so a counter's identity has the path of the chip's
/// device, or else the chip's name.
///
/// A counter is named by its label, or else by its chip and itself ("chip/energy1"), qualified by
/// the chip's name and then by the chip's folder ("chip/hwmon3/label"). Its counter does not wrap.
void addHwmonRails(const std::shared_ptr<const Sysfs>& sysfs, const RailOptions& options,
                   std::vector<RailSource>* rails);

/// Adds the idle states of each CPU, by CPU number. Entity id: the CPU's number; state id: the
/// state's.
void addIdleCpus(const std::shared_ptr<const Sysfs>& sysfs, std::vector<EntitySource>* entities);

/// Adds every device below `devices` that can be suspended while the machine runs, sorted by path,
/// with the states `active` (0) and `suspended` (1). The kernel does not count how often they are
/// entered. A device without `power/runtime_status` counts as one if it was suspended before this
/// call.
void addSuspendingDevices(const std::shared_ptr<const Sysfs>& sysfs,
                          std::vector<EntitySource>* entities);

/// The machine as a whole: `running` (0) and `suspended` (1) since boot, by the difference of two
/// clocks. The time suspended never goes down from one reading to the next.
EntitySource makeSystemEntity(const std::shared_ptr<const Sysfs>& sysfs, ReadClock readClock);

}  // namespace powerstats
