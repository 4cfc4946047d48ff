// SPDX-License-Identifier: Apache-2.0

#include <limits>
#include <map>

#include "hal/CounterSources.h"

namespace powerstats {

namespace {

const std::string kFolder = "devices/system/cpu/";
/// CPU numbers are entity ids; those of other entities start above.
constexpr int32_t kMaxCpuNumber = 0xffff;
constexpr int64_t kMicrosecondsPerMillisecond = 1000;

/// The entries of a folder that are `prefix` and a number, by number.
std::map<int32_t, std::string> numberedEntries(const Sysfs& sysfs, const std::string& folder,
                                               const std::string& prefix, int32_t max) {
    std::map<int32_t, std::string> numbered;
    for (const std::string& entry : sysfs.entries(folder)) {
        if (const auto number = numberInName(entry, prefix, "", max)) numbered[*number] = entry;
    }
    return numbered;
}

std::optional<Residency> readIdleState(const Sysfs& sysfs, const std::string& folder) {
    const std::optional<int64_t> timeUs = sysfs.readNumber(folder + "/time");
    const std::optional<int64_t> usage = sysfs.readNumber(folder + "/usage");
    if (!timeUs || !usage) return std::nullopt;
    return Residency{*timeUs / kMicrosecondsPerMillisecond, *usage};
}

/// std::nullopt when the state cannot be read.
std::optional<StateSource> makeState(const std::shared_ptr<const Sysfs>& sysfs, int32_t id,
                                     const std::string& folder, const std::string& defaultName) {
    auto read = [sysfs, folder] { return readIdleState(*sysfs, folder); };
    if (!read()) return std::nullopt;
    return StateSource{id, sysfs->readName(folder + "/name").value_or(defaultName), read};
}

}  // namespace

std::vector<EntitySource> findIdleCpus(const std::shared_ptr<const Sysfs>& sysfs) {
    std::vector<EntitySource> cpus;
    for (const auto& [cpuNumber, cpu] : numberedEntries(*sysfs, kFolder, "cpu", kMaxCpuNumber)) {
        EntitySource entity{cpuNumber, cpu, EntityType::kCpu, {}};
        const std::string states = kFolder + cpu + "/cpuidle/";
        for (const auto& [stateNumber, state] :
             numberedEntries(*sysfs, states, "state", std::numeric_limits<int32_t>::max())) {
            auto source = makeState(sysfs, stateNumber, states + state, state);
            if (source) entity.states.push_back(std::move(*source));
        }
        if (!entity.states.empty()) cpus.push_back(std::move(entity));
    }
    return cpus;
}

}  // namespace powerstats
