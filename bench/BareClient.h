// SPDX-License-Identifier: Apache-2.0
//
// The client that the library is measured against. It does only the work that no client can leave
// out: it asks the same questions through the same proxies, builds the same messages from names
// that it has at hand in the order of the answers, serializes them and hands them to Java. It
// neither looks a name up nor checks anything.

#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <android/binder_manager.h>
#include <host/JavaRuntime.h>
#include <host/ServiceControl.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bench/Workload.h"
#include "proto/power_data_result.pb.h"

namespace bench {

namespace proto = ::com::tavrel::android::ferrolith::poweranomalyservice::proto;
namespace stats = support::stats;
namespace stats_V1_0 = support::stats_V1_0;

class BareClient {
  public:
    explicit BareClient(const Workload& workload)
        : mWorkload(workload), mMachine(workload.machine()) {}

    /// One collection. The first one connects.
    host::JavaBytes collect(int64_t timestampMs, host::HostJniEnv* env) {
        if (!mAidl && mHidl == nullptr) connect();
        // The records, and the message, exist until the bytes are handed over, as in the library.
        // An allocator's cost depends on that order.
        std::vector<stats::EnergyMeasurement> measurements;
        std::vector<stats::StateResidencyResult> residencies;
        std::unordered_map<uint32_t, std::pair<std::string, std::string>> names;
        ::android::hardware::hidl_vec<stats_V1_0::EnergyData> energies;
        proto::PowerDataResult result;
        std::string bytes;
        const auto addElement = [&](const std::string& name, proto::IdKind kind) {
            proto::KeyedPowerData* element = result.add_keyed_power_data();
            proto::Id* id = element->mutable_id();
            id->mutable_name()->assign(name);
            id->set_timestamp_ms(timestampMs);
            id->set_kind(kind);
            return element->mutable_data();
        };
        const auto addRails = [&](const auto& records, auto energy) {
            for (size_t i = 0; i < records.size(); ++i) {
                const auto microwattSeconds = static_cast<float>(records[i].*energy);
                addElement(mMachine.rails[i].name, proto::KIND_RAIL)
                    ->mutable_scalar()
                    ->set_value(static_cast<int32_t>(microwattSeconds / 1000.0f));
            }
            result.SerializeToString(&bytes);
        };
        const auto addEntities = [&](const auto& records) {
            for (size_t i = 0; i < records.size(); ++i) {
                const stats::PowerEntity& entity = mMachine.entities[i];
                proto::PowerData* data = addElement(entity.name, proto::KIND_POWER_ENTITY);
                const auto& states = records[i].stateResidencyData;
                for (size_t j = 0; j < states.size(); ++j) {
                    proto::Residency* residency = data->add_residency();
                    residency->mutable_name()->assign(entity.states[j].name);
                    residency->set_total_time_in_state_ms(
                        static_cast<int64_t>(states[j].totalTimeInStateMs));
                    residency->set_total_state_entry_count(
                        static_cast<int64_t>(states[j].totalStateEntryCount));
                }
            }
            result.SerializeToString(&bytes);
        };
        const bool rails = mWorkload.call == Call::kRails;
        if (mAidl && rails) {
            mAidl->readEnergyMeter({}, &measurements);
            addRails(measurements, &stats::EnergyMeasurement::energyUWs);
        } else if (mAidl) {
            mAidl->getStateResidency({}, &residencies);
            addEntities(residencies);
        } else if (rails) {
            // The table is part of the service's protocol: rails are asked for in every call.
            (void)mHidl->getRailInfo([&](const auto& all, auto) {
                for (const auto& rail : all) {
                    names.emplace(rail.index, std::pair<std::string, std::string>(rail.subsysName,
                                                                                  rail.railName));
                }
            });
            (void)mHidl->getEnergyData({}, [&](const auto& all, auto) { energies = all; });
            addRails(energies, &stats_V1_0::EnergyData::energy);
        } else {
            (void)mHidl->getPowerEntityStateResidencyData({}, [&](const auto& all, auto) {
                addEntities(all);
                // This message ends with the service's callback.
                proto::PowerDataResult().Swap(&result);
            });
        }
        const auto length = static_cast<jsize>(bytes.size());
        jbyteArray array = env->get()->NewByteArray(length);
        env->get()->SetByteArrayRegion(array, 0, length,
                                       reinterpret_cast<const jbyte*>(bytes.data()));
        return env->take(array);
    }

  private:
    struct Recipient : public ::android::hardware::hidl_death_recipient {
        void serviceDied(uint64_t,
                         const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {}
    };

    /// Looks the service up as the library does in its first call, links to its death, asks for the
    /// names that the library would ask for, and fills caches like the library's.
    void connect() {
        // By this look-up the library chooses its backend.
        const ::ndk::SpAIBinder chosen(AServiceManager_getService(host::kAidlPowerStats));
        if (mWorkload.backend == Backend::kHidl) {
            mHidl = stats_V1_0::IPowerStats::getService("default", false);
            mHidl->linkToDeath(mHidlRecipient, 0).isOk();
            (void)mHidl->getPowerEntityInfo([this](const auto& entities, auto) {
                for (const auto& entity : entities) {
                    mEntityNames.emplace(entity.powerEntityId, entity.powerEntityName);
                }
            });
            (void)mHidl->getPowerEntityStateInfo({}, [this](const auto& entities, auto) {
                for (const auto& entity : entities) {
                    auto& states = mStateNames[entity.powerEntityId];
                    for (const auto& state : entity.states) {
                        states.emplace(state.powerEntityStateId, state.powerEntityStateName);
                    }
                }
            });
            return;
        }
        mAidl = stats::IPowerStats::fromBinder(
            ::ndk::SpAIBinder(AServiceManager_getService(host::kAidlPowerStats)));
        AIBinder_linkToDeath(mAidl->asBinder().get(), mAidlRecipient.get(), nullptr);
        if (mWorkload.call == Call::kRails) {
            std::vector<stats::Channel> channels;
            mAidl->getEnergyMeterInfo(&channels);
            for (const auto& channel : channels) mChannels.emplace(channel.id, channel);
            return;
        }
        std::vector<stats::PowerEntity> entities;
        mAidl->getPowerEntityInfo(&entities);
        for (const auto& entity : entities) {
            mEntityNames.emplace(entity.id, entity.name);
            auto& states = mStateNames[entity.id];
            for (const auto& state : entity.states) states.emplace(state.id, state.name);
        }
    }

    const Workload mWorkload;
    const support::Machine mMachine;  ///< has the names that the service announces, by position

    std::shared_ptr<stats::IPowerStats> mAidl;
    ::android::sp<stats_V1_0::IPowerStats> mHidl;
    const ::ndk::ScopedAIBinder_DeathRecipient mAidlRecipient{
        AIBinder_DeathRecipient_new([](void*) {})};
    const ::android::sp<Recipient> mHidlRecipient = new Recipient;
    std::unordered_map<uint32_t, std::string> mEntityNames;
    std::unordered_map<uint32_t, std::unordered_map<uint32_t, std::string>> mStateNames;
    std::unordered_map<int, stats::Channel> mChannels;
};

}  // namespace bench
