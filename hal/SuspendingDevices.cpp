// SPDX-License-Identifier: Apache-2.0

#include <algorithm>

#include "hal/CounterSources.h"
#include "hal/NamesAndIds.h"

namespace powerstats {

namespace {

const std::string kFolder = "devices/";
constexpr int32_t kFirstId = 0x40000000;
constexpr int kIdBits = 30;

/// Times in milliseconds; in the order of the state ids.
constexpr struct {
    const char* state;
    const char* file;
} kStates[] = {{"active", "/power/runtime_active_time"},
               {"suspended", "/power/runtime_suspended_time"}};
constexpr auto& kSuspended = kStates[1];

/// Adds the paths below `devices` of the devices in `folder` that have ever been suspended. Links
/// between devices are not followed: they lead in circles.
void collectDevices(const Sysfs& sysfs, const std::string& folder,
                    std::vector<std::string>* devices) {
    for (const std::string& entry : sysfs.ownFolders(kFolder + folder)) {
        if (entry == "power") continue;
        const std::string device = folder + entry;
        if (sysfs.readNumber(kFolder + device + kSuspended.file).value_or(0) > 0) {
            devices->push_back(device);
        }
        collectDevices(sysfs, device + "/", devices);
    }
}

}  // namespace

std::vector<EntitySource> findSuspendingDevices(const std::shared_ptr<const Sysfs>& sysfs) {
    std::vector<std::string> devices;
    collectDevices(*sysfs, "", &devices);
    std::sort(devices.begin(), devices.end());

    PathIds ids(kFirstId, kIdBits);
    std::vector<EntitySource> entities;
    for (const std::string& device : devices) {
        EntitySource entity{ids.add(device), device, EntityType::kDevice, {}};
        int32_t stateId = 0;
        for (const auto& [state, file] : kStates) {
            auto read = [sysfs, path = kFolder + device + file]() -> std::optional<Residency> {
                const std::optional<int64_t> timeMs = sysfs->readNumber(path);
                if (!timeMs) return std::nullopt;
                return Residency{*timeMs, 0};
            };
            if (read()) entity.states.push_back({stateId, state, read});
            ++stateId;
        }
        if (!entity.states.empty()) entities.push_back(std::move(entity));
    }
    return entities;
}

}  // namespace powerstats
