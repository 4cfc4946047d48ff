// SPDX-License-Identifier: Apache-2.0

#include "power/service/ServiceSource.h"

#include <time.h>

#include <unordered_map>
#include <utility>

#include "power/linux/Counters.h"
#include "power/text/Names.h"

namespace powerstats {

namespace {

/// The ids at some positions of a list; none for the whole list.
template <typename Thing>
std::vector<int32_t> idsAt(const Positions& positions, const std::vector<Thing>& things) {
    std::vector<int32_t> ids;
    if (!positions) return ids;
    for (const size_t i : *positions) ids.push_back(static_cast<int32_t>(things[i].id));
    return ids;
}

/// Calls a function with each record and its thing's position.
/// @return whether all ids are known.
template <typename Thing, typename Record, typename Function>
bool join(const std::vector<Thing>& things, const std::vector<Record>& records,
          const Function& function) {
    std::unordered_map<int64_t, size_t> byId;
    bool allKnown = true;
    size_t next = 0;
    for (const Record& record : records) {
        size_t i = next++;
        // Nearly always the answer has the order of the list.
        if (i >= things.size() || things[i].id != record.id) {
            if (byId.empty()) {
                for (size_t j = 0; j < things.size(); ++j) byId.emplace(things[j].id, j);
            }
            const auto found = byId.find(record.id);
            allKnown = allKnown && found != byId.end();
            if (found == byId.end()) continue;
            i = found->second;
        }
        function(i, record);
    }
    return allKnown;
}

/// Whether a counter can have both.
bool isPossible(nanoseconds time, int64_t count) {
    return time >= nanoseconds::zero() && time != nanoseconds::max() && count >= 0;
}

}  // namespace

Failure ServiceSource::connect() {
    if (mService != nullptr) return {};
    mHasRails = mHasEntities = false;
    if ((mService = findAidl()) != nullptr) {
        ++mRestarts;
        return {};
    }
    if (findHidl() != nullptr) {
        return {Failure::Kind::kHidlOnly,
                "the service is on the bus over HIDL only (powerstats dump --bus shows it)"};
    }
    return {Failure::Kind::kNoService, "no power stats service"};
}

/// Reads one list, and makes the lists of the reading that is being taken, unless they are those of
/// the one before.
template <typename Record, typename Thing>
Failure ServiceSource::readList(AskForList<Record> ask, std::vector<Thing>* things, bool* has) {
    std::vector<Record> records;
    if (Failure failure = failureOf((*mService.*ask)(&records))) return failure;
    *has = true;
    things->clear();
    for (const Record& record : records) things->push_back(fromHal(record));
    auto lists = nameLists(mRails, mEntities, false);
    if (lists->rails != mLists->rails || lists->entities != mLists->entities) {
        mLists = std::move(lists);
    }
    return {};
}

/// @return whether all ids of the answer are known.
bool ServiceSource::readRails(const Positions& positions, Reading* reading) {
    if (!mHasRails && (reading->railsFailure = readList(
                           &stats_aidl::IPowerStats::getEnergyMeterInfo, &mRails, &mHasRails))) {
        return true;
    }
    reading->rails.assign(mLists->rails.size(), std::nullopt);
    if (mLists->rails.empty()) {
        reading->railsFailure = {Failure::Kind::kNotMeasured, "the service has no rails"};
    }
    if (positions ? positions->empty() : mLists->rails.empty()) return true;
    std::vector<stats_aidl::EnergyMeasurement> records;
    reading->railsFailure =
        failureOf(mService->readEnergyMeter(idsAt(positions, mLists->rails), &records));
    return join(mLists->rails, records, [&](size_t i, const auto& record) {
        Energy energy = fromHal(record);
        energy.resets = mRestarts;
        if (isPossible(energy.time, 0) && isPossible(energy.duration, energy.energyUWs)) {
            reading->rails[i] = energy;
        }
    });
}

/// @return whether all ids of the answer are known.
bool ServiceSource::readEntities(const Positions& positions, Reading* reading) {
    if (!mHasEntities &&
        (reading->entitiesFailure =
             readList(&stats_aidl::IPowerStats::getPowerEntityInfo, &mEntities, &mHasEntities))) {
        return true;
    }
    reading->entities.assign(mLists->entities.size(), std::nullopt);
    if (positions ? positions->empty() : mLists->entities.empty()) return true;
    std::vector<stats_aidl::StateResidencyResult> records;
    const nanoseconds before = readKernelClock(CLOCK_BOOTTIME);
    reading->entitiesFailure =
        failureOf(mService->getStateResidency(idsAt(positions, mLists->entities), &records));
    const nanoseconds time = before + (readKernelClock(CLOCK_BOOTTIME) - before) / 2;
    bool statesKnown = true;
    const bool allKnown = join(mLists->entities, records, [&](size_t i, const auto& record) {
        const std::vector<State>& states = mLists->entities[i].states;
        const Residency notRead{{}, -1, {}};
        Residencies read{time, mRestarts, std::vector<Residency>(states.size(), notRead)};
        statesKnown &= join(states, record.stateResidencyData,
                            [&](size_t j, const auto& state) { read.states[j] = fromHal(state); });
        for (const Residency& state : read.states) {
            if (!isPossible(state.totalTime, state.entryCount)) return;
        }
        reading->entities[i] = std::move(read);
    });
    return allKnown && statesKnown;
}

Reading ServiceSource::read(const Positions& rails, const Positions& entities) {
    Reading reading;
    if (const Failure failure = connect()) {
        reading.railsFailure = reading.entitiesFailure = failure;
    } else {
        // An unknown id may be new, so the lists are read again, once.
        for (int i = 0; i < 2 && !readRails(rails, &reading); ++i) mHasRails = false;
        for (int i = 0; i < 2 && !readEntities(entities, &reading); ++i) mHasEntities = false;
    }
    reading.lists = mLists;
    reading.rails.resize(mLists->rails.size());
    reading.entities.resize(mLists->entities.size());
    const nanoseconds running = readKernelClock(CLOCK_MONOTONIC);
    reading.stampUnit = std::chrono::milliseconds(1);
    reading.time = readKernelClock(CLOCK_BOOTTIME);
    reading.suspended = reading.time - running;
    const auto isGone = [](const Failure& failure) { return failure.kind == Failure::Kind::kGone; };
    if (isGone(reading.railsFailure) || isGone(reading.entitiesFailure)) mService = nullptr;
    return reading;
}

}  // namespace powerstats
