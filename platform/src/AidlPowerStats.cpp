// SPDX-License-Identifier: Apache-2.0

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <aidl/android/hardware/power/stats/BpPowerStats.h>

#include <utility>

#include "Binder.h"
#include "Register.h"

const AIBinder_Class* host::aidlPowerStatsClass() {
    // No raw transaction ever reaches a service: its proxies call it.
    static const AIBinder_Class* const clazz = ::ndk::ICInterface::defineClass(
        ::aidl::android::hardware::power::stats::IPowerStats::descriptor,
        [](AIBinder*, transaction_code_t, const AParcel*, AParcel*) {
            return binder_status_t{STATUS_UNKNOWN_TRANSACTION};
        });
    return clazz;
}

namespace aidl::android::hardware::power::stats {
namespace {

using ::ndk::ScopedAStatus;

ScopedAStatus unknownTransaction() {
    return ScopedAStatus::fromStatus(STATUS_UNKNOWN_TRANSACTION);
}

template <typename Reply, typename Call>
ScopedAStatus transactUnlogged(AIBinder* binder, host::Method method, Reply* reply, Call call) {
    host::Peer& peer = *binder->peer;
    if (auto failure = peer.begin(method)) return host::toAidlStatus(*failure);
    Reply received;
    ScopedAStatus status =
        call(static_cast<IPowerStats*>(::ndk::ICInterface::fromUserData(binder)), &received);
    if (!peer.isAlive()) return host::toAidlStatus(host::deadObject());
    if (status.isOk()) *reply = std::move(received);
    return status;
}

/// Makes one call of a service through its binder.
/// @param call [in] `ScopedAStatus(IPowerStats* service, Reply* reply)`
template <typename Reply, typename Call>
ScopedAStatus transact(AIBinder* binder, host::Method method, Reply* reply, Call call) {
    ScopedAStatus status = transactUnlogged(binder, method, reply, call);
    if (!status.isOk()) {
        host::logFailure(method, status.get() != nullptr ? status.getDescription() : "no status");
    }
    return status;
}

}  // namespace

const char* IPowerStats::descriptor = "android.hardware.power.stats.IPowerStats";

std::shared_ptr<IPowerStats> IPowerStats::fromBinder(const ::ndk::SpAIBinder& binder) {
    if (!AIBinder_associateClass(binder.get(), host::aidlPowerStatsClass())) return nullptr;
    return ::ndk::SharedRefBase::make<BpPowerStats>(binder);
}

::ndk::SpAIBinder BnPowerStats::createBinder() {
    return ::ndk::SpAIBinder(
        AIBinder_new(host::aidlPowerStatsClass(), static_cast<::ndk::ICInterface*>(this)));
}

BpPowerStats::BpPowerStats(const ::ndk::SpAIBinder& binder) : BpCInterface(binder) {}

BpPowerStats::~BpPowerStats() {
    host::observe(host::Event::kAidlProxyDestroyed);
}

ScopedAStatus BpPowerStats::getPowerEntityInfo(std::vector<PowerEntity>* _aidl_return) {
    return transact(
        mBinder.get(), host::Method::kAidlGetPowerEntityInfo, _aidl_return,
        [](IPowerStats* service, auto* reply) { return service->getPowerEntityInfo(reply); });
}

ScopedAStatus BpPowerStats::getStateResidency(const std::vector<int32_t>& in_powerEntityIds,
                                              std::vector<StateResidencyResult>* _aidl_return) {
    return transact(mBinder.get(), host::Method::kAidlGetStateResidency, _aidl_return,
                    [&](IPowerStats* service, auto* reply) {
                        return service->getStateResidency(in_powerEntityIds, reply);
                    });
}

ScopedAStatus BpPowerStats::getEnergyConsumerInfo(std::vector<EnergyConsumer>*) {
    return unknownTransaction();
}

ScopedAStatus BpPowerStats::getEnergyConsumed(const std::vector<int32_t>&,
                                              std::vector<EnergyConsumerResult>*) {
    return unknownTransaction();
}

ScopedAStatus BpPowerStats::getEnergyMeterInfo(std::vector<Channel>* _aidl_return) {
    return transact(
        mBinder.get(), host::Method::kAidlGetEnergyMeterInfo, _aidl_return,
        [](IPowerStats* service, auto* reply) { return service->getEnergyMeterInfo(reply); });
}

ScopedAStatus BpPowerStats::readEnergyMeter(const std::vector<int32_t>& in_channelIds,
                                            std::vector<EnergyMeasurement>* _aidl_return) {
    return transact(mBinder.get(), host::Method::kAidlReadEnergyMeter, _aidl_return,
                    [&](IPowerStats* service, auto* reply) {
                        return service->readEnergyMeter(in_channelIds, reply);
                    });
}

}  // namespace aidl::android::hardware::power::stats
