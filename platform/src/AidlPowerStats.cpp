// SPDX-License-Identifier: Apache-2.0

#include <utility>

#include "Binder.h"
#include "Forwarders.h"
#include "Register.h"

namespace aidl::android::hardware::power::stats {
namespace {

using ::ndk::ScopedAStatus;

/// The proxy. It forwards to the service while that lives and answers STATUS_DEAD_OBJECT once it is
/// dead; a call in progress when the service dies fails too. As over a real transport the caller's
/// result is written only when the call succeeded.
class BpPowerStats : public host::AidlForwarder<BpPowerStats> {
  public:
    BpPowerStats(const ::ndk::SpAIBinder& binder, std::shared_ptr<IPowerStats> service)
        : mBinder(binder), mService(std::move(service)) {}

    ::ndk::SpAIBinder asBinder() override { return mBinder; }

    /// Makes one call of the service, and logs why it failed if it did.
    template <auto kCall, typename Records, typename... Ids>
    ScopedAStatus transact(const char* method, Records* records, const Ids&... ids) {
        const host::Peer& peer = *mBinder.get()->peer;
        Records received;
        ScopedAStatus status;
        if (peer.isAlive()) status = (*mService.*kCall)(ids..., &received);
        if (!peer.isAlive()) status = ScopedAStatus::fromStatus(STATUS_DEAD_OBJECT);
        if (status.isOk()) {
            *records = std::move(received);
        } else {
            host::logFailure(descriptor, method,
                             status.get() != nullptr ? status.getDescription() : "no status");
        }
        return status;
    }

  private:
    const ::ndk::SpAIBinder mBinder;
    const std::shared_ptr<IPowerStats> mService;
};

}  // namespace

const char* IPowerStats::descriptor = "android.hardware.power.stats.IPowerStats";

std::shared_ptr<IPowerStats> IPowerStats::fromBinder(const ::ndk::SpAIBinder& binder) {
    // A dead process cannot be asked for its interface.
    if (binder.get() == nullptr || !binder.get()->peer->isAlive()) return nullptr;
    auto service = std::dynamic_pointer_cast<IPowerStats>(binder.get()->service);
    if (service == nullptr) return nullptr;
    return ::ndk::SharedRefBase::make<BpPowerStats>(binder, std::move(service));
}

}  // namespace aidl::android::hardware::power::stats
