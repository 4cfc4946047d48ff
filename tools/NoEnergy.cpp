// SPDX-License-Identifier: Apache-2.0

#include "tools/NoEnergy.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <vector>

namespace powerstats {

namespace {

namespace fs = std::filesystem;

std::string ofDenied(const std::vector<std::string>& files, bool isThisMachine) {
    const std::string others =
        files.size() > 1 ? fmt::format(" and {} more", files.size() - 1) : "";
    return fmt::format("energy left out: this user may not read {}{} ({})", files.front(), others,
                       isThisMachine ? "let powerstatsd read them: join the group powerstats, and "
                                       "add --bus=system; or run as root"
                                     : "grant read access");
}

/// @param sysfs [in] the root of a tree in which no rail was found.
std::string ofTree(const std::string& sysfs, bool isThisMachine) {
    const fs::path zones = fs::path(sysfs) / "class/powercap";
    const std::string remedy =
        isThisMachine ? " (a virtual machine, or the driver intel_rapl_msr is not loaded)" : "";
    std::error_code error;
    if (!fs::is_directory(zones, error)) {
        return fmt::format("no energy: there is no folder {}{}", zones.string(), remedy);
    }
    for (fs::directory_iterator zone(zones, error), end; !error && zone != end;
         zone.increment(error)) {
        std::error_code ofZone;
        if (!fs::exists(zone->path() / "energy_uj", ofZone)) continue;
        return fmt::format("no energy: no counter in {} can be read (a line above says why)",
                           zones.string());
    }
    return fmt::format("no energy: {} has no counters{}", zones.string(), remedy);
}

}  // namespace

std::string whyNoEnergy(const ServiceOptions& options, const Snapshot& snapshot) {
    const SourceOptions& source = options.source;
    const bool isThisMachine = source.sysfs == "/sys";
    if (!deniedCounters().empty()) return ofDenied(deniedCounters(), isThisMachine);
    if (snapshot.railsError == kRefusedByBus) return fmt::format("no energy: {}", kRefusedByBus);
    if (!snapshot.railsError.empty() && snapshot.railsError != kNotSupported) return "";
    if (!snapshot.rails.empty()) return "";

    if (options.bus) {
        const bool isHidl = snapshot.railsError == kNotSupported;
        return fmt::format("no energy: the service on {} has no rails{}", describe(options),
                           isHidl ? " over HIDL (--hal aidl may show them)" : "");
    }
    if (ownReplay() != nullptr) {
        return fmt::format("no energy: {} has no rails", source.replay);
    }
    if (!SnapshotReader(ownService()).read().rails.empty()) {
        return "no energy over HIDL: no rail is counted since boot (give --hal aidl)";
    }
    return ofTree(source.sysfs, isThisMachine);
}

void sayWhyNoEnergy(const ServiceOptions& options, const Snapshot& snapshot) {
    const std::string reason = whyNoEnergy(options, snapshot);
    if (!reason.empty()) say(reason);
}

}  // namespace powerstats
