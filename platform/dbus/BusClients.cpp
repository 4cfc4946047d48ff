// SPDX-License-Identifier: Apache-2.0
//
// Finds services of other processes for the register: objects that carry each call over the bus. A
// client's proxy uses them like a service of this process.

#include <aidl/android/hardware/power/stats/BnPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Binder.h"
#include "BusConnection.h"
#include "BusNames.h"
#include "Records.h"
#include "Register.h"

namespace host {
namespace dbus {
namespace {

using ::android::sp;
using ::android::hardware::Return;
using ::android::hardware::Void;
using ::ndk::ScopedAStatus;

class AidlBusClient : public stats_aidl::BnPowerStats {
  public:
    explicit AidlBusClient(std::shared_ptr<BusPeer> peer) : mPeer(std::move(peer)) {}

    ScopedAStatus getPowerEntityInfo(std::vector<stats_aidl::PowerEntity>* _aidl_return) override {
        return call("getPowerEntityInfo", _aidl_return);
    }
    ScopedAStatus getStateResidency(
        const std::vector<int32_t>& in_powerEntityIds,
        std::vector<stats_aidl::StateResidencyResult>* _aidl_return) override {
        return call("getStateResidency", _aidl_return, in_powerEntityIds);
    }
    ScopedAStatus getEnergyConsumerInfo(std::vector<stats_aidl::EnergyConsumer>*) override {
        return ScopedAStatus::fromStatus(STATUS_UNKNOWN_TRANSACTION);
    }
    ScopedAStatus getEnergyConsumed(const std::vector<int32_t>&,
                                    std::vector<stats_aidl::EnergyConsumerResult>*) override {
        return ScopedAStatus::fromStatus(STATUS_UNKNOWN_TRANSACTION);
    }
    ScopedAStatus getEnergyMeterInfo(std::vector<stats_aidl::Channel>* _aidl_return) override {
        return call("getEnergyMeterInfo", _aidl_return);
    }
    ScopedAStatus readEnergyMeter(
        const std::vector<int32_t>& in_channelIds,
        std::vector<stats_aidl::EnergyMeasurement>* _aidl_return) override {
        return call("readEnergyMeter", _aidl_return, in_channelIds);
    }

  protected:
    ::ndk::SpAIBinder createBinder() override {
        return ::ndk::SpAIBinder(
            newBinder(aidlPowerStatsClass(), static_cast<::ndk::ICInterface*>(this), mPeer));
    }

  private:
    template <typename Records, typename... Ids>
    ScopedAStatus call(const char* method, Records* records, const Ids&... ids) {
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

    const std::shared_ptr<BusPeer> mPeer;
};

class HidlBusClient : public stats_V1_0::IPowerStats {
  public:
    explicit HidlBusClient(std::shared_ptr<BusPeer> peer) : mPeer(std::move(peer)) {}

    Return<void> getRailInfo(getRailInfo_cb _hidl_cb) override {
        return call<stats_V1_0::RailInfo>("getRailInfo", _hidl_cb);
    }
    Return<void> getEnergyData(const hidl_vec<uint32_t>& railIndices,
                               getEnergyData_cb _hidl_cb) override {
        return call<stats_V1_0::EnergyData>("getEnergyData", _hidl_cb, railIndices);
    }
    Return<void> streamEnergyData(uint32_t, uint32_t, streamEnergyData_cb) override {
        return ::android::hardware::Status::fromStatusT(::android::UNKNOWN_TRANSACTION);
    }
    Return<void> getPowerEntityInfo(getPowerEntityInfo_cb _hidl_cb) override {
        return call<stats_V1_0::PowerEntityInfo>("getPowerEntityInfo", _hidl_cb);
    }
    Return<void> getPowerEntityStateInfo(const hidl_vec<uint32_t>& powerEntityIds,
                                         getPowerEntityStateInfo_cb _hidl_cb) override {
        return call<stats_V1_0::PowerEntityStateSpace>("getPowerEntityStateInfo", _hidl_cb,
                                                       powerEntityIds);
    }
    Return<void> getPowerEntityStateResidencyData(
        const hidl_vec<uint32_t>& powerEntityIds,
        getPowerEntityStateResidencyData_cb _hidl_cb) override {
        return call<stats_V1_0::PowerEntityStateResidencyResult>("getPowerEntityStateResidencyData",
                                                                 _hidl_cb, powerEntityIds);
    }

  private:
    template <typename Record, typename Callback, typename... Ids>
    Return<void> call(const char* method, const Callback& callback, const Ids&... ids) {
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

std::shared_ptr<void> ownReference(AIBinder* binder) {
    return {binder, [](void* held) { AIBinder_decStrong(static_cast<AIBinder*>(held)); }};
}

RegisteredService findAidl(Bus bus) {
    auto peer = findOwner(bus, kAidlBusName);
    if (peer == nullptr) return {};

    // While a client holds the binder of a living service, look-ups return that binder.
    static std::mutex mutex;
    static auto* const last = new ::ndk::ScopedAIBinder_Weak;
    static auto* const lastPeer = new std::weak_ptr<BusPeer>;
    std::lock_guard<std::mutex> lock(mutex);
    if (auto known = lastPeer->lock(); known != nullptr && known->isAlive() &&
                                       known->owner == peer->owner &&
                                       known->connection == peer->connection) {
        if (AIBinder* binder = AIBinder_Weak_promote(last->get())) {
            return {ownReference(binder), known};
        }
    }
    const auto service = ::ndk::SharedRefBase::make<AidlBusClient>(peer);
    ::ndk::SpAIBinder binder = service->asBinder();
    last->set(AIBinder_Weak_new(binder.get()));
    *lastPeer = peer;
    AIBinder_incStrong(binder.get());
    return {ownReference(binder.get()), peer};
}

RegisteredService findHidl(Bus bus) {
    auto peer = findOwner(bus, kHidlBusName);
    if (peer == nullptr) return {};
    auto held = std::make_shared<sp<stats_V1_0::IPowerStats>>(new HidlBusClient(peer));
    return {std::shared_ptr<void>(held, held->get()), peer};
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
