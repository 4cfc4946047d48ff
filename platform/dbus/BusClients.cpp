// SPDX-License-Identifier: Apache-2.0
//
// Finds services of other processes for the register: objects that carry each call over the bus. A
// client's proxy uses them like a service of this process.

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Binder.h"
#include "BusConnection.h"
#include "BusNames.h"
#include "Forwarders.h"
#include "Records.h"
#include "Register.h"

namespace host {
namespace dbus {
namespace {

using ::android::sp;
using ::android::hardware::Void;

class AidlBusClient : public AidlForwarder<AidlBusClient> {
  public:
    explicit AidlBusClient(std::shared_ptr<BusPeer> peer) : mPeer(std::move(peer)) {}

    template <auto kMethod, typename Records, typename... Ids>
    ScopedAStatus transact(const char* method, Records* records, const Ids&... ids) {
        const auto failure =
            mPeer->connection->call(mPeer->owner, kAidlBusName, method, std::tie(*records), ids...);
        if (!failure) return ScopedAStatus::ok();
        // A service in another process can tell of an exception only by its error's name.
        const char* const message = failure->message.c_str();
        return failure->error == android::BAD_VALUE
                   ? ScopedAStatus::fromExceptionCodeWithMessage(EX_ILLEGAL_ARGUMENT, message)
                   : ScopedAStatus(newTransactionStatus(failure->error, message));
    }

    ::ndk::SpAIBinder asBinder() override { return binderOf(this, mPeer); }

  private:
    const std::shared_ptr<BusPeer> mPeer;
};

class HidlBusClient : public HidlForwarder<HidlBusClient> {
  public:
    explicit HidlBusClient(std::shared_ptr<BusPeer> peer) : mPeer(std::move(peer)) {}

    template <auto kMethod, typename Record, typename... Ids>
    Return<void> transact(
        const char* method,
        const std::function<void(const hidl_vec<Record>&, stats_V1_0::Status)>& callback,
        const Ids&... ids) {
        hidl_vec<Record> records;
        stats_V1_0::Status status = stats_V1_0::Status::SUCCESS;
        const auto failure = mPeer->connection->call(mPeer->owner, kHidlBusName, method,
                                                     std::tie(records, status), ids...);
        if (failure) {
            return ::android::hardware::Status::fromStatusT(failure->error,
                                                            failure->message.c_str());
        }
        callback(records, status);
        return Void();
    }

  private:
    const std::shared_ptr<BusPeer> mPeer;
};

/// Finds the process that owns a name on a bus.
/// @return null when the name has no owner, or there is no such bus.
std::shared_ptr<BusPeer> findOwner(Bus bus, const char* busName) {
    // Death notices need a thread; without it a death would go unnoticed.
    if (!prepareNotices()) return nullptr;
    // Try twice: the loss of a connection may show only in its use.
    for (int attempts = 2; attempts > 0; --attempts) {
        auto connection = BusConnection::to(bus);
        if (connection == nullptr) return nullptr;
        auto peer = connection->findOwner(busName);
        if (peer != nullptr || connection->isOpen()) return peer;
    }
    return nullptr;
}

RegisteredService findAidl(Bus bus) {
    auto peer = findOwner(bus, kAidlBusName);
    if (peer == nullptr) return {};

    // While a client holds the binder of a living service, look-ups return that binder.
    static std::mutex mutex;
    static auto* const last = new ::android::wp<AIBinder>;
    std::lock_guard<std::mutex> lock(mutex);
    const sp<AIBinder> known = last->promote();
    if (known != nullptr && known->peer == peer) return {known, peer};
    const auto service = ::ndk::SharedRefBase::make<AidlBusClient>(peer);
    const ::ndk::SpAIBinder binder = service->asBinder();
    *last = binder.get();
    return {binder.get(), peer};
}

RegisteredService findHidl(Bus bus) {
    auto peer = findOwner(bus, kHidlBusName);
    if (peer == nullptr) return {};
    return {new HidlBusClient(peer), peer};
}

}  // namespace
}  // namespace dbus

const double kFreshLookupSeconds = 5;

RegisteredService findOnBus(Bus bus, const std::string& name) {
    if (name == kAidlPowerStats) return dbus::findAidl(bus);
    if (name == kHidlPowerStats) return dbus::findHidl(bus);
    return {};
}

std::string findBusTrouble(Bus bus) {
    dbus::UniqueBus opened;
    const int result = dbus::openBus(bus, &opened);
    return result < 0 ? dbus::describeTrouble(bus, result) : "";
}

std::vector<std::string> listBusNames(Bus bus) {
    std::vector<std::string> names;
    const auto connection = dbus::BusConnection::to(bus);
    if (connection == nullptr) return names;
    connection->call(dbus::kBusName, dbus::kBusName, "ListNames", std::tie(names));
    const auto isUnique = [](const std::string& name) { return name[0] == ':'; };
    names.erase(std::remove_if(names.begin(), names.end(), isUnique), names.end());
    for (std::string& name : names) name = dbus::safeText(name);
    return names;
}

}  // namespace host
