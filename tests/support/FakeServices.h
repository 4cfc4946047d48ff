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

/// What a test changes in a service of either interface.
struct FakeService {
    /// The library asks for everything with an empty list of ids. Any other list ends the process,
    /// unless this is set.
    bool answersIds = false;
    /// Called in every transaction before it is answered; the second, over HIDL only, after that.
    Hook onCall;
    Hook onAnswered;
    /// Statuses of methods that do not answer SUCCESS. Their records are delivered all the same.
    /// Over AIDL each of them is one and the same error.
    std::map<std::string, stats_V1_0::Status, std::less<>> statuses = {};

  protected:
    stats_V1_0::Status begin(const char* method, bool hasIds) const {
        if (hasIds && !answersIds) std::abort();
        if (onCall) onCall(method);
        const auto status = statuses.find(method);
        return status != statuses.end() ? status->second : stats_V1_0::Status::SUCCESS;
    }

    /// Selects the records of a list of ids.
    /// @return none when one is unknown.
    template <typename Record, typename Id, typename Records>
    static std::vector<Record> select(const std::vector<Id>& ids, const Records& all,
                                      Id Record::*member) {
        std::vector<Record> selected;
        for (const Id id : ids) {
            for (const Record& record : all) {
                if (record.*member == id) selected.push_back(record);
            }
        }
        return selected.size() == ids.size() ? selected : std::vector<Record>();
    }
};

class FakeAidl : public stats::BnPowerStats, public FakeService {
  public:
    using Status = ndk::ScopedAStatus;
    using Ids = std::vector<int32_t>;

    Machine machine;

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
        const auto status = begin(method, !ids.empty());
        *answer = ids.empty() ? all : select(ids, all, &Record::id);
        if (answer->size() < ids.size()) return Status::fromExceptionCode(EX_ILLEGAL_ARGUMENT);
        // Of 0, so that only the exception's code tells that it is one.
        return status == stats_V1_0::Status::SUCCESS ? Status::ok()
                                                     : Status::fromServiceSpecificError(0);
    }
};

class FakeHidl : public stats_V1_0::IPowerStats, public FakeService {
  public:
    using Status = stats_V1_0::Status;
    using Ids = android::hardware::hidl_vec<uint32_t>;
    using Result = android::hardware::Return<void>;

    template <typename T>
    using Vector = android::hardware::hidl_vec<T>;

    /// Replaces all records by those of a machine.
    void tell(const Machine& machine);

    Vector<stats_V1_0::RailInfo> rails;
    Vector<stats_V1_0::EnergyData> energies;
    Vector<stats_V1_0::PowerEntityInfo> entities;
    Vector<stats_V1_0::PowerEntityStateSpace> states;
    Vector<stats_V1_0::PowerEntityStateResidencyResult> totals;

    Result getRailInfo(getRailInfo_cb callback) override {
        return give("getRailInfo", rails, callback);
    }
    Result getEnergyData(const Ids& ids, getEnergyData_cb callback) override {
        return give("getEnergyData", energies, callback, ids, &stats_V1_0::EnergyData::index);
    }
    Result streamEnergyData(uint32_t, uint32_t, streamEnergyData_cb) override {
        return android::hardware::Void();
    }
    Result getPowerEntityInfo(getPowerEntityInfo_cb callback) override {
        return give("getPowerEntityInfo", entities, callback);
    }
    Result getPowerEntityStateInfo(const Ids& ids, getPowerEntityStateInfo_cb callback) override {
        return give("getPowerEntityStateInfo", states, callback, ids,
                    &stats_V1_0::PowerEntityStateSpace::powerEntityId);
    }
    Result getPowerEntityStateResidencyData(const Ids& ids,
                                            getPowerEntityStateResidencyData_cb callback) override {
        return give("getPowerEntityStateResidencyData", totals, callback, ids,
                    &stats_V1_0::PowerEntityStateResidencyResult::powerEntityId);
    }

  private:
    template <typename Record, typename Callback>
    Result give(const char* method, const Vector<Record>& all, const Callback& callback,
                const Ids& ids = {}, uint32_t Record::*member = nullptr) const {
        const Status status = begin(method, ids.size() != 0);
        if (ids.size() != 0) {
            const auto selected = select(std::vector<uint32_t>(ids), all, member);
            callback(selected, selected.empty() ? Status::INVALID_INPUT : Status::SUCCESS);
        } else {
            callback(all, status);
        }
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
