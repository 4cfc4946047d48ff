// SPDX-License-Identifier: Apache-2.0

#include <utility>

#include "Binder.h"
#include "Forwarders.h"
#include "Register.h"

const AIBinder_Class* host::aidlPowerStatsClass() {
    // No raw transaction reaches a service, because its proxies call it directly.
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

/// The proxy. It forwards to the service while that lives and answers STATUS_DEAD_OBJECT once it is
/// dead; a call in progress when the service dies fails too. As over a real transport the caller's
/// result is written only when the call succeeded.
class BpPowerStats : public host::AidlForwarder<BpPowerStats, ::ndk::BpCInterface<IPowerStats>> {
  public:
    using AidlForwarder::AidlForwarder;

    /// Makes one call of the service, and logs why it failed if it did.
    template <auto kCall, typename Records, typename... Ids>
    ScopedAStatus transact(const char* method, Records* records, const Ids&... ids) {
        ScopedAStatus status = transactUnlogged<kCall>(records, ids...);
        if (!status.isOk()) {
            host::logFailure(descriptor, method,
                             status.get() != nullptr ? status.getDescription() : "no status");
        }
        return status;
    }

  private:
    template <auto kCall, typename Records, typename... Ids>
    ScopedAStatus transactUnlogged(Records* records, const Ids&... ids) {
        host::Peer& peer = *mBinder.get()->peer;
        if (!peer.isAlive()) return ScopedAStatus::fromStatus(STATUS_DEAD_OBJECT);
        auto* service = static_cast<IPowerStats*>(::ndk::ICInterface::fromUserData(mBinder.get()));
        Records received;
        ScopedAStatus status = (service->*kCall)(ids..., &received);
        if (!peer.isAlive()) return ScopedAStatus::fromStatus(STATUS_DEAD_OBJECT);
        if (status.isOk()) *records = std::move(received);
        return status;
    }
};

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

}  // namespace aidl::android::hardware::power::stats
