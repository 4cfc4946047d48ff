// SPDX-License-Identifier: Apache-2.0
//
// Finds services of other processes for the register: objects that carry each call over the bus. A
// client's proxy uses them like a service of this process.

#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
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
        static const std::string signature = signatureOf<Records>();
        auto failure = mPeer->connection->call(
            mPeer->owner, kAidlBusName, method, signature,
            [&](Writer& write) { return write(ids...); },
            [&](Reader& read) { return read(*records); });
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
        static const std::string signature = signatureOf<hidl_vec<Record>>() + "u";
        hidl_vec<Record> records;
        stats_V1_0::Status status = stats_V1_0::Status::SUCCESS;
        auto failure = mPeer->connection->call(
            mPeer->owner, kHidlBusName, method, signature,
            [&](Writer& write) { return write(ids...); },
            [&](Reader& read) { return read(records, status); });
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
        std::string owner = connection->ownerOf(busName);
        if (!owner.empty()) return std::make_shared<BusPeer>(connection, std::move(owner));
        if (connection->isOpen()) return nullptr;
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
    if (known != nullptr && known->peer->isAlive()) {
        const auto& owner = static_cast<const BusPeer&>(*known->peer);
        if (owner.owner == peer->owner && owner.connection == peer->connection) {
            return {known, known->peer};
        }
    }
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

RegisteredService findOnBus(Bus bus, const std::string& name) {
    if (name == kAidlPowerStats) return dbus::findAidl(bus);
    if (name == kHidlPowerStats) return dbus::findHidl(bus);
    return {};
}

std::string findBusTrouble(Bus bus) {
    dbus::UniqueBus opened;
    int result = dbus::openBus(bus, &opened);
    const char* unique = nullptr;
    if (result >= 0) result = sd_bus_get_unique_name(opened.get(), &unique);
    return result < 0 ? dbus::describeTrouble(bus, result) : "";
}

std::vector<std::string> listBusNames(Bus bus) {
    dbus::UniqueBus opened;
    char** names = nullptr;
    if (dbus::openBus(bus, &opened) < 0 || sd_bus_list_names(opened.get(), &names, nullptr) < 0) {
        return {};
    }
    std::vector<std::string> list;
    for (char** name = names; *name != nullptr; ++name) {
        if (**name != ':') list.emplace_back(*name);
        std::free(*name);
    }
    std::free(names);
    return list;
}

}  // namespace host
