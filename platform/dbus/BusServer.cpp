// SPDX-License-Identifier: Apache-2.0

#include <host/BusServer.h>
#include <pthread.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <new>
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

/// A list of more ids is refused before it is copied. No machine has so many rails or entities.
constexpr size_t kMostIds = 65'536;
/// While more answers than this wait for the bus, the server reads no call.
constexpr uint64_t kMostQueuedAnswers = 1000;

/// Sends an answer that consists of these members.
template <typename... Members>
int reply(sd_bus_message* call, const Members&... member) {
    sd_bus_message* made = nullptr;
    int result = sd_bus_message_new_method_return(call, &made);
    const UniqueMessage answer(made);
    if (result < 0) return result;
    result = Writer(answer.get())(member...);
    if (result < 0 && result != -EINVAL) return result;
    if (result < 0) {
        return sd_bus_reply_method_errorf(
            call, SD_BUS_ERROR_FAILED,
            "the answer of %s holds a text that a bus cannot carry (not UTF-8, or with a NUL)",
            sd_bus_message_get_member(call));
    }
    return sd_bus_send(nullptr, answer.get(), nullptr);
}

int replyError(sd_bus_message* call, const char* name, const std::string& text) {
    return sd_bus_reply_method_errorf(call, name, "%s", text.c_str());
}

/// Answers one call, whose argument is a list of ids, or nothing. An exception becomes an error
/// reply, because none may cross sd-bus's frames.
/// @param refuse [in] answers a call whose ids cannot be read.
template <typename... Ids, typename Answer, typename Refuse>
int serve(sd_bus_message* call, const Answer& answer, const Refuse& refuse) try {
    // Skip calls that want no reply, so that a flood of them reads no counters.
    if (sd_bus_message_get_expect_reply(call) <= 0) return 1;
    std::tuple<Ids...> ids;
    Reader reader(call, kMostIds);
    return std::apply(reader, ids) < 0 ? refuse(reader.error) : std::apply(answer, ids);
} catch (const std::bad_alloc&) {
    return sd_bus_reply_method_errnof(call, ENOMEM, "no memory is left for the answer");
} catch (const std::exception& error) {
    return replyError(call, SD_BUS_ERROR_FAILED, error.what());
}

/// Serves one method of an AIDL service.
template <auto kMethod, typename Records, typename... Ids>
int serveAidl(sd_bus_message* call, void* userData, sd_bus_error* /*error*/) {
    const auto answer = [&](const Ids&... ids) {
        Records records;
        auto* service = static_cast<stats_aidl::IPowerStats*>(userData);
        const ScopedAStatus status = (service->*kMethod)(ids..., &records);
        if (status.isOk()) return reply(call, records);
        if (status.get() == nullptr) return replyError(call, SD_BUS_ERROR_FAILED, "no status");
        const bool invalid = status.getExceptionCode() == EX_ILLEGAL_ARGUMENT;
        return replyError(call, invalid ? SD_BUS_ERROR_INVALID_ARGS : SD_BUS_ERROR_FAILED,
                          status.getDescription());
    };
    return serve<Ids...>(call, answer, [&](const std::string& error) {
        return replyError(call, SD_BUS_ERROR_INVALID_ARGS, error);
    });
}

/// Serves one method of a HIDL service.
template <auto kMethod, typename Record, typename... Ids>
int serveHidl(sd_bus_message* call, void* userData, sd_bus_error* /*error*/) {
    const auto answer = [&](const Ids&... ids) {
        auto* service = static_cast<stats_V1_0::IPowerStats*>(userData);
        int sent = -ENOMSG;
        const Return<void> result = (service->*kMethod)(
            ids..., [&](const hidl_vec<Record>& records, stats_V1_0::Status status) {
                if (sent == -ENOMSG) sent = reply(call, records, status);
            });
        if (result.isOk() && sent != -ENOMSG) return sent;
        return replyError(call, SD_BUS_ERROR_FAILED,
                          result.isOk() ? "the service gave no answer" : result.description());
    };
    return serve<Ids...>(call, answer, [&](const std::string& /*error*/) {
        // A D-Bus error would be a failed transaction, which ends a client that reads data.
        return reply(call, hidl_vec<Record>(), stats_V1_0::Status::INVALID_INPUT);
    });
}

using AidlIds = std::vector<int32_t>;
using HidlIds = hidl_vec<uint32_t>;

// Everybody may call: the bus's policy and the services decide who may read which data.
template <auto kMethod, typename Record, typename... Ids>
constexpr sd_bus_vtable aidl(const char* name, const char* in, const char* out) {
    return SD_BUS_METHOD(name, in, out, (serveAidl<kMethod, std::vector<Record>, Ids...>),
                         SD_BUS_VTABLE_UNPRIVILEGED);
}

