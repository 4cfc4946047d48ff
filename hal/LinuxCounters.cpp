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

std::vector<Rail> nameRails(std::vector<RailSource> sources) {
    // Names tell rails apart that have one identity, such as those of two chips of one device.
    std::sort(sources.begin(), sources.end(), [](const RailSource& a, const RailSource& b) {
        return std::tie(a.identity, a.names) < std::tie(b.identity, b.names);
    });
    std::vector<std::vector<std::string>> choices;
    choices.reserve(sources.size());
    for (const RailSource& source : sources) choices.push_back(source.names);
    std::vector<std::string> names = distinctNames(choices);

    PathIds ids(0, kRailIdBits);
    std::vector<Rail> rails;
    for (size_t i = 0; i < sources.size(); ++i) {
        const int32_t id = ids.add(sources[i].identity);
        rails.push_back({id, std::move(names[i]), std::move(sources[i])});
    }
    return rails;
}

/// Makes the names of the things safe and distinct.
template <typename Thing>
void rename(std::vector<Thing>* things) {
    std::vector<std::vector<std::string>> choices;
    for (const Thing& thing : *things) choices.push_back({thing.name});
    std::vector<std::string> names = distinctNames(choices);
    for (size_t i = 0; i < names.size(); ++i) (*things)[i].name = std::move(names[i]);
}

template <typename Thing>
void append(std::vector<Thing>* list, std::vector<Thing> more) {
    std::move(more.begin(), more.end(), std::back_inserter(*list));
}

template <typename Thing>
std::unordered_map<int32_t, size_t> indicesById(const std::vector<Thing>& things) {
    std::unordered_map<int32_t, size_t> indices;
    for (const Thing& thing : things) indices.emplace(thing.id, indices.size());
    return indices;
}

/// @param kind [in] the word for a thing in a refusal.
template <typename Thing>
Answer<const Thing*> select(const std::vector<Thing>& things,
                            const std::unordered_map<int32_t, size_t>& indices,
                            const std::vector<int32_t>& ids, const std::string& kind) {
    Answer<const Thing*> selected;
    if (ids.empty()) {
        for (const Thing& thing : things) selected.records.push_back(&thing);
        return selected;
    }
    // The length first: a request of any size costs no more than the set.
    if (ids.size() > things.size()) {
        return {"the request has " + std::to_string(ids.size()) + " ids, for " +
                    std::to_string(things.size()) + " known (" + kind +
                    "); ask for each once, or for all by an empty list",
                {}};
    }
    std::vector<bool> chosen(things.size(), false);
    for (const int32_t id : ids) {
        const auto found = indices.find(id);
        if (found == indices.end()) return {"no " + kind + " has the id " + std::to_string(id), {}};
        if (chosen[found->second]) {
            return {"the request repeats the id " + std::to_string(id) + " (" + kind +
                        "); ask for each once",
                    {}};
        }
        chosen[found->second] = true;
        selected.records.push_back(&things[found->second]);
    }
    return selected;
}

}  // namespace

LinuxCounters::LinuxCounters(const Options& options) {
    const auto sysfs = std::make_shared<const Sysfs>(options.root, options.warn);

    const RailOptions railOptions{options.hasBoot.value_or(sysfs->isKernels()), options.readClock};
    std::vector<RailSource> sources = findHwmonRails(sysfs, railOptions);
    append(&sources, findPowercapRails(sysfs, railOptions));
    mRails = nameRails(std::move(sources));

    mEntities.push_back(makeSystemEntity(sysfs, options.readClock));
    append(&mEntities, findIdleCpus(sysfs));
    append(&mEntities, findSuspendingDevices(sysfs));

    rename(&mEntities);
    for (EntitySource& entity : mEntities) rename(&entity.states);

    mRailIndices = indicesById(mRails);
    mEntityIndices = indicesById(mEntities);
    for (const EntitySource& entity : mEntities) {
        mLatest.emplace_back(entity.states.size());
        readEntity(entity);
    }
    startSampling();
}

void LinuxCounters::startSampling() {
    std::vector<std::shared_ptr<EnergyCounter>> counters;
    milliseconds interval = milliseconds::max();
    for (const Rail& rail : mRails) {
        if (!rail.source.samplingInterval) continue;
        counters.push_back(rail.source.counter);
        interval = std::min(interval, *rail.source.samplingInterval);
    }
    if (counters.empty()) return;
    mSampler = std::make_unique<PeriodicThread>("counter-sampler", interval, [counters] {
        for (const auto& counter : counters) counter->read();
    });
}

Answer<const EntitySource*> LinuxCounters::selectEntities(const std::vector<int32_t>& ids) const {
    return select(mEntities, mEntityIndices, ids, "power entity");
}

Answer<RailEnergy> LinuxCounters::readRails(const std::vector<int32_t>& ids) const {
    const Answer<const Rail*> selected = select(mRails, mRailIndices, ids, "rail");
    Answer<RailEnergy> answer{selected.refusal, {}};
    for (const Rail* rail : selected.records) {
        if (const auto reading = rail->source.counter->read()) {
            answer.records.push_back({rail->id, *reading});
        }
    }
    return answer;
}

Answer<EntityResidency> LinuxCounters::readEntities(const std::vector<int32_t>& ids) const {
    const Answer<const EntitySource*> selected = selectEntities(ids);
    Answer<EntityResidency> answer{selected.refusal, {}};
    for (const EntitySource* entity : selected.records) {
        if (auto record = readEntity(*entity)) answer.records.push_back(std::move(*record));
    }
    return answer;
}

/// std::nullopt when none of its states can be read.
std::optional<EntityResidency> LinuxCounters::readEntity(const EntitySource& entity) const {
    EntityResidency record{entity.id, {}};
    bool isReadable = false;
    // Locked while reading, so that no older value replaces a newer one.
    std::lock_guard<std::mutex> lock(mMutex);
    auto latest = mLatest[static_cast<size_t>(&entity - mEntities.data())].begin();
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
