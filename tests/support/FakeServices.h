// SPDX-License-Identifier: Apache-2.0
//
// Power stats services with preset records, over either interface. The records are made before the
// calls, so that a call costs as little as its interface allows: benchmarks use these services too.

#pragma once

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace support {

namespace stats = aidl::android::hardware::power::stats;
namespace stats_V1_0 = android::hardware::power::stats::V1_0;

/// The content of a service, in the records of the AIDL interface.
struct Machine {
    std::vector<stats::Channel> rails = {};
    std::vector<stats::EnergyMeasurement> energies = {};
    std::vector<stats::PowerEntity> entities = {};
    std::vector<stats::StateResidencyResult> totals = {};
};

/// Called with a method's name, "readEnergyMeter".
using Hook = std::function<void(const std::string& method)>;

// The library asks for everything with an empty list of ids. Any other list ends the process,
// unless `answersIds` is set.

template <typename Record>
auto idOf(const Record& record) -> decltype(record.id) {
    return record.id;
}
template <typename Record>
auto idOf(const Record& record) -> decltype(record.index) {
    return record.index;
}
template <typename Record>
auto idOf(const Record& record) -> decltype(record.powerEntityId) {
    return record.powerEntityId;
}

/// Selects the records of a list of ids.
/// @return none when one is unknown.
template <typename Record, typename Ids, typename Records>
std::vector<Record> select(const Ids& ids, const Records& all) {
    std::vector<Record> selected;
    for (const auto id : ids) {
        for (const Record& record : all) {
            if (idOf(record) == id) selected.push_back(record);
        }
    }
    return selected.size() == ids.size() ? selected : std::vector<Record>();
}

class FakeAidl : public stats::BnPowerStats {
  public:
    using Status = ndk::ScopedAStatus;
    using Ids = std::vector<int32_t>;

    Machine machine;
    bool answersIds = false;
    /// Called in every transaction before it is answered.
    Hook onCall;
    /// Methods that do not answer OK. Their answer is written all the same.
    std::map<std::string, std::function<Status()>, std::less<>> failing;

    Status getPowerEntityInfo(std::vector<stats::PowerEntity>* answer) override {
        return give("getPowerEntityInfo", {}, machine.entities, answer);
    }
    Status getStateResidency(const Ids& ids,
                             std::vector<stats::StateResidencyResult>* answer) override {
        return give("getStateResidency", ids, machine.totals, answer);
    }
    Status getEnergyConsumerInfo(std::vector<stats::EnergyConsumer>* /*answer*/) override {
        return Status::ok();
    }
    Status getEnergyConsumed(const Ids& /*ids*/,
                             std::vector<stats::EnergyConsumerResult>* /*answer*/) override {
        return Status::ok();
    }
    Status getEnergyMeterInfo(std::vector<stats::Channel>* answer) override {
        return give("getEnergyMeterInfo", {}, machine.rails, answer);
    }
    Status readEnergyMeter(const Ids& ids, std::vector<stats::EnergyMeasurement>* answer) override {
        return give("readEnergyMeter", ids, machine.energies, answer);
    }

  private:
    template <typename Record>
    Status give(const char* method, const Ids& ids, const std::vector<Record>& all,
                std::vector<Record>* answer) const {
        if (!ids.empty() && !answersIds) std::abort();
        if (onCall) onCall(method);
        *answer = ids.empty() ? all : select<Record>(ids, all);
        if (answer->size() < ids.size()) return Status::fromExceptionCode(EX_ILLEGAL_ARGUMENT);
        const auto failure = failing.find(method);
        return failure != failing.end() ? failure->second() : Status::ok();
    }
};

class FakeHidl : public stats_V1_0::IPowerStats {
  public:
    using Status = stats_V1_0::Status;
    using Ids = android::hardware::hidl_vec<uint32_t>;
    using Result = android::hardware::Return<void>;

    template <typename T>
    using Vector = android::hardware::hidl_vec<T>;

    /// Replaces all records by those of a machine.
    void tell(const Machine& machine);

    bool answersIds = false;
    Vector<stats_V1_0::RailInfo> rails;
    Vector<stats_V1_0::EnergyData> energies;
    Vector<stats_V1_0::PowerEntityInfo> entities;
    Vector<stats_V1_0::PowerEntityStateSpace> states;
    Vector<stats_V1_0::PowerEntityStateResidencyResult> totals;
    /// Called in every transaction before it is answered, and after.
    Hook onCall;
    Hook onAnswered;
    /// Statuses of methods that do not answer SUCCESS. Their records are delivered all the same.
    std::map<std::string, Status, std::less<>> statuses;

    Result getRailInfo(getRailInfo_cb callback) override {
        return give("getRailInfo", {}, rails, callback);
    }
    Result getEnergyData(const Ids& ids, getEnergyData_cb callback) override {
        return give("getEnergyData", ids, energies, callback);
    }
    Result streamEnergyData(uint32_t, uint32_t, streamEnergyData_cb) override {
        return android::hardware::Void();
    }
    Result getPowerEntityInfo(getPowerEntityInfo_cb callback) override {
        return give("getPowerEntityInfo", {}, entities, callback);
    }
    Result getPowerEntityStateInfo(const Ids& ids, getPowerEntityStateInfo_cb callback) override {
        return give("getPowerEntityStateInfo", ids, states, callback);
    }
    Result getPowerEntityStateResidencyData(const Ids& ids,
                                            getPowerEntityStateResidencyData_cb callback) override {
        return give("getPowerEntityStateResidencyData", ids, totals, callback);
    }

  private:
    template <typename Record, typename Callback>
    Result give(const char* method, const Ids& ids, const Vector<Record>& all,
                const Callback& callback) const {
        if (ids.size() != 0 && !answersIds) std::abort();
        if (onCall) onCall(method);
        if (ids.size() != 0) {
            const std::vector<Record> selected = select<Record>(ids, all);
            callback(selected, selected.empty() ? Status::INVALID_INPUT : Status::SUCCESS);
            return android::hardware::Void();
        }
        const auto status = statuses.find(method);
        callback(all, status != statuses.end() ? status->second : Status::SUCCESS);
        if (onAnswered) onAnswered(method);
        return android::hardware::Void();
    }
};

enum class Backend { kAidl, kHidl };
enum class Call { kRails, kResidencies };
inline constexpr Backend kBackends[] = {Backend::kAidl, Backend::kHidl};
inline constexpr Call kCalls[] = {Call::kRails, Call::kResidencies};

/// The name under which a backend looks its service up.
const char* nameOf(Backend backend);

}  // namespace support
