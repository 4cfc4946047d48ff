// SPDX-License-Identifier: Apache-2.0

#include "bench/BareClient.h"

#include <android/binder_ibinder.h>
#include <android/binder_manager.h>
#include <host/ServiceControl.h>

#include <utility>

#include "proto/power_data_result.pb.h"

namespace bench {
namespace {

namespace proto = ::com::tavrel::android::ferrolith::poweranomalyservice::proto;

float energyUws(const stats::EnergyMeasurement& measurement) {
    return static_cast<float>(measurement.energyUWs);
}
float energyUws(const stats_V1_0::EnergyData& record) {
    return static_cast<float>(record.energy);
}

proto::PowerData* addElement(const std::string& name, proto::IdKind kind, int64_t timestampMs,
                             proto::PowerDataResult* result) {
    proto::KeyedPowerData* element = result->add_keyed_power_data();
    proto::Id* id = element->mutable_id();
    id->mutable_name()->assign(name);
    id->set_timestamp_ms(timestampMs);
    id->set_kind(kind);
    return element->mutable_data();
}

}  // namespace

struct BareClient::Recipient : public ::android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {}
};

BareClient::BareClient(const Workload& workload)
    : mWorkload(workload),
      mAidlRecipient(AIBinder_DeathRecipient_new([](void*) {})),
      mHidlRecipient(new Recipient) {
    const support::Machine machine = workload.machine();
    for (const auto& rail : machine.rails) mElements.push_back(rail.name);
    if (workload.call == Call::kRails) return;
    for (const auto& entity : machine.entities) {
        mElements.push_back(entity.name);
        auto& names = mStates.emplace_back();
        for (const auto& state : entity.states) names.push_back(state.name);
    }
}

BareClient::~BareClient() = default;

void BareClient::connect() {
    mChosen.set(AServiceManager_getService(host::kAidlPowerStats));
    if (mWorkload.backend == Backend::kAidl) {
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
        return;
    }
    mHidl = stats_V1_0::IPowerStats::getService("default", false);
    mHidl->linkToDeath(mHidlRecipient, 0).isOk();
    (void)mHidl->getPowerEntityInfo([this](const auto& entities, auto) {
        for (const auto& entity : entities) {
            mEntityNames.emplace(static_cast<int>(entity.powerEntityId), entity.powerEntityName);
        }
    });
    (void)mHidl->getPowerEntityStateInfo({}, [this](const auto& entities, auto) {
        for (const auto& entity : entities) {
            auto& states = mStateNames[static_cast<int>(entity.powerEntityId)];
            for (const auto& state : entity.states) {
                states.emplace(static_cast<int>(state.powerEntityStateId),
                               state.powerEntityStateName);
            }
        }
    });
}

host::JavaBytes BareClient::collect(int64_t timestampMs, host::HostJniEnv* env) const {
    std::string bytes;
    const auto toJava = [&] {
        const auto length = static_cast<jsize>(bytes.size());
        jbyteArray array = env->get()->NewByteArray(length);
        env->get()->SetByteArrayRegion(array, 0, length,
                                       reinterpret_cast<const jbyte*>(bytes.data()));
        return env->take(array);
    };
    // The records of rails, and the message, exist until the bytes are handed over, as in the
    // library. An allocator's cost depends on that order.
    const auto railsToJava = [&](const auto& records) {
        proto::PowerDataResult result;
        for (size_t i = 0; i < records.size(); ++i) {
            addElement(mElements[i], proto::KIND_RAIL, timestampMs, &result)
                ->mutable_scalar()
                ->set_value(static_cast<int32_t>(energyUws(records[i]) / 1000.0f));
        }
        result.SerializeToString(&bytes);
        return toJava();
    };
    const auto addEntities = [&](const auto& records, proto::PowerDataResult* result) {
        for (size_t i = 0; i < records.size(); ++i) {
            proto::PowerData* data =
                addElement(mElements[i], proto::KIND_POWER_ENTITY, timestampMs, result);
            const auto& states = records[i].stateResidencyData;
            for (size_t j = 0; j < states.size(); ++j) {
                proto::Residency* residency = data->add_residency();
                residency->mutable_name()->assign(mStates[i][j]);
                residency->set_total_time_in_state_ms(
                    static_cast<int64_t>(states[j].totalTimeInStateMs));
                residency->set_total_state_entry_count(
                    static_cast<int64_t>(states[j].totalStateEntryCount));
            }
        }
        result->SerializeToString(&bytes);
    };
    const bool rails = mWorkload.call == Call::kRails;
    if (mWorkload.backend == Backend::kAidl && rails) {
        std::vector<stats::EnergyMeasurement> measurements;
        mAidl->readEnergyMeter({}, &measurements);
        return railsToJava(measurements);
    }
    if (mWorkload.backend == Backend::kAidl) {
        std::vector<stats::StateResidencyResult> entities;
        mAidl->getStateResidency({}, &entities);
        proto::PowerDataResult result;
        addEntities(entities, &result);
        return toJava();
    }
    if (!rails) {
        // The message ends with the service's callback, before the bytes are handed over.
        (void)mHidl->getPowerEntityStateResidencyData({}, [&](const auto& entities, auto) {
            proto::PowerDataResult result;
            addEntities(entities, &result);
        });
        return toJava();
    }
    // The table is part of the service's protocol: rails are asked for in every call.
    std::unordered_map<uint32_t, std::pair<std::string, std::string>> names;
    (void)mHidl->getRailInfo([&names](const auto& all, auto) {
        for (const auto& rail : all) {
            names.emplace(rail.index,
                          std::pair<std::string, std::string>(rail.subsysName, rail.railName));
        }
    });
    ::android::hardware::hidl_vec<stats_V1_0::EnergyData> records;
    (void)mHidl->getEnergyData({}, [&records](const auto& all, auto) { records = all; });
    return railsToJava(records);
}

}  // namespace bench
