// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <android/hardware/power/stats/1.0/types.h>
#include <android/hidl/base/1.0/IBase.h>
#include <hidl/HidlSupport.h>
#include <hidl/MQDescriptor.h>
#include <hidl/Status.h>
#include <utils/Errors.h>
#include <utils/StrongPointer.h>

#include <cstdint>
#include <functional>
#include <string>

namespace android::hardware::power::stats::V1_0 {

/// The power statistics service. Every query calls its callback once, on the calling thread and
/// before it returns, and returns a transport result. If that is not OK, the callback was not
/// called.
struct IPowerStats : public ::android::hidl::base::V1_0::IBase {
    /// "android.hardware.power.stats@1.0::IPowerStats"
    static const char* descriptor;

    /// Gets all rails.
    using getRailInfo_cb = std::function<void(const hidl_vec<RailInfo>& rails, Status status)>;
    virtual Return<void> getRailInfo(getRailInfo_cb _hidl_cb) = 0;

    /// Reads the energy of the listed rails; of all when the list is empty.
    using getEnergyData_cb = std::function<void(const hidl_vec<EnergyData>& data, Status status)>;
    virtual Return<void> getEnergyData(const hidl_vec<uint32_t>& railIndices,
                                       getEnergyData_cb _hidl_cb) = 0;

    /// Samples through a message queue. On the host the proxy answers UNKNOWN_TRANSACTION.
    using streamEnergyData_cb =
        std::function<void(const MQDescriptorSync<EnergyData>& mqDesc, uint32_t numSamples,
                           uint32_t railsPerSample, Status status)>;
    virtual Return<void> streamEnergyData(uint32_t timeMs, uint32_t samplingRate,
                                          streamEnergyData_cb _hidl_cb) = 0;

    /// Gets all power entities.
    using getPowerEntityInfo_cb =
        std::function<void(const hidl_vec<PowerEntityInfo>& powerEntityInfos, Status status)>;
    virtual Return<void> getPowerEntityInfo(getPowerEntityInfo_cb _hidl_cb) = 0;

    /// Gets the states of the listed entities; of all when the list is empty.
    using getPowerEntityStateInfo_cb = std::function<void(
        const hidl_vec<PowerEntityStateSpace>& powerEntityStateSpaces, Status status)>;
    virtual Return<void> getPowerEntityStateInfo(const hidl_vec<uint32_t>& powerEntityIds,
                                                 getPowerEntityStateInfo_cb _hidl_cb) = 0;

    /// Reads the state residencies of the listed entities; of all when the list is empty.
    using getPowerEntityStateResidencyData_cb = std::function<void(
        const hidl_vec<PowerEntityStateResidencyResult>& stateResidencyResults, Status status)>;
    virtual Return<void> getPowerEntityStateResidencyData(
        const hidl_vec<uint32_t>& powerEntityIds, getPowerEntityStateResidencyData_cb _hidl_cb) = 0;

    /// Looks a service up.
    /// @param getStub [in] asks for an implementation in the caller's own process. The host has
    ///     none, so true gives null.
    /// @return a new proxy for the service registered under that name, or null.
    static sp<IPowerStats> getService(const std::string& serviceName = "default",
                                      bool getStub = false);

    /// Registers this service and replaces one of the same name.
    __attribute__((warn_unused_result)) status_t registerAsService(
        const std::string& serviceName = "default");
};

}  // namespace android::hardware::power::stats::V1_0
