// SPDX-License-Identifier: Apache-2.0

#include "bench/BareClient.h"

#include <android/binder_ibinder.h>
#include <android/binder_manager.h>
#include <host/ServiceControl.h>
#include <time.h>

#include <cstring>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "proto/power_data_result.pb.h"

namespace bench {
namespace {

namespace proto = ::com::tavrel::android::ferrolith::poweranomalyservice::proto;

int64_t toMillijoules(float microwattSeconds) {
    return static_cast<int32_t>(microwattSeconds / 1000.0f);
}
int64_t millijoules(const stats::EnergyMeasurement& measurement) {
    return toMillijoules(static_cast<float>(measurement.energyUWs));
}
int64_t millijoules(const stats_V1_0::EnergyData& record) {
    return toMillijoules(static_cast<float>(record.energy));
}

/// Whether the records are of rails, which have no states.
template <typename Record>
constexpr bool kOfRails = std::is_same_v<Record, stats::EnergyMeasurement> ||
                          std::is_same_v<Record, stats_V1_0::EnergyData>;

template <typename Records>
using RecordOf = typename Records::value_type;

// The parts of the wire format that a result has: varints, and fields that begin with their length.

size_t varintSize(uint64_t value) {
    return static_cast<size_t>(63 - __builtin_clzll(value | 1)) / 7 + 1;
}

/// A field with a tag of one byte.
size_t fieldSize(uint64_t value) {
    return 1 + varintSize(value);
}
size_t lengthFieldSize(size_t length) {
    return fieldSize(length) + length;
}

class Writer {
  public:
    explicit Writer(char* to) : mTo(to) {}

    void varint(uint64_t value) {
        for (; value >= 0x80; value >>= 7) *mTo++ = static_cast<char>(value | 0x80);
        *mTo++ = static_cast<char>(value);
    }
    void field(int number, uint64_t value) {
        *mTo++ = static_cast<char>(number << 3);
        varint(value);
    }
    /// Writes the tag and the length of a message or a string.
    void length(int number, size_t length) {
        *mTo++ = static_cast<char>(number << 3 | 2);
        varint(length);
    }
    void text(int number, const std::string& text) {
        length(number, text.size());
        std::memcpy(mTo, text.data(), text.size());
        mTo += text.size();
    }
    const char* end() const { return mTo; }

  private:
    char* mTo;
};

/// The fields of a state.
template <typename State>
size_t residencySize(const std::string& name, const State& state) {
    return lengthFieldSize(name.size()) +
           fieldSize(static_cast<uint64_t>(state.totalTimeInStateMs)) +
           fieldSize(static_cast<uint64_t>(state.totalStateEntryCount));
}

template <typename Records>
void buildTree(const Records& records, const Names& names, int64_t timestampMs,
               proto::PowerDataResult* result) {
    for (size_t i = 0; i < records.size(); ++i) {
        proto::KeyedPowerData* element = result->add_keyed_power_data();
        proto::Id* id = element->mutable_id();
        id->mutable_name()->assign(names.elements[i]);
        id->set_timestamp_ms(timestampMs);
        if constexpr (kOfRails<RecordOf<Records>>) {
            id->set_kind(proto::KIND_RAIL);
            element->mutable_data()->mutable_scalar()->set_value(millijoules(records[i]));
        } else {
            id->set_kind(proto::KIND_POWER_ENTITY);
            proto::PowerData* data = element->mutable_data();
            const auto& states = records[i].stateResidencyData;
            for (size_t j = 0; j < states.size(); ++j) {
                proto::Residency* residency = data->add_residency();
                residency->mutable_name()->assign(names.states[i][j]);
                residency->set_total_time_in_state_ms(
                    static_cast<int64_t>(states[j].totalTimeInStateMs));
                residency->set_total_state_entry_count(
                    static_cast<int64_t>(states[j].totalStateEntryCount));
            }
        }
    }
}

/// @param buffer [out] large enough for the bytes.
template <typename Records>
std::string_view writeByHand(const Records& records, const Names& names, int64_t timestampMs,
                             char* buffer) {
    Writer writer(buffer);
    for (size_t i = 0; i < records.size(); ++i) {
        const std::string& name = names.elements[i];
        size_t dataSize = 0;
        if constexpr (kOfRails<RecordOf<Records>>) {
            dataSize = lengthFieldSize(fieldSize(static_cast<uint64_t>(millijoules(records[i]))));
        } else {
            const auto& states = records[i].stateResidencyData;
            for (size_t j = 0; j < states.size(); ++j) {
                dataSize += lengthFieldSize(residencySize(names.states[i][j], states[j]));
            }
        }
        const auto timestamp = static_cast<uint64_t>(timestampMs);
        const size_t idSize = fieldSize(1) + lengthFieldSize(name.size()) + fieldSize(timestamp);
        writer.length(2, lengthFieldSize(idSize) + lengthFieldSize(dataSize));
        writer.length(1, idSize);
        writer.field(1, kOfRails<RecordOf<Records>> ? 1 : 2);
        writer.text(2, name);
        writer.field(3, timestamp);
        writer.length(2, dataSize);
        if constexpr (kOfRails<RecordOf<Records>>) {
            const auto value = static_cast<uint64_t>(millijoules(records[i]));
            writer.length(1, fieldSize(value));
            writer.field(1, value);
        } else {
            const auto& states = records[i].stateResidencyData;
            for (size_t j = 0; j < states.size(); ++j) {
                writer.length(2, residencySize(names.states[i][j], states[j]));
                writer.text(1, names.states[i][j]);
                writer.field(2, static_cast<uint64_t>(states[j].totalTimeInStateMs));
                writer.field(3, static_cast<uint64_t>(states[j].totalStateEntryCount));
            }
        }
    }
    return {buffer, static_cast<size_t>(writer.end() - buffer)};
}

}  // namespace

Names::Names(const Workload& workload) {
    const Machine machine = workload.machine();
    for (const auto& rail : machine.rails) elements.push_back(rail.name);
    if (workload.call == Call::kRails) return;
    for (const auto& entity : machine.entities) {
        elements.push_back(entity.name);
        auto& ofElement = states.emplace_back();
        for (const auto& state : entity.states) ofElement.push_back(state.name);
    }
}

struct BareClient::Recipient : public ::android::hardware::hidl_death_recipient {
    void serviceDied(uint64_t, const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {}
};

BareClient::BareClient(const Workload& workload)
    : mWorkload(workload),
      mNames(workload),
      mAidlRecipient(AIBinder_DeathRecipient_new([](void*) {})),
      mHidlRecipient(new Recipient) {}

BareClient::~BareClient() = default;

void BareClient::connect(bool choose) {
    if (choose) mChosen = AServiceManager_getService(host::kAidlPowerStats);
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
            std::unordered_map<int, std::string> states;
            for (const auto& state : entity.states) states.emplace(state.id, state.name);
            mEntityNames.emplace(entity.id, entity.name);
            mStateNames.emplace(entity.id, std::move(states));
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
            std::unordered_map<int, std::string> states;
            for (const auto& state : entity.states) {
                states.emplace(static_cast<int>(state.powerEntityStateId),
                               state.powerEntityStateName);
            }
            mStateNames.emplace(static_cast<int>(entity.powerEntityId), std::move(states));
        }
    });
}

