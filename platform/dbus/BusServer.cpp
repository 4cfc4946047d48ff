// SPDX-License-Identifier: Apache-2.0

#include <host/BusServer.h>
#include <poll.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <system_error>
#include <tuple>
#include <utility>

#include "BusConnection.h"
#include "BusNames.h"
#include "Records.h"

namespace host {
namespace dbus {
namespace {

using ::android::hardware::Return;
using ::ndk::ScopedAStatus;

thread_local sd_bus_message* tServed = nullptr;

/// Marks a call as the one that this thread serves.
class Serving {
  public:
    explicit Serving(sd_bus_message* call) { tServed = call; }
    ~Serving() { tServed = nullptr; }
    Serving(const Serving&) = delete;
    Serving& operator=(const Serving&) = delete;
};

/// Sends an answer that consists of these members.
template <typename... Members>
int reply(sd_bus_message* call, const Members&... member) {
    sd_bus_message* made = nullptr;
    int result = sd_bus_message_new_method_return(call, &made);
    const UniqueMessage answer(made);
    if (result < 0) return result;
    if (Writer(answer.get())(member...) < 0) {
        return sd_bus_reply_method_errorf(
            call, SD_BUS_ERROR_FAILED,
            "the answer of %s holds a text that a bus cannot carry (not UTF-8, or with a NUL)",
            sd_bus_message_get_member(call));
    }
    return sd_bus_send(nullptr, answer.get(), nullptr);
}

int replyError(sd_bus_message* call, bool invalid, const std::string& text) {
    return sd_bus_reply_method_errorf(
        call, invalid ? SD_BUS_ERROR_INVALID_ARGS : SD_BUS_ERROR_FAILED, "%s", text.c_str());
}

/// Serves one method of an AIDL service; `Ids` is its list of ids, or nothing.
template <auto kMethod, typename Records, typename... Ids>
int serveAidl(sd_bus_message* call, void* userData, sd_bus_error* /*error*/) {
    const Serving serving(call);
    std::tuple<Ids...> ids;
    Reader reader(call);
    const int read = std::apply([&](auto&... list) { return reader(list...); }, ids);
    if (read < 0) return replyError(call, true, reader.error);
    Records records;
    auto* service = static_cast<stats_aidl::IPowerStats*>(userData);
    const ScopedAStatus status = std::apply(
        [&](const auto&... list) { return (service->*kMethod)(list..., &records); }, ids);
    if (status.isOk()) return reply(call, records);
    const bool invalid =
        status.get() != nullptr && status.getExceptionCode() == EX_ILLEGAL_ARGUMENT;
    return replyError(call, invalid,
                      status.get() != nullptr ? status.getDescription() : "no status");
}

/// Serves one method of a HIDL service; `Ids` is its list of ids, or nothing.
template <auto kMethod, typename Record, typename... Ids>
int serveHidl(sd_bus_message* call, void* userData, sd_bus_error* /*error*/) {
    const Serving serving(call);
    std::tuple<Ids...> ids;
    Reader reader(call);
    const int read = std::apply([&](auto&... list) { return reader(list...); }, ids);
    if (read < 0) return replyError(call, true, reader.error);
    auto* service = static_cast<stats_V1_0::IPowerStats*>(userData);
    int sent = -ENOMSG;
    const auto answer = [&](const hidl_vec<Record>& records, stats_V1_0::Status status) {
        if (sent == -ENOMSG) sent = reply(call, records, status);
    };
    const Return<void> result =
        std::apply([&](const auto&... list) { return (service->*kMethod)(list..., answer); }, ids);
    if (result.isOk() && sent != -ENOMSG) return sent;
    return replyError(call, false,
                      result.isOk() ? "the service gave no answer" : result.description());
}

using AidlIds = std::vector<int32_t>;
using HidlIds = hidl_vec<uint32_t>;

template <auto kMethod, typename Record, typename... Ids>
constexpr auto kAidl = serveAidl<kMethod, std::vector<Record>, Ids...>;

// Everybody may call: who may read what is for the bus's policy and the services themselves to say.
const sd_bus_vtable kAidlMethods[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("getEnergyMeterInfo", "", "a(iss)",
                  (kAidl<&stats_aidl::IPowerStats::getEnergyMeterInfo, stats_aidl::Channel>),
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(
        "readEnergyMeter", "ai", "a(ixxx)",
        (kAidl<&stats_aidl::IPowerStats::readEnergyMeter, stats_aidl::EnergyMeasurement, AidlIds>),
        SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("getPowerEntityInfo", "", "a(isa(is))",
                  (kAidl<&stats_aidl::IPowerStats::getPowerEntityInfo, stats_aidl::PowerEntity>),
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("getStateResidency", "ai", "a(ia(ixxx))",
                  (kAidl<&stats_aidl::IPowerStats::getStateResidency,
                         stats_aidl::StateResidencyResult, AidlIds>),
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable kHidlMethods[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("getRailInfo", "", "a(ussu)u",
                  (serveHidl<&stats_V1_0::IPowerStats::getRailInfo, stats_V1_0::RailInfo>),
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(
        "getEnergyData", "au", "a(utt)u",
        (serveHidl<&stats_V1_0::IPowerStats::getEnergyData, stats_V1_0::EnergyData, HidlIds>),
        SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD(
        "getPowerEntityInfo", "", "a(usu)u",
        (serveHidl<&stats_V1_0::IPowerStats::getPowerEntityInfo, stats_V1_0::PowerEntityInfo>),
        SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("getPowerEntityStateInfo", "au", "a(ua(us))u",
                  (serveHidl<&stats_V1_0::IPowerStats::getPowerEntityStateInfo,
                             stats_V1_0::PowerEntityStateSpace, HidlIds>),
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("getPowerEntityStateResidencyData", "au", "a(ua(uttt))u",
                  (serveHidl<&stats_V1_0::IPowerStats::getPowerEntityStateResidencyData,
                             stats_V1_0::PowerEntityStateResidencyResult, HidlIds>),
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

std::string errnoText(int result) {
    return std::generic_category().message(-result);
}

}  // namespace
}  // namespace dbus

std::optional<uid_t> callingUser() {
    if (dbus::tServed == nullptr) return std::nullopt;
    sd_bus_creds* made = nullptr;
    if (sd_bus_query_sender_creds(dbus::tServed, SD_BUS_CREDS_EUID, &made) < 0) return std::nullopt;
    const std::unique_ptr<sd_bus_creds, sd_bus_creds* (*)(sd_bus_creds*)> creds(made,
                                                                                sd_bus_creds_unref);
    uid_t user;
    if (sd_bus_creds_get_euid(creds.get(), &user) < 0) return std::nullopt;
    return user;
}

struct BusServer::Impl {
    dbus::UniqueBus bus;
    std::shared_ptr<dbus::stats_aidl::IPowerStats> aidl;
    ::android::sp<dbus::stats_V1_0::IPowerStats> hidl;

    bool add(const char* name, const sd_bus_vtable* methods, void* service, std::string* error) {
        int result =
            sd_bus_add_object_vtable(bus.get(), nullptr, dbus::kObjectPath, name, methods, service);
        // The object first: whoever sees the name may call at once.
        if (result >= 0) result = sd_bus_request_name(bus.get(), name, 0);
        if (result >= 0) return true;
        const bool taken = result == -EEXIST || result == -EALREADY;
        const bool denied = result == -EACCES || result == -EPERM;
        *error = std::string(name) + ": " +
                 (taken    ? "the name is taken (end the other service first)"
                  : denied ? "the bus does not let this user own the name (run as root, or see the "
                             "policy in packaging/)"
                           : dbus::errnoText(result));
        return false;
    }
};

BusServer::BusServer(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}

BusServer::~BusServer() = default;

std::unique_ptr<BusServer> BusServer::connect(Bus bus, std::string* error) {
    sd_bus* opened = nullptr;
    int result = bus == Bus::kSession ? sd_bus_open_user(&opened) : sd_bus_open_system(&opened);
    auto impl = std::make_unique<Impl>();
    impl->bus.reset(opened);
    const char* unique = nullptr;
    if (result >= 0) result = sd_bus_get_unique_name(opened, &unique);
    if (result < 0) {
        const bool session = bus == Bus::kSession;
        *error = std::string("the ") + (session ? "session" : "system") +
                 " bus cannot be reached: " + dbus::errnoText(result) +
                 (session ? " (is DBUS_SESSION_BUS_ADDRESS set? dbus-run-session starts a bus)"
                          : " (is dbus-daemon running?)");
        return nullptr;
    }
    return std::unique_ptr<BusServer>(new BusServer(std::move(impl)));
}

bool BusServer::add(std::shared_ptr<dbus::stats_aidl::IPowerStats> service, std::string* error) {
    mImpl->aidl = std::move(service);
    return mImpl->add(dbus::kAidlBusName, dbus::kAidlMethods, mImpl->aidl.get(), error);
}

bool BusServer::add(const ::android::sp<dbus::stats_V1_0::IPowerStats>& service,
                    std::string* error) {
    mImpl->hidl = service;
    return mImpl->add(dbus::kHidlBusName, dbus::kHidlMethods, mImpl->hidl.get(), error);
}

bool BusServer::run(int stopFd, std::string* error) {
    sd_bus* const bus = mImpl->bus.get();
    while (true) {
        int result;
        while ((result = sd_bus_process(bus, nullptr)) > 0) {
        }
        if (result < 0 || sd_bus_is_open(bus) <= 0) {
            *error = "the bus went away";
            return false;
        }
        pollfd fds[2] = {{stopFd, POLLIN, 0},
                         {sd_bus_get_fd(bus), static_cast<int16_t>(sd_bus_get_events(bus)), 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            *error = dbus::errnoText(-errno);
            return false;
        }
        if (fds[0].revents != 0) return true;
    }
}

}  // namespace host
