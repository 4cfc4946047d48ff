// SPDX-License-Identifier: Apache-2.0
//
// Power stats services that answer what a test tells them to, through either interface.

#pragma once

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace support {

namespace stats = aidl::android::hardware::power::stats;
namespace stats_V1_0 = android::hardware::power::stats::V1_0;

struct Rail {
    uint32_t id = 0;
    std::string name;
};
struct Energy {
    uint32_t id = 0;
    uint64_t microwattSeconds = 0;
    int64_t timestampMs = 5000;  ///< with AIDL: measured since boot when both are the same
    int64_t durationMs = 5000;
};
struct State {
    uint32_t id = 0;
    std::string name;
};
struct Entity {
    uint32_t id = 0;
    std::string name;
    std::vector<State> states = {};
};
struct StateTotals {
    uint32_t id = 0;
    uint64_t timeMs = 0;
    uint64_t entries = 0;
    uint64_t lastEntryMs = 777;
};
struct EntityTotals {
    uint32_t id = 0;
    std::vector<StateTotals> states = {};
};

/// What a service has to tell, in the terms that both interfaces share.
struct Machine {
    std::vector<Rail> rails = {};
    std::vector<Energy> energies = {};
    std::vector<Entity> entities = {};
    std::vector<EntityTotals> totals = {};
};

/// Called with a method's name, "readEnergyMeter".
using Hook = std::function<void(const std::string& method)>;

class FakeAidl : public stats::BnPowerStats {
  public:
    using Status = ndk::ScopedAStatus;
    using Ids = std::vector<int32_t>;
    template <typename T>
    using Vector = std::vector<T>;

    Machine machine;
    /// Called in every transaction before it is answered.
    Hook onCall;
    /// Methods that do not answer OK. What they would have answered is written all the same.
    std::map<std::string, std::function<Status()>> failing;

    Status getPowerEntityInfo(Vector<stats::PowerEntity>* answer) override;
    Status getStateResidency(const Ids& ids, Vector<stats::StateResidencyResult>* answer) override;
    Status getEnergyConsumerInfo(Vector<stats::EnergyConsumer>* answer) override;
    Status getEnergyConsumed(const Ids& ids, Vector<stats::EnergyConsumerResult>* answer) override;
    Status getEnergyMeterInfo(Vector<stats::Channel>* answer) override;
    Status readEnergyMeter(const Ids& ids, Vector<stats::EnergyMeasurement>* answer) override;

  private:
    Status finish(const std::string& method);
};

class FakeHidl : public stats_V1_0::IPowerStats {
  public:
    using Status = stats_V1_0::Status;
    using Ids = android::hardware::hidl_vec<uint32_t>;
    using Result = android::hardware::Return<void>;

    Machine machine;
    /// Where the states differ from those of the machine's entities.
    std::optional<std::vector<Entity>> stateSpaces;
    /// Called in every transaction before it is answered, and after.
    Hook onCall;
    Hook onAnswered;
    /// Statuses of methods that do not answer SUCCESS. Their records are delivered all the same.
    std::map<std::string, Status> statuses;

    Result getRailInfo(getRailInfo_cb callback) override;
    Result getEnergyData(const Ids& ids, getEnergyData_cb callback) override;
    Result streamEnergyData(uint32_t timeMs, uint32_t rate, streamEnergyData_cb callback) override;
    Result getPowerEntityInfo(getPowerEntityInfo_cb callback) override;
    Result getPowerEntityStateInfo(const Ids& ids, getPowerEntityStateInfo_cb callback) override;
    Result getPowerEntityStateResidencyData(const Ids& ids,
                                            getPowerEntityStateResidencyData_cb callback) override;

  private:
    template <typename Callback, typename Record>
    Result deliver(const std::string& method, const Callback& callback,
                   const std::vector<Record>& records);
};

}  // namespace support