template <auto kMethod, typename Record, typename... Ids>
constexpr sd_bus_vtable hidl(const char* name, const char* in, const char* out) {
    return SD_BUS_METHOD(name, in, out, (serveHidl<kMethod, Record, Ids...>),
                         SD_BUS_VTABLE_UNPRIVILEGED);
}

using Aidl = stats_aidl::IPowerStats;
using Hidl = stats_V1_0::IPowerStats;

const sd_bus_vtable kAidlMethods[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    aidl<&Aidl::getEnergyMeterInfo, stats_aidl::Channel>("getEnergyMeterInfo", "", "a(iss)"),
    aidl<&Aidl::readEnergyMeter, stats_aidl::EnergyMeasurement, AidlIds>("readEnergyMeter", "ai",
                                                                         "a(ixxx)"),
    aidl<&Aidl::getPowerEntityInfo, stats_aidl::PowerEntity>("getPowerEntityInfo", "",
                                                             "a(isa(is))"),
    aidl<&Aidl::getStateResidency, stats_aidl::StateResidencyResult, AidlIds>("getStateResidency",
                                                                              "ai", "a(ia(ixxx))"),
    SD_BUS_VTABLE_END,
};

const sd_bus_vtable kHidlMethods[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    hidl<&Hidl::getRailInfo, stats_V1_0::RailInfo>("getRailInfo", "", "a(ussu)u"),
    hidl<&Hidl::getEnergyData, stats_V1_0::EnergyData, HidlIds>("getEnergyData", "au", "a(utt)u"),
    hidl<&Hidl::getPowerEntityInfo, stats_V1_0::PowerEntityInfo>("getPowerEntityInfo", "",
                                                                 "a(usu)u"),
    hidl<&Hidl::getPowerEntityStateInfo, stats_V1_0::PowerEntityStateSpace, HidlIds>(
        "getPowerEntityStateInfo", "au", "a(ua(us))u"),
    hidl<&Hidl::getPowerEntityStateResidencyData, stats_V1_0::PowerEntityStateResidencyResult,
         HidlIds>("getPowerEntityStateResidencyData", "au", "a(ua(uttt))u"),
    SD_BUS_VTABLE_END,
};

std::string errnoText(int result) {
    return std::generic_category().message(-result);
}

}  // namespace
}  // namespace dbus

struct BusServer::Impl {
    dbus::UniqueBus bus;
    int signals = -1;  ///< readable once a signal ends the server
    std::shared_ptr<dbus::stats_aidl::IPowerStats> aidl;
    ::android::sp<dbus::stats_V1_0::IPowerStats> hidl;

    bool add(const char* name, const sd_bus_vtable* methods, void* service, std::string* error) {
        int result =
            sd_bus_add_object_vtable(bus.get(), nullptr, dbus::kObjectPath, name, methods, service);
        // Add the object first: a client that sees the name may call at once.
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

    ~Impl() {
        if (signals >= 0) close(signals);
    }
};

BusServer::BusServer(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}

BusServer::~BusServer() = default;

std::unique_ptr<BusServer> BusServer::connect(Bus bus, std::string* error) {
    auto impl = std::make_unique<Impl>();
    int result = dbus::openBus(bus, &impl->bus);
    const char* unique = nullptr;
    if (result >= 0) result = sd_bus_get_unique_name(impl->bus.get(), &unique);
    if (result >= 0) {
        sigset_t ends;
        sigemptyset(&ends);
        sigaddset(&ends, SIGTERM);
        sigaddset(&ends, SIGINT);
        pthread_sigmask(SIG_BLOCK, &ends, nullptr);
        impl->signals = signalfd(-1, &ends, SFD_CLOEXEC);
        if (impl->signals < 0) result = -errno;
    }
    if (result < 0) {
        *error = dbus::describeTrouble(bus, result);
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

bool BusServer::run(std::string* error) {
    sd_bus* const bus = mImpl->bus.get();
    int result = 0;
    while (result >= 0 && sd_bus_is_open(bus) > 0) {
        uint64_t queued = 0;
        sd_bus_get_n_queued_write(bus, &queued);
        // A bus that can send a whole answer does so first, and does not read in that step.
        const bool onlySends = queued > dbus::kMostQueuedAnswers;
        // A signal ends the server ahead of all queued messages.
        if (dbus::awaitWork(bus, mImpl->signals, onlySends)) return true;
        result = sd_bus_process(bus, nullptr);
    }
    *error = sd_bus_is_open(bus) > 0 ? dbus::errnoText(result) : "the bus went away";
    return false;
}

}  // namespace host
