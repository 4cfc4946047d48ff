// SPDX-License-Identifier: Apache-2.0

#include "hal/Counters.h"

#include <numeric>
#include <utility>

#include "hal/NamesAndIds.h"

namespace powerstats {

namespace {

/// Makes the names of the things safe and distinct.
template <typename Thing>
void rename(std::vector<Thing>* things) {
    std::vector<std::vector<std::string>> choices;
    for (const Thing& thing : *things) choices.push_back({thing.name});
    std::vector<std::string> names = distinctNames(choices);
    for (size_t i = 0; i < names.size(); ++i) (*things)[i].name = std::move(names[i]);
}

template <typename Thing>
std::unordered_map<int32_t, size_t> indicesById(const std::vector<Thing>& things) {
    std::unordered_map<int32_t, size_t> indices;
    for (const Thing& thing : things) indices.emplace(thing.id, indices.size());
    return indices;
}

/// Finds the indices of the things of a request.
/// @param known [in] the indices of all things by their ids.
/// @param kind [in] the word for a thing in a refusal.
Answer<size_t> select(const std::unordered_map<int32_t, size_t>& known,
                      const std::vector<int32_t>& ids, const std::string& kind) {
    Answer<size_t> selected;
    if (ids.empty()) {
        selected.records.resize(known.size());
        std::iota(selected.records.begin(), selected.records.end(), 0);
        return selected;
    }
    // The length first: a request of any size costs no more than the set.
    if (ids.size() > known.size()) {
        return {"the request has " + std::to_string(ids.size()) + " ids, for " +
                    std::to_string(known.size()) + " known (" + kind +
                    "); ask for each once, or for all by an empty list",
                {}};
    }
    std::vector<bool> chosen(known.size(), false);
    for (const int32_t id : ids) {
        const auto found = known.find(id);
        if (found == known.end()) return {"no " + kind + " has the id " + std::to_string(id), {}};
        if (chosen[found->second]) {
            return {"the request repeats the id " + std::to_string(id) + " (" + kind +
                        "); ask for each once",
                    {}};
        }
        chosen[found->second] = true;
        selected.records.push_back(found->second);
    }
    return selected;
}

constexpr char kRail[] = "rail";
constexpr char kEntity[] = "power entity";

}  // namespace

void Counters::setLists(std::vector<Rail> rails, std::vector<Entity> entities) {
    mRails = std::move(rails);
    mEntities = std::move(entities);
    rename(&mRails);
    rename(&mEntities);
    for (Entity& entity : mEntities) rename(&entity.states);
    mRailIndices = indicesById(mRails);
    mEntityIndices = indicesById(mEntities);
}

Answer<const Entity*> Counters::selectEntities(const std::vector<int32_t>& ids) const {
    const Answer<size_t> selected = select(mEntityIndices, ids, kEntity);
    Answer<const Entity*> answer{selected.refusal, {}};
    for (const size_t index : selected.records) answer.records.push_back(&mEntities[index]);
    return answer;
}

Answer<RailEnergy> Counters::readRails(const std::vector<int32_t>& ids) const {
    const Answer<size_t> selected = select(mRailIndices, ids, kRail);
    return {selected.refusal, readRailsAt(selected.records)};
}

Answer<EntityResidency> Counters::readEntities(const std::vector<int32_t>& ids) const {
    const Answer<size_t> selected = select(mEntityIndices, ids, kEntity);
    return {selected.refusal, readEntitiesAt(selected.records)};
}

}  // namespace powerstats
