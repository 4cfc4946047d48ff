// SPDX-License-Identifier: Apache-2.0

#include "tools/Snapshot.h"

#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "hal/CounterSources.h"
#include "tools/Service.h"

namespace powerstats {

namespace {

namespace stats_aidl = aidl::android::hardware::power::stats;
namespace stats_V1_0 = android::hardware::power::stats::V1_0;
using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr char kGone[] = "the service is gone";

/// Why a call of a service fails; the empty text when it succeeds.
std::string reasonOf(const ndk::ScopedAStatus& status) {
    if (status.isOk()) return "";
    if (status.getStatus() == android::DEAD_OBJECT) return kGone;
    if (status.getStatus() == android::PERMISSION_DENIED) return kRefusedByBus;
    return status.getDescription();
}

std::string reasonOf(const android::hardware::Return<void>& result, stats_V1_0::Status status) {
    if (!result.isOk()) {
        if (result.isDeadObject()) return kGone;
        const std::string text = result.description();
        return text.find("PERMISSION_DENIED") != std::string::npos ? kRefusedByBus : text;
    }
    if (status == stats_V1_0::Status::SUCCESS) return "";
    if (status == stats_V1_0::Status::NOT_SUPPORTED) return kNotSupported;
    return fmt::format("the service answered status {}", static_cast<int>(status));
}

/// Calls a HIDL method and copies its records.
/// @return why the call failed; empty when it succeeded.
template <typename Record, typename Method>
std::string fetch(const Method& method, std::vector<Record>* records) {
    stats_V1_0::Status status{};
    const android::hardware::Return<void> result =
        method([&](const android::hardware::hidl_vec<Record>& answer, stats_V1_0::Status answered) {
            records->assign(answer.begin(), answer.end());
            status = answered;
        });
    return reasonOf(result, status);
}

milliseconds readClock(clockid_t clock) {
    return duration_cast<milliseconds>(readKernelClock(clock));
}

/// Copies what an answer says of things that are known by their ids.
/// @return whether all of them are known.
template <typename Thing, typename Record, typename GetId, typename Copy>
bool join(std::vector<Thing>* things, const std::vector<Record>& records, const GetId& idOf,
          const Copy& copy) {
    std::unordered_map<int64_t, Thing*> byId;
    bool allKnown = true;
    for (size_t i = 0; i < records.size(); ++i) {
        const Record& record = records[i];
        // Nearly always the answer has the order of the names.
        if (byId.empty() && i < things->size() && (*things)[i].id == idOf(record)) {
            copy(record, &(*things)[i]);
            continue;
        }
        if (byId.empty()) {
            for (Thing& thing : *things) byId.emplace(thing.id, &thing);
        }
        const auto found = byId.find(idOf(record));
        if (found == byId.end()) {
            allKnown = false;
        } else {
            copy(record, found->second);
        }
    }
    return allKnown;
}

}  // namespace

const char* SnapshotReader::interfaceName() const {
    return mAidl != nullptr ? "AIDL" : mHidl != nullptr ? "HIDL" : "";
}

void SnapshotReader::connect() {
    if (mAidl != nullptr || mHidl != nullptr) return;
    mRails.reset();
    mEntities.reset();
    if ((mAidl = findAidl()) == nullptr) mHidl = findHidl();
}

std::string SnapshotReader::readRailNames() {
    std::vector<Snapshot::Rail> rails;
    std::string error;
    if (mAidl != nullptr) {
        std::vector<stats_aidl::Channel> channels;
        error = reasonOf(mAidl->getEnergyMeterInfo(&channels));
        for (const auto& channel : channels) {
            rails.push_back({channel.id, channel.name, channel.subsystem, std::nullopt});
        }
    } else {
        std::vector<stats_V1_0::RailInfo> infos;
        error = fetch([&](const auto& note) { return mHidl->getRailInfo(note); }, &infos);
        for (const auto& info : infos) {
            rails.push_back({info.index, info.railName, info.subsysName, std::nullopt});
        }
    }
    if (error.empty()) mRails = std::move(rails);
    return error;
}

std::string SnapshotReader::readEntityNames() {
    std::vector<Snapshot::Entity> entities;
    std::string error;
    if (mAidl != nullptr) {
        std::vector<stats_aidl::PowerEntity> infos;
        error = reasonOf(mAidl->getPowerEntityInfo(&infos));
        for (const auto& info : infos) {
            entities.push_back({info.id, info.name, {}});
            for (const auto& state : info.states) {
                entities.back().states.push_back({state.id, state.name, std::nullopt});
            }
        }
    } else {
        std::vector<stats_V1_0::PowerEntityInfo> infos;
        std::vector<stats_V1_0::PowerEntityStateSpace> spaces;
        error = fetch([&](const auto& note) { return mHidl->getPowerEntityInfo(note); }, &infos);
        for (const auto& info : infos) {
            entities.push_back({info.powerEntityId, info.powerEntityName, {}});
        }
        if (error.empty() && !infos.empty()) {
            error =
                fetch([&](const auto& note) { return mHidl->getPowerEntityStateInfo({}, note); },
                      &spaces);
        }
        join(
            &entities, spaces, [](const auto& space) { return space.powerEntityId; },
            [](const auto& space, Snapshot::Entity* entity) {
                for (const auto& state : space.states) {
                    entity->states.push_back(
                        {state.powerEntityStateId, state.powerEntityStateName, std::nullopt});
                }
            });
    }
    if (error.empty()) mEntities = std::move(entities);
    return error;
}

bool SnapshotReader::readRails(Snapshot* snapshot) {
    snapshot->rails.clear();
    if (!mRails) snapshot->railsError = readRailNames();
    if (!mRails || mRails->empty()) return true;
    snapshot->rails = *mRails;
    if (mAidl != nullptr) {
        std::vector<stats_aidl::EnergyMeasurement> records;
        snapshot->railsError = reasonOf(mAidl->readEnergyMeter({}, &records));
        return join(
            &snapshot->rails, records, [](const auto& record) { return record.id; },
            [](const auto& record, Snapshot::Rail* rail) {
                rail->energy = {record.timestampMs, record.durationMs, record.energyUWs};
            });
    }
    std::vector<stats_V1_0::EnergyData> records;
    snapshot->railsError =
        fetch([&](const auto& note) { return mHidl->getEnergyData({}, note); }, &records);
    return join(
        &snapshot->rails, records, [](const auto& record) { return record.index; },
        [](const auto& record, Snapshot::Rail* rail) {
            const auto timestampMs = static_cast<int64_t>(record.timestamp);
            rail->energy = {timestampMs, timestampMs, static_cast<int64_t>(record.energy)};
        });
}

bool SnapshotReader::readEntities(Snapshot* snapshot) {
    snapshot->entities.clear();
    if (!mEntities) snapshot->entitiesError = readEntityNames();
    if (!mEntities || mEntities->empty()) return true;
    snapshot->entities = *mEntities;
    bool allKnown = true;
    if (mAidl != nullptr) {
        std::vector<stats_aidl::StateResidencyResult> records;
        snapshot->entitiesError = reasonOf(mAidl->getStateResidency({}, &records));
        const bool entitiesKnown = join(
            &snapshot->entities, records, [](const auto& record) { return record.id; },
            [&](const auto& record, Snapshot::Entity* entity) {
                allKnown &= join(
                    &entity->states, record.stateResidencyData,
                    [](const auto& state) { return state.id; },
                    [](const auto& state, Snapshot::State* known) {
                        known->residency = {state.totalTimeInStateMs, state.totalStateEntryCount,
                                            state.lastEntryTimestampMs};
                    });
            });
        return entitiesKnown && allKnown;
    }
    std::vector<stats_V1_0::PowerEntityStateResidencyResult> records;
    snapshot->entitiesError =
        fetch([&](const auto& note) { return mHidl->getPowerEntityStateResidencyData({}, note); },
              &records);
    const bool entitiesKnown = join(
        &snapshot->entities, records, [](const auto& record) { return record.powerEntityId; },
        [&](const auto& record, Snapshot::Entity* entity) {
            const std::vector<stats_V1_0::PowerEntityStateResidencyData> states(
                record.stateResidencyData.begin(), record.stateResidencyData.end());
            allKnown &= join(
                &entity->states, states, [](const auto& state) { return state.powerEntityStateId; },
                [](const auto& state, Snapshot::State* known) {
                    known->residency = {static_cast<int64_t>(state.totalTimeInStateMs),
                                        static_cast<int64_t>(state.totalStateEntryCount),
                                        static_cast<int64_t>(state.lastEntryTimestampMs)};
                });
        });
    return entitiesKnown && allKnown;
}

Snapshot SnapshotReader::read() {
    Snapshot snapshot;
    connect();
    const bool isServed = mAidl != nullptr || mHidl != nullptr;
    if (!isServed) snapshot.railsError = snapshot.entitiesError = kNoService;
    // An unknown id may be new, so the names are read again, once.
    for (int i = 0; isServed && i < 2 && !readRails(&snapshot); ++i) mRails.reset();
    const milliseconds before = readClock(CLOCK_BOOTTIME);
    for (int i = 0; isServed && i < 2 && !readEntities(&snapshot); ++i) mEntities.reset();
    const milliseconds monotonic = readClock(CLOCK_MONOTONIC);
    const milliseconds after = readClock(CLOCK_BOOTTIME);
    snapshot.timestampMs = ((before + after) / 2).count();
    snapshot.suspendedMs = (after - monotonic).count();
    if (const Replay* const replay = ownReplay()) {
        snapshot.timestampMs = replay->counters->timestampMs();
        snapshot.suspendedMs = 0;  // not recorded
    }
    if (snapshot.railsError == kGone || snapshot.entitiesError == kGone) {
        mAidl = nullptr;
        mHidl = nullptr;
    }
    return snapshot;
}

}  // namespace powerstats
