// SPDX-License-Identifier: Apache-2.0

#include <memory>
#include <utility>

#include "Forwarders.h"
#include "Peer.h"
#include "Register.h"

namespace android::hardware::power::stats::V1_0 {
namespace {

using TransportStatus = ::android::hardware::Status;

/// The proxy. It forwards to the service while that lives and fails with DEAD_OBJECT once it is
/// dead. A call in progress when the service dies fails too, unless the service has answered it.
class BpHwPowerStats : public host::HidlForwarder<BpHwPowerStats> {
  public:
    BpHwPowerStats(const sp<IPowerStats>& service, std::shared_ptr<host::Peer> peer)
        : mService(service), mPeer(std::move(peer)) {}

    ~BpHwPowerStats() override { mPeer->unlinkAll(this); }

    Return<bool> linkToDeath(const sp<hidl_death_recipient>& recipient, uint64_t cookie) override {
        const wp<hidl::base::V1_0::IBase> proxy(this);
        // Weak, because a client may go away without unlinking.
        const wp<hidl_death_recipient> weak(recipient);
        return mPeer->link({this, recipient.get(), nullptr}, [=] {
            const sp<hidl_death_recipient> held = weak.promote();
            if (held != nullptr) held->serviceDied(cookie, proxy);
        }) == OK;
    }

    Return<bool> unlinkToDeath(const sp<hidl_death_recipient>& recipient) override {
        return mPeer->unlink({this, recipient.get(), nullptr}) == OK;
    }

    /// Makes one call of the service, and logs why it failed if it did.
    template <auto kCall, typename Callback, typename... Ids>
    Return<void> transact(const char* method, const Callback& callback, const Ids&... ids) {
        struct {
            const host::Peer& peer;
            const Callback& callback;
            bool answered;
        } transaction{*mPeer, callback, false};
        Return<void> result;
        if (mPeer->isAlive()) {
            // One captured pointer, so that the std::function made of it allocates nothing.
            result = (*mService.*kCall)(ids...,
                                        [&transaction](const auto& records, V1_0::Status status) {
                                            if (transaction.answered || !transaction.peer.isAlive())
                                                return;
                                            transaction.answered = true;
                                            transaction.callback(records, status);
                                        });
        }
        if (!transaction.answered && result.isOkUnchecked()) {
            result = mPeer->isAlive() ? TransportStatus::fromStatusT(FAILED_TRANSACTION,
                                                                     "the service gave no answer")
                                      : TransportStatus::fromStatusT(DEAD_OBJECT);
        }
        if (!result.isOkUnchecked()) host::logFailure(descriptor, method, result.description());
        return result;
    }

  private:
    const sp<IPowerStats> mService;
    const std::shared_ptr<host::Peer> mPeer;
};

std::string registeredName(const std::string& serviceName) {
    return std::string(IPowerStats::descriptor) + "/" + serviceName;
}

}  // namespace

const char* IPowerStats::descriptor = "android.hardware.power.stats@1.0::IPowerStats";

sp<IPowerStats> IPowerStats::getService(const std::string& serviceName, bool getStub) {
    if (getStub) return nullptr;
    const host::RegisteredService found = host::findService(registeredName(serviceName));
    if (found.object == nullptr) return nullptr;
    return new BpHwPowerStats(dynamic_cast<IPowerStats*>(found.object.get()), found.peer);
}

status_t IPowerStats::registerAsService(const std::string& serviceName) {
    host::registerService(registeredName(serviceName), {this, std::make_shared<host::Peer>()});
    return OK;
}

}  // namespace android::hardware::power::stats::V1_0
