// SPDX-License-Identifier: Apache-2.0

#include "BusConnection.h"

#include <host/BusControl.h>
#include <utils/Errors.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

namespace host {
namespace {

std::atomic<uint64_t> gTimeLimitUs{25'000'000};

}  // namespace

void setBusTimeLimit(double seconds) {
    gTimeLimitUs = static_cast<uint64_t>(seconds * 1e6);
}

namespace dbus {
namespace {

/// Holds an error that a call may fill in.
struct BusError {
    sd_bus_error error = {};
    ~BusError() { sd_bus_error_free(&error); }
};

Failure failure(int32_t transactionError, std::string message) {
    Failure failure;
    failure.transactionError = transactionError;
    failure.message = std::move(message);
    return failure;
}

Failure misfit(const char* method, const std::string& why) {
    return failure(android::FAILED_TRANSACTION,
                   std::string("the reply to ") + method + " cannot be used: " + why);
}

}  // namespace

UniqueBus connectToBus() {
    sd_bus* bus = nullptr;
    const int result = std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr
                           ? sd_bus_open_user(&bus)
                           : sd_bus_open_system(&bus);
    return UniqueBus(result < 0 ? nullptr : bus);
}

bool isStillOpen(sd_bus* bus) {
    // A connection that the other side closed says so only when it is read from.
    while (sd_bus_process(bus, nullptr) > 0) {
    }
    return sd_bus_is_open(bus) > 0;
}

Failure failureOf(const sd_bus_error& error, int result) {
    static constexpr struct {
        const char* name;
        int32_t transactionError;
    } kErrors[] = {
        {SD_BUS_ERROR_SERVICE_UNKNOWN, android::DEAD_OBJECT},
        {SD_BUS_ERROR_NAME_HAS_NO_OWNER, android::DEAD_OBJECT},
        {SD_BUS_ERROR_NO_REPLY, android::DEAD_OBJECT},
        {SD_BUS_ERROR_DISCONNECTED, android::DEAD_OBJECT},
        {SD_BUS_ERROR_NO_SERVER, android::DEAD_OBJECT},
        {SD_BUS_ERROR_TIMEOUT, android::TIMED_OUT},
        {SD_BUS_ERROR_ACCESS_DENIED, android::PERMISSION_DENIED},
        {SD_BUS_ERROR_UNKNOWN_METHOD, android::UNKNOWN_TRANSACTION},
    };
    const std::string text =
        error.message != nullptr ? error.message : std::generic_category().message(-result);
    for (const auto& entry : kErrors) {
        if (sd_bus_error_has_name(&error, entry.name) != 0) {
            return failure(entry.transactionError, text);
        }
    }
    const bool busGone = result == -ECONNRESET || result == -ENOTCONN || result == -EPIPE;
    return failure(busGone ? android::DEAD_OBJECT : android::FAILED_TRANSACTION, text);
}

std::shared_ptr<BusConnection> BusConnection::current() {
    static std::mutex mutex;
    // Never destroyed, as nothing is that the platform's threads may still use at exit.
    static auto* const connection = new std::shared_ptr<BusConnection>;
    std::lock_guard<std::mutex> lock(mutex);
    if (*connection == nullptr || !(*connection)->isOpen()) {
        connection->reset();
        UniqueBus bus = connectToBus();
        sd_id128_t busId;
        if (bus != nullptr && sd_bus_get_bus_id(bus.get(), &busId) >= 0) {
            *connection = std::make_shared<BusConnection>(std::move(bus), busId);
        }
    }
    return *connection;
}

bool BusConnection::isOpen() {
    std::lock_guard<std::mutex> lock(mMutex);
    return isStillOpen(mBus.get());
}

std::string BusConnection::ownerOf(const std::string& name) {
    static const BusObject kBus = {"org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus"};
    std::string owner;
    auto failed = call(
        kBus, "GetNameOwner", "s", [&](Writer& writer) { return writer(name); },
        [&](Reader& reader) { return reader(owner); });
    return failed ? "" : owner;
}

std::optional<Failure> BusConnection::call(const BusObject& object, const char* method,
                                           const std::string& replySignature, const Write& write,
                                           const Read& read) {
    std::lock_guard<std::mutex> lock(mMutex);
    sd_bus_message* made = nullptr;
    int result =
        sd_bus_message_new_method_call(mBus.get(), &made, object.owner.c_str(), object.path.c_str(),
                                       object.interface.c_str(), method);
    const UniqueMessage request(made);
    // A service that is not running is not there: it is not for a look-up to start it.
    if (result >= 0) result = sd_bus_message_set_auto_start(request.get(), 0);
    Writer writer(request.get());
    if (result >= 0) result = write(writer);
    BusError error;
    if (result < 0) return failureOf(error.error, result);

    sd_bus_message* received = nullptr;
    result = sd_bus_call(mBus.get(), request.get(), gTimeLimitUs, &error.error, &received);
    const UniqueMessage reply(received);
    if (result < 0) return failureOf(error.error, result);
    const char* signature = sd_bus_message_get_signature(reply.get(), 1);
    if (signature == nullptr || signature != replySignature) {
        return misfit(method, "its signature is \"" +
                                  std::string(signature != nullptr ? signature : "") +
                                  "\", not \"" + replySignature + "\"");
    }
    Reader reader(reply.get());
    if (read(reader) < 0) return misfit(method, reader.error);
    return std::nullopt;
}

}  // namespace dbus
}  // namespace host
