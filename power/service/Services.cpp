// SPDX-License-Identifier: Apache-2.0

#include "power/service/Services.h"

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace powerstats {

namespace {

using android::hardware::Return;
using android::hardware::Void;
using ndk::ScopedAStatus;
using stats_V1_0::PowerEntityType;
using stats_V1_0::Status;

/// A number in a record of either interface, which have different types for it.
struct Number {
    explicit Number(int64_t number) : value(number) {}
    explicit Number(nanoseconds time) : value(toMilliseconds(time)) {}

    template <typename Integer, typename = std::enable_if_t<std::is_integral_v<Integer>>>
    operator Integer() const {
        return static_cast<Integer>(value);
    }

    const int64_t value;
};

/// The ids of a list, for requests.
class ServedIds {
  public:
    /// @param served [in] those that a request may have.
    /// @param kind [in] the word for a thing in a refusal.
    template <typename Thing>
    ServedIds(const std::vector<Thing>& things, Positions served, const char* kind)
        : mServed(std::move(served)), mKind(kind) {
        forPositions(mServed, things.size(),
                     [&](size_t i) { mPositions.emplace(things[i].id, i); });
    }

    /// Finds the positions of a request; no ids stand for all. A refused request has none.
    /// @return why the request is refused, in words; empty when it is granted.
    template <typename Ids>
    std::string select(const Ids& ids, Positions* positions) const {
        std::vector<size_t> granted;
        std::unordered_set<int64_t> chosen;
        *positions = kNothing;
        // An id of HIDL above the greatest int32_t becomes negative, and no negative id is known.
        for (const auto wide : ids) {
            const auto id = static_cast<int32_t>(wide);
            const auto found = mPositions.find(id);
            if (found == mPositions.end()) return fmt::format("no {} has the id {}", mKind, id);
            if (!chosen.insert(id).second) {
                return fmt::format("the request repeats the id {} ({}); ask for each once", id,
                                   mKind);
            }
            granted.push_back(found->second);
        }
        *positions = granted.empty() ? mServed : std::move(granted);
        return "";
    }

  private:
    const Positions mServed;
    const char* const mKind;
    std::unordered_map<int64_t, size_t> mPositions;
};

/// The part of a service that both interfaces have, with records of the same fields.
class Served {
  public:
    explicit Served(std::shared_ptr<Source> its) : source(std::move(its)) {}

    template <typename Record>
    std::vector<Record> rails(const Positions& positions) const {
        std::vector<Record> records;
        forPositions(positions, lists->rails.size(), [&](size_t i) {
            const Rail& rail = lists->rails[i];
            records.push_back({Number(rail.id), rail.name, rail.subsystem});
        });
        return records;
    }

    template <typename Record>
    static std::vector<Record> states(const Entity& entity) {
        std::vector<Record> records;
        for (const State& state : entity.states) records.push_back({Number(state.id), state.name});
        return records;
    }

    /// Reads the entities at these positions.
    template <typename Record, typename StateRecord>
    std::vector<Record> residencies(const Positions& positions) const {
        std::vector<Record> records;
        const Reading reading = source->read(kNothing, positions);
        forPositions(positions, lists->entities.size(), [&](size_t i) {
            if (!reading.entities[i]) return;
            const Entity& entity = lists->entities[i];
            std::vector<StateRecord> states;
            for (size_t j = 0; j < entity.states.size(); ++j) {
                const Residency& from = reading.entities[i]->states[j];
                states.push_back({Number(entity.states[j].id), Number(from.totalTime),
                                  Number(from.entryCount), Number(from.lastEntry)});
            }
            records.push_back({Number(entity.id), states});
        });
        return records;
    }

    const std::shared_ptr<Source> source;
    const std::shared_ptr<const Lists> lists = source->read(kNothing, kNothing).lists;
    const ServedIds entityIds{lists->entities, std::nullopt, "power entity"};
};

class AidlService : public stats_aidl::BnPowerStats {
  public:
    explicit AidlService(std::shared_ptr<Source> source) : mServed(std::move(source)) {}

    ScopedAStatus getPowerEntityInfo(std::vector<stats_aidl::PowerEntity>* entities) override {
        entities->clear();
        for (const Entity& entity : mServed.lists->entities) {
            entities->push_back(
                {Number(entity.id), entity.name, Served::states<stats_aidl::State>(entity)});
        }
        return ScopedAStatus::ok();
    }

    ScopedAStatus getStateResidency(
        const std::vector<int32_t>& entityIds,
        std::vector<stats_aidl::StateResidencyResult>* residencies) override {
        Positions positions;
        const std::string refusal = mServed.entityIds.select(entityIds, &positions);
        *residencies =
            mServed.residencies<stats_aidl::StateResidencyResult, stats_aidl::StateResidency>(
                positions);
        return statusOf(refusal);
    }

    ScopedAStatus getEnergyConsumerInfo(
        std::vector<stats_aidl::EnergyConsumer>* consumers) override {
        consumers->clear();
        return ScopedAStatus::ok();
    }

    ScopedAStatus getEnergyConsumed(
        const std::vector<int32_t>& consumerIds,
        std::vector<stats_aidl::EnergyConsumerResult>* energies) override {
        energies->clear();
        return statusOf(consumerIds.empty() ? "" : "there are no energy consumers");
    }

    ScopedAStatus getEnergyMeterInfo(std::vector<stats_aidl::Channel>* channels) override {
        *channels = mServed.rails<stats_aidl::Channel>(std::nullopt);
        return ScopedAStatus::ok();
    }

    ScopedAStatus readEnergyMeter(
        const std::vector<int32_t>& channelIds,
        std::vector<stats_aidl::EnergyMeasurement>* measurements) override {
        measurements->clear();
        Positions positions;
        const std::string refusal = mRailIds.select(channelIds, &positions);
        const Reading reading = mServed.source->read(positions, kNothing);
        forPositions(positions, reading.rails.size(), [&](size_t i) {
            const std::optional<Energy>& energy = reading.rails[i];
            if (!energy) return;
            measurements->push_back({Number(mServed.lists->rails[i].id), Number(energy->time),
                                     Number(energy->duration), energy->energyUWs});
        });
        return statusOf(refusal);
    }

  private:
    static ScopedAStatus statusOf(const std::string& refusal) {
        if (refusal.empty()) return ScopedAStatus::ok();
        return ScopedAStatus::fromExceptionCodeWithMessage(EX_ILLEGAL_ARGUMENT, refusal.c_str());
    }

    const Served mServed;
    const ServedIds mRailIds{mServed.lists->rails, std::nullopt, "rail"};
};

class HidlService : public stats_V1_0::IPowerStats {
  public:
    using Ids = android::hardware::hidl_vec<uint32_t>;

    HidlService(std::shared_ptr<Source> source, HidlRails rails)
        : mServed(std::move(source)), mAnnounced(announce(rails)) {}

    Return<void> getRailInfo(getRailInfo_cb callback) override {
        const Reading reading = mServed.source->read(mAnnounced, kNothing);
        if (isNoneSinceBoot(mAnnounced, reading)) {
            callback({}, Status::NOT_SUPPORTED);
        } else {
            callback(mServed.rails<stats_V1_0::RailInfo>(mAnnounced), Status::SUCCESS);
        }
        return Void();
    }

    Return<void> getEnergyData(const Ids& railIndices, getEnergyData_cb callback) override {
        Positions asked;
        const bool isGranted = mRailIds.select(railIndices, &asked).empty();
        const Reading reading = mServed.source->read(mAnnounced, kNothing);
        if (isNoneSinceBoot(isGranted ? *asked : mAnnounced, reading)) {
            callback({}, Status::NOT_SUPPORTED);
            return Void();
        }
        std::vector<stats_V1_0::EnergyData> energies;
        for (const size_t i : *asked) {
            const std::optional<Energy>& energy = reading.rails[i];
            if (!energy || !energy->isSinceBoot()) continue;
            energies.push_back({Number(mServed.lists->rails[i].id), Number(energy->time),
                                Number(energy->energyUWs)});
        }
        return answer(isGranted, energies, callback);
    }

    Return<void> streamEnergyData(uint32_t /*timeMs*/, uint32_t /*samplingRate*/,
                                  streamEnergyData_cb callback) override {
        callback({}, 0, 0, Status::NOT_SUPPORTED);
        return Void();
    }

    Return<void> getPowerEntityInfo(getPowerEntityInfo_cb callback) override {
        // In the order of EntityType.
        constexpr PowerEntityType kTypes[] = {
            PowerEntityType::SUBSYSTEM, PowerEntityType::POWER_DOMAIN, PowerEntityType::PERIPHERAL};
        std::vector<stats_V1_0::PowerEntityInfo> entities;
        for (const Entity& entity : mServed.lists->entities) {
            entities.push_back(
                {Number(entity.id), entity.name, kTypes[static_cast<size_t>(entity.type)]});
        }
        callback(entities, Status::SUCCESS);
        return Void();
    }

    Return<void> getPowerEntityStateInfo(const Ids& entityIds,
                                         getPowerEntityStateInfo_cb callback) override {
        Positions positions;
        const bool isGranted = mServed.entityIds.select(entityIds, &positions).empty();
        std::vector<stats_V1_0::PowerEntityStateSpace> spaces;
        forPositions(positions, mServed.lists->entities.size(), [&](size_t i) {
            const Entity& entity = mServed.lists->entities[i];
            spaces.push_back(
                {Number(entity.id), Served::states<stats_V1_0::PowerEntityStateInfo>(entity)});
        });
        return answer(isGranted, spaces, callback);
    }

    Return<void> getPowerEntityStateResidencyData(
        const Ids& entityIds, getPowerEntityStateResidencyData_cb callback) override {
        Positions positions;
        const bool isGranted = mServed.entityIds.select(entityIds, &positions).empty();
        return answer(isGranted,
                      mServed.residencies<stats_V1_0::PowerEntityStateResidencyResult,
                                          stats_V1_0::PowerEntityStateResidencyData>(positions),
                      callback);
    }

  private:
    /// Finds the rails that are since boot.
    std::vector<size_t> announce(HidlRails rails) const {
        std::vector<size_t> announced;
        const Reading reading = mServed.source->read(std::nullopt, kNothing);
        for (size_t i = 0; i < reading.rails.size() && rails == HidlRails::kServed; ++i) {
            if (reading.rails[i] && reading.rails[i]->isSinceBoot()) announced.push_back(i);
        }
        return announced;
    }

    /// Whether no announced rail may still be since boot: one that cannot be read now may.
    static bool isNoneSinceBoot(const std::vector<size_t>& positions, const Reading& reading) {
        return std::none_of(positions.begin(), positions.end(), [&](size_t i) {
            return !reading.rails[i] || reading.rails[i]->isSinceBoot();
        });
    }

    /// There are records with SUCCESS, and none with another status.
    template <typename Records, typename Callback>
    static Return<void> answer(bool isGranted, const Records& records, const Callback& callback) {
        callback(records, !isGranted        ? Status::INVALID_INPUT
                          : records.empty() ? Status::FILESYSTEM_ERROR
                                            : Status::SUCCESS);
        return Void();
    }

    const Served mServed;
    const std::vector<size_t> mAnnounced;
    const ServedIds mRailIds{mServed.lists->rails, mAnnounced, "rail"};
};

}  // namespace

std::shared_ptr<stats_aidl::IPowerStats> serveAidl(std::shared_ptr<Source> source) {
    return ndk::SharedRefBase::make<AidlService>(std::move(source));
}

android::sp<stats_V1_0::IPowerStats> serveHidl(std::shared_ptr<Source> source, HidlRails rails) {
    return new HidlService(std::move(source), rails);
}

}  // namespace powerstats
