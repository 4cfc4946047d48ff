// SPDX-License-Identifier: Apache-2.0

#include "hal/LinuxCounters.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <tuple>
#include <utility>

#include "hal/NamesAndIds.h"

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
    choices.reserve(sources->size());
    for (const RailSource& source : *sources) choices.push_back(source.names);
    std::vector<std::string> names = distinctNames(choices);

    PathIds ids(0, kRailIdBits);
    std::vector<Rail> rails;
    for (size_t i = 0; i < names.size(); ++i) {
        const RailSource& source = (*sources)[i];
        rails.push_back({ids.add(source.identity), std::move(names[i]), source.subsystem});
    }
    return rails;
}

std::vector<Entity> makeEntities(const std::vector<EntitySource>& sources) {
    std::vector<Entity> entities;
    for (const EntitySource& source : sources) {
        entities.push_back({source.id, source.name, source.type, {}});
        for (const StateSource& state : source.states) {
            entities.back().states.push_back({state.id, state.name});
        }
    }
    return entities;
}

template <typename Thing>
void append(std::vector<Thing>* list, std::vector<Thing> more) {
    std::move(more.begin(), more.end(), std::back_inserter(*list));
}

}  // namespace

LinuxCounters::LinuxCounters(const Options& options) {
    const auto sysfs = std::make_shared<const Sysfs>(options.root, options.warn);

    const RailOptions railOptions{options.hasBoot.value_or(sysfs->isKernels()), options.readClock};
    mRailSources = findHwmonRails(sysfs, railOptions);
    append(&mRailSources, findPowercapRails(sysfs, railOptions));

    mEntitySources.push_back(makeSystemEntity(sysfs, options.readClock));
    append(&mEntitySources, findIdleCpus(sysfs));
    append(&mEntitySources, findSuspendingDevices(sysfs));

    setLists(makeRails(&mRailSources), makeEntities(mEntitySources));
    for (size_t i = 0; i < mEntitySources.size(); ++i) {
        mLatest.emplace_back(mEntitySources[i].states.size());
        readEntity(i);
    }
    startSampling();
}

void LinuxCounters::startSampling() {
    std::vector<std::shared_ptr<EnergyCounter>> counters;
    milliseconds interval = milliseconds::max();
    for (const RailSource& rail : mRailSources) {
        if (!rail.samplingInterval) continue;
        counters.push_back(rail.counter);
        interval = std::min(interval, *rail.samplingInterval);
    }
    if (counters.empty()) return;
    mSampler = std::make_unique<PeriodicThread>("counter-sampler", interval, [counters] {
        for (const auto& counter : counters) counter->read();
    });
}

std::vector<RailEnergy> LinuxCounters::readRailsAt(const std::vector<size_t>& indices) const {
    std::vector<RailEnergy> records;
    for (const size_t index : indices) {
        if (const auto reading = mRailSources[index].counter->read()) {
            records.push_back({rails()[index].id, *reading});
        }
    }
    return records;
}

std::vector<EntityResidency> LinuxCounters::readEntitiesAt(
    const std::vector<size_t>& indices) const {
    std::vector<EntityResidency> records;
    for (const size_t index : indices) {
        if (auto record = readEntity(index)) records.push_back(std::move(*record));
    }
    return records;
}

/// std::nullopt when none of its states can be read.
std::optional<EntityResidency> LinuxCounters::readEntity(size_t index) const {
    const EntitySource& entity = mEntitySources[index];
    EntityResidency record{entity.id, {}};
    bool isReadable = false;
    // Locked while reading, so that no older value replaces a newer one.
    std::lock_guard<std::mutex> lock(mMutex);
    auto latest = mLatest[index].begin();
    for (const StateSource& state : entity.states) {
        if (const auto residency = state.read()) {
            *latest = *residency;
            isReadable = true;
        }
        record.states.push_back({state.id, *latest++});
    }
    if (!isReadable) return std::nullopt;
    return record;
}

}  // namespace powerstats
