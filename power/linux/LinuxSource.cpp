// SPDX-License-Identifier: Apache-2.0

#include "power/linux/LinuxSource.h"

#include <algorithm>
#include <chrono>
#include <tuple>
#include <utility>

#include "power/Ids.h"
#include "power/text/Names.h"

namespace powerstats {

namespace {

using std::chrono::milliseconds;

constexpr int kRailIdBits = 31;

/// Sorts the sources and names their rails.
std::vector<Rail> makeRails(std::vector<RailSource>* sources) {
    // Names tell rails apart that have one identity, such as those of two chips of one device.
    std::sort(sources->begin(), sources->end(), [](const RailSource& a, const RailSource& b) {
        return std::tie(a.identity, a.names) < std::tie(b.identity, b.names);
    });
    std::vector<std::vector<std::string>> choices;
    std::vector<std::string> identities;
    for (const RailSource& source : *sources) {
        choices.push_back(source.names);
        identities.push_back(source.identity);
    }
    const std::vector<std::string> names = distinctNames(choices);
    const std::vector<int32_t> ids = pathIds(identities, 0, kRailIdBits);
    std::vector<Rail> rails;
    for (size_t i = 0; i < names.size(); ++i) {
        rails.push_back({ids[i], names[i], (*sources)[i].subsystem});
    }
    return rails;
}

std::vector<Entity> makeEntities(const std::vector<EntitySource>& sources) {
    std::vector<Entity> entities;
    for (const EntitySource& source : sources) {
        Entity& entity = entities.emplace_back(Entity{source.id, source.name, source.type});
        for (const StateSource& state : source.states) {
            entity.states.push_back({state.id, state.name});
        }
    }
    return entities;
}

/// Says which files this user may not read; empty when there are none.
std::string describeRefused(const Sysfs& sysfs, const std::string& folder, const char* remedy) {
    const std::vector<std::string> files = sysfs.refusedFiles(folder);
    if (files.empty()) return "";
    const std::string others =
        files.size() == 1 ? "" : " and " + std::to_string(files.size() - 1) + " others";
    return "this user may not read " + files.front() + others + " (" + remedy + ")";
}

std::string whyNoRails(const Sysfs& sysfs) {
    const std::string zones = sysfs.fullPath("class/powercap");
    const char* const remedy =
        sysfs.isKernels() ? " (a virtual machine, or the driver intel_rapl_msr is not loaded)" : "";
    if (!sysfs.hasFolder("class/powercap")) return "there is no folder " + zones + remedy;
    for (const std::string& zone : sysfs.entries("class/powercap")) {
        const std::vector<std::string> files = sysfs.entries("class/powercap/" + zone);
        if (std::find(files.begin(), files.end(), "energy_uj") != files.end()) {
            return "no counter in " + zones + " can be read (a line above says why)";
        }
    }
    return zones + " has no counters" + remedy;
}

}  // namespace

LinuxSource::LinuxSource(const Options& options) : mReadClock(options.readClock) {
    const auto sysfs = std::make_shared<const Sysfs>(options.root, options.warn);

    const RailOptions railOptions{options.hasBoot.value_or(sysfs->isKernels()), options.readClock};
    addHwmonRails(sysfs, railOptions, &mRails);
    addPowercapRails(sysfs, railOptions, &mRails);

    mEntities.push_back(makeSystemEntity(sysfs, options.readClock));
    addIdleCpus(sysfs, &mEntities);
    addSuspendingDevices(sysfs, &mEntities);

    std::vector<Rail> rails = makeRails(&mRails);
    mLists = nameLists(std::move(rails), makeEntities(mEntities), true);
    const std::string refused = describeRefused(
        *sysfs, "class/",
        sysfs->isKernels() ? "let powerstatsd read them: join the group powerstats, and add "
                             "--bus=system; or run as root"
                           : "grant read access");
    if (mRails.empty()) {
        mRailsFailure = {Failure::Kind::kNotMeasured,
                         refused.empty() ? whyNoRails(*sysfs) : refused};
    } else if (!refused.empty() && options.warn) {
        options.warn("energy left out: " + refused);
    }
    const std::string others = describeRefused(*sysfs, "", "run as root, or grant read access");
    if (refused.empty() && !others.empty() && options.warn) options.warn(others);
    startSampling();
}

void LinuxSource::startSampling() {
    std::vector<std::shared_ptr<EnergyCounter>> counters;
    milliseconds interval = milliseconds::max();
    for (const RailSource& rail : mRails) {
        const auto ofRail = rail.counter->samplingInterval();
        if (!ofRail) continue;
        counters.push_back(rail.counter);
        interval = std::min(interval, *ofRail);
    }
    if (counters.empty()) return;
    mSampler = std::make_unique<PeriodicThread>("counter-sampler", interval, [counters] {
        for (const auto& counter : counters) counter->read();
    });
}

Reading LinuxSource::read(const Positions& rails, const Positions& entities) {
    Reading reading;
    reading.lists = mLists;
    reading.railsFailure = mRailsFailure;
    reading.rails.resize(mRails.size());
    forPositions(rails, mRails.size(),
                 [&](size_t i) { reading.rails[i] = mRails[i].counter->read(); });
    reading.entities.resize(mEntities.size());
    forPositions(entities, mEntities.size(),
                 [&](size_t i) { reading.entities[i] = readEntity(&mEntities[i]); });
    const nanoseconds running = mReadClock(CLOCK_MONOTONIC);
    reading.time = mReadClock(CLOCK_BOOTTIME);
    reading.suspended = reading.time - running;
    return reading;
}

/// std::nullopt when none of its states can be read.
std::optional<Residencies> LinuxSource::readEntity(EntitySource* entity) {
    Residencies residencies;
    bool isReadable = false;
    // Locked while reading, so that no older value replaces a newer one.
    std::lock_guard<std::mutex> lock(mMutex);
    for (StateSource& state : entity->states) {
        if (const auto residency = state.read()) {
            state.latest = *residency;
            isReadable = true;
        }
        residencies.states.push_back(state.latest);
    }
    if (!isReadable) return std::nullopt;
    residencies.time = mReadClock(CLOCK_BOOTTIME);
    return residencies;
}

}  // namespace powerstats
