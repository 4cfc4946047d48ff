// SPDX-License-Identifier: Apache-2.0
//
// Implementations of both interfaces by one function, `transact<kMethod>(name, result, ids...)` of
// the derived class. The methods that the library never calls answer "unknown transaction".

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <cstdint>
#include <vector>

namespace host {

namespace stats_aidl = ::aidl::android::hardware::power::stats;
namespace stats_V1_0 = ::android::hardware::power::stats::V1_0;
using ::android::hardware::hidl_vec;
using ::android::hardware::Return;
using ::ndk::ScopedAStatus;

template <typename Derived>
class AidlForwarder : public stats_aidl::IPowerStats {
  public:
    ScopedAStatus getPowerEntityInfo(std::vector<stats_aidl::PowerEntity>* _aidl_return) override {
        return forward<&IPowerStats::getPowerEntityInfo>("getPowerEntityInfo", _aidl_return);
    }
    ScopedAStatus getStateResidency(
        const std::vector<int32_t>& in_powerEntityIds,
        std::vector<stats_aidl::StateResidencyResult>* _aidl_return) override {
        return forward<&IPowerStats::getStateResidency>("getStateResidency", _aidl_return,
                                                        in_powerEntityIds);
    }
    ScopedAStatus getEnergyConsumerInfo(std::vector<stats_aidl::EnergyConsumer>*) override {
        return ScopedAStatus::fromStatus(STATUS_UNKNOWN_TRANSACTION);
    }
    ScopedAStatus getEnergyConsumed(const std::vector<int32_t>&,
                                    std::vector<stats_aidl::EnergyConsumerResult>*) override {
        return ScopedAStatus::fromStatus(STATUS_UNKNOWN_TRANSACTION);
    }
    ScopedAStatus getEnergyMeterInfo(std::vector<stats_aidl::Channel>* _aidl_return) override {
        return forward<&IPowerStats::getEnergyMeterInfo>("getEnergyMeterInfo", _aidl_return);
    }
    ScopedAStatus readEnergyMeter(
        const std::vector<int32_t>& in_channelIds,
        std::vector<stats_aidl::EnergyMeasurement>* _aidl_return) override {
        return forward<&IPowerStats::readEnergyMeter>("readEnergyMeter", _aidl_return,
                                                      in_channelIds);
    }

  private:
    template <auto kMethod, typename... Arguments>
    ScopedAStatus forward(const char* method, const Arguments&... arguments) {
        return static_cast<Derived*>(this)->template transact<kMethod>(method, arguments...);
    }
};

template <typename Derived>
class HidlForwarder : public stats_V1_0::IPowerStats {
  public:
    Return<void> getRailInfo(getRailInfo_cb _hidl_cb) override {
        return forward<&IPowerStats::getRailInfo>("getRailInfo", _hidl_cb);
    }
    Return<void> getEnergyData(const hidl_vec<uint32_t>& railIndices,
                               getEnergyData_cb _hidl_cb) override {
        return forward<&IPowerStats::getEnergyData>("getEnergyData", _hidl_cb, railIndices);
    }
    Return<void> streamEnergyData(uint32_t, uint32_t, streamEnergyData_cb) override {
        return ::android::hardware::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
    }
    Return<void> getPowerEntityInfo(getPowerEntityInfo_cb _hidl_cb) override {
        return forward<&IPowerStats::getPowerEntityInfo>("getPowerEntityInfo", _hidl_cb);
    }
    Return<void> getPowerEntityStateInfo(const hidl_vec<uint32_t>& powerEntityIds,
                                         getPowerEntityStateInfo_cb _hidl_cb) override {
        return forward<&IPowerStats::getPowerEntityStateInfo>("getPowerEntityStateInfo", _hidl_cb,
                                                              powerEntityIds);
    }
    Return<void> getPowerEntityStateResidencyData(
        const hidl_vec<uint32_t>& powerEntityIds,
        getPowerEntityStateResidencyData_cb _hidl_cb) override {
        return forward<&IPowerStats::getPowerEntityStateResidencyData>(
            "getPowerEntityStateResidencyData", _hidl_cb, powerEntityIds);
    }

  private:
    template <auto kMethod, typename... Arguments>
    Return<void> forward(const char* method, const Arguments&... arguments) {
        return static_cast<Derived*>(this)->template transact<kMethod>(method, arguments...);
    }
};

}  // namespace host
