// SPDX-License-Identifier: Apache-2.0
//
// Where the kernel keeps what a power stats service tells. Each function here looks for one kind of
// counter once, keeps the paths of those that can be read now, and hands them back with a function
// that reads the counter anew. What appears later is not found; what goes away reads as
// std::nullopt.

#pragma once

#include <time.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hal/Sysfs.h"

namespace powerstats {

/// One energy counter of the kernel.
struct RailSource {
    /// Of the counter's file, below the root; the same for the same rail in every run.
    std::string path;
    /// From the plainest to the most qualified; at least one. Bytes as the kernel has them.
    std::vector<std::string> names;
    std::string subsystem;
    /// Energy in microwatt-seconds (which are microjoules). Safe to call from any thread.
    std::function<std::optional<int64_t>()> read;
    /// For a counter that wraps to zero: after how many microwatt-seconds it does. `read` has to be
    /// called at least once in every wrap.
    std::optional<int64_t> wrapsAfterUWs;
};

/// Time spent in a state, and how often it was entered.
struct Residency {
    int64_t totalTimeMs = 0;
    /// 0 where the kernel does not count.
    int64_t entryCount = 0;
};

struct StateSource {
    /// Unique within the entity.
    int32_t id = 0;
    /// Bytes as the kernel has them; LinuxCounters makes the names safe and distinct.
    std::string name;
    /// Safe to call from any thread.
    std::function<std::optional<Residency>()> read;
};

enum class EntityType { kSystem, kCpu, kDevice };

struct EntitySource {
    int32_t id = 0;
    /// As of a state.
    std::string name;
    EntityType type = EntityType::kDevice;
    /// At least one.
    std::vector<StateSource> states;
};

/// Every zone of `class/powercap` with a readable `energy_uj`, sorted by path.
///
/// A zone is named by the zones it is in and itself ("package-0/core"), qualified by its control
/// type ("intel-rapl-mmio/package-0") and then by its folder. Its energy is the kernel's counter
/// plus `max_energy_range_uj` for each wrap seen since this call; a reading below the one before is
/// taken for a wrap.
std::vector<RailSource> findPowercapRails(const std::shared_ptr<const Sysfs>& sysfs);

/// Every readable `energy*_input` of the chips in `class/hwmon`, sorted by path.
///
/// A counter is named by its label, or else by its chip and itself ("chip/energy1"), qualified by
/// the chip's name and then by the chip's folder ("chip/hwmon3/label").
std::vector<RailSource> findHwmonRails(const std::shared_ptr<const Sysfs>& sysfs);

/// The idle states of each CPU, by CPU number. Entity id: the CPU's number; state id: the state's.
std::vector<EntitySource> findIdleCpus(const std::shared_ptr<const Sysfs>& sysfs);

/// Every device below `devices` that has spent time in runtime suspend, sorted by path, with the
/// states `active` (0) and `suspended` (1). The kernel does not count how often they are entered.
std::vector<EntitySource> findSuspendingDevices(const std::shared_ptr<const Sysfs>& sysfs);

/// Reads one of the kernel's clocks.
using ReadClock = std::function<std::chrono::nanoseconds(clockid_t clock)>;

/// clock_gettime(); zero when it fails.
std::chrono::nanoseconds readKernelClock(clockid_t clock);

/// The machine as a whole: `running` (0) and `suspended` (1) since boot, by the difference of two
/// clocks. The time suspended never goes down from one reading to the next.
EntitySource makeSystemEntity(const std::shared_ptr<const Sysfs>& sysfs, ReadClock readClock);

}  // namespace powerstats