void BareClient::disconnect() {
    mAidl = nullptr;
    mHidl = nullptr;
    if (mWorkload.backend == Backend::kHidl) return;
    mEntityNames.clear();
    mStateNames.clear();
    mChannels.clear();
}

/// Asks for the data.
/// @param use [in] called with the records.
template <typename Use>
void BareClient::transact(Use use) {
    const bool rails = mWorkload.call == Call::kRails;
    if (mWorkload.backend == Backend::kAidl && rails) {
        std::vector<stats::EnergyMeasurement> measurements;
        mAidl->readEnergyMeter({}, &measurements);
        use(measurements);
    } else if (mWorkload.backend == Backend::kAidl) {
        std::vector<stats::StateResidencyResult> entities;
        mAidl->getStateResidency({}, &entities);
        use(entities);
    } else if (rails) {
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
        use(records);
    } else {
        (void)mHidl->getPowerEntityStateResidencyData(
            {}, [&use](const auto& entities, auto) { use(entities); });
    }
}

host::JavaBytes BareClient::collect(Step step, int64_t timestampMs, host::HostJniEnv* env) {
    const auto toJava = [env](std::string_view bytes) {
        const auto length = static_cast<jsize>(bytes.size());
        jbyteArray array = env->get()->NewByteArray(length);
        env->get()->SetByteArrayRegion(array, 0, length,
                                       reinterpret_cast<const jbyte*>(bytes.data()));
        return env->take(array);
    };
    host::JavaBytes received;
    std::string bytes;
    const bool inCallback =
        mWorkload.backend == Backend::kHidl && mWorkload.call == Call::kResidencies;
    transact([&](const auto& records) {
        if (step == Step::kTransaction) return;
        if (step == Step::kLimit) {
            // No field but a name is longer than a tag and a varint of ten bytes.
            const auto size = static_cast<size_t>(mWorkload.elements * (mWorkload.states + 1)) *
                              static_cast<size_t>(64 + mWorkload.nameLength);
            const std::unique_ptr<char[]> buffer(new char[size]);
            received = toJava(writeByHand(records, mNames, timestampMs, buffer.get()));
            return;
        }
        proto::PowerDataResult result;
        buildTree(records, mNames, timestampMs, &result);
        if (step == Step::kTree) return;
        if (step == Step::kSizes) {
            result.ByteSizeLong();
            return;
        }
        result.SerializeToString(&bytes);
        if (step == Step::kFloor && !inCallback) received = toJava(bytes);
    });
    // The message ends with the service's callback, before the bytes are handed over, as in the
    // library. An allocator's cost depends on that order.
    if (step == Step::kFloor && inCallback) received = toJava(bytes);
    return received;
}

int64_t bootTimeMs() {
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace bench
