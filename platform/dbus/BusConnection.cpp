// SPDX-License-Identifier: Apache-2.0

#include "BusConnection.h"

#include <android/log.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <new>
#include <system_error>
#include <utility>

#include "BusNames.h"
#include "NeverDestroyed.h"
#include "Register.h"

namespace host {
namespace dbus {
namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;

std::atomic<microseconds> gTimeLimit{std::chrono::seconds(25)};
/// Of all calls and of new connections.
std::atomic<steady_clock::time_point> gDeadline{steady_clock::time_point::max()};
constexpr auto kOpeningLimit = std::chrono::seconds(5);

constexpr char kBusPath[] = "/org/freedesktop/DBus";
constexpr char kDeathRule[] =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged'";

/// What did not answer first.
struct Unanswered {
    std::mutex mutex;
    std::string text;
};

void noteUnanswered(const std::string& whom, const char* request) {
    auto& [mutex, text] = neverDestroyed<Unanswered>();
    const std::lock_guard<std::mutex> lock(mutex);
    if (text.empty()) text = whom + " did not answer " + request + " in time";
}

/// Translates an error by its name. A peer killed during a call and our own time limit give the
/// same name; only the time distinguishes them.
Failure failureOf(const sd_bus_error& error, bool late) {
    static constexpr struct {
        const char* name;
        int32_t transactionError;
    } kErrors[] = {
        {SD_BUS_ERROR_SERVICE_UNKNOWN, android::DEAD_OBJECT},
        {SD_BUS_ERROR_NAME_HAS_NO_OWNER, android::DEAD_OBJECT},
        {SD_BUS_ERROR_NO_REPLY, android::DEAD_OBJECT},
        {SD_BUS_ERROR_TIMEOUT, android::TIMED_OUT},
        {SD_BUS_ERROR_ACCESS_DENIED, android::PERMISSION_DENIED},
        {SD_BUS_ERROR_UNKNOWN_METHOD, android::UNKNOWN_TRANSACTION},
        {SD_BUS_ERROR_INVALID_ARGS, android::BAD_VALUE},
    };
    const bool hasText = error.message != nullptr && *error.message != '\0';
    const std::string text =
        safeText(error.name + (hasText ? std::string(": ") + error.message : ""));
    for (const auto& entry : kErrors) {
        if (sd_bus_error_has_name(&error, entry.name) == 0) continue;
        const bool timedOut = late && entry.transactionError == android::DEAD_OBJECT;
        return Failure{timedOut ? android::TIMED_OUT : entry.transactionError, text};
    }
    return Failure{android::FAILED_TRANSACTION, text};
}

bool isFrom(sd_bus_message* message, std::string_view name) {
    const char* sender = sd_bus_message_get_sender(message);
    return sender != nullptr && name == sender;
}

/// The open connections, by Bus.
struct Connections {
    std::mutex mutex;
    std::shared_ptr<BusConnection> of[2];
};

/// The connections of one thread, which no other thread gets.
struct OwnConnections : Connections {
    ~OwnConnections() {
        for (const auto& connection : of) {
            if (connection != nullptr) connection->disconnect();
        }
    }
    bool areUsed = false;
};

thread_local OwnConnections gOwnConnections;

std::string describe(Bus bus) {
    return bus == Bus::kSession ? "the session bus" : "the system bus";
}

}  // namespace

std::string safeText(std::string_view text) {
    constexpr size_t kMostBytes = 300;
    // Without the last of each. In UTF-8, the order of the bytes is that of the characters.
    static constexpr std::string_view kUnfit[][2] = {{{"\0", 1}, " "},
                                                     {"\x7f", "\u00a0"},
                                                     {"\u200b", "\u2010"},
                                                     {"\u2028", "\u202f"},
                                                     {"\u2060", "\u206a"}};
    std::string safe;
    while (!text.empty()) {
        size_t size = 1;
        while (size < text.size() && (text[size] & 0xc0) == 0x80) ++size;
        std::string character(text.substr(0, size));
        text.remove_prefix(size);
        const bool isUnfit = std::any_of(
            std::begin(kUnfit), std::end(kUnfit),
            [&](const auto& range) { return character >= range[0] && character < range[1]; });
        if (isUnfit) {
            for (const char byte : std::exchange(character, "")) {
                char hex[5];
                std::snprintf(hex, sizeof(hex), "\\x%02X", static_cast<unsigned char>(byte));
                character += hex;
            }
        }
        if (safe.size() + character.size() > kMostBytes) break;
        safe += character;
    }
    return safe;
}

std::string describeTrouble(Bus bus, int result) {
    return describe(bus) + " cannot be reached: " + std::generic_category().message(-result) +
           (bus == Bus::kSession
                ? " (is DBUS_SESSION_BUS_ADDRESS set? dbus-run-session starts a bus)"
                : " (is dbus-daemon running?)");
}

int openBus(Bus bus, UniqueBus* opened) {
    // Look-ups come one after another, and ask both buses: one that is silent costs time once.
    static std::atomic<steady_clock::time_point> silentUntil[2];
    auto& isSilentUntil = silentUntil[static_cast<int>(bus)];
    const auto start = steady_clock::now();
    if (start < isSilentUntil.load()) return -ETIMEDOUT;
    sd_bus* made = nullptr;
    int result = bus == Bus::kSession ? sd_bus_open_user(&made) : sd_bus_open_system(&made);
    opened->reset(made);
    const auto until = std::min(start + kOpeningLimit, gDeadline.load());
    while (result >= 0 && sd_bus_is_ready(made) <= 0) {
        const auto left = std::chrono::ceil<microseconds>(until - steady_clock::now()).count();
        if (left <= 0) {
            isSilentUntil = steady_clock::now() + kOpeningLimit + std::chrono::seconds(1);
            noteUnanswered(describe(bus), "a new connection");
            return -ETIMEDOUT;
        }
        result = sd_bus_process(made, nullptr);
        if (result == 0) sd_bus_wait(made, static_cast<uint64_t>(left));
    }
    return result;
}

bool awaitWork(sd_bus* bus, int descriptor, bool onlySends) {
    uint64_t untilUs = UINT64_MAX;
    if (!onlySends) sd_bus_get_timeout(bus, &untilUs);
    int timeoutMs = -1;
    if (untilUs != UINT64_MAX) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            std::chrono::microseconds(untilUs) - steady_clock::now().time_since_epoch());
        timeoutMs = std::max(static_cast<int>(left.count()), 0);
    }
    const int events = onlySends ? POLLOUT : sd_bus_get_events(bus);
    pollfd fds[] = {{descriptor, POLLIN, 0}, {sd_bus_get_fd(bus), static_cast<int16_t>(events), 0}};
    poll(fds, 2, timeoutMs);
    return fds[0].revents != 0;
}

/// A call in progress. It belongs to the thread that waits for it.
struct BusConnection::Call {
    BusConnection* connection;
    const std::string& owner;
    const char* interface;
    const char* method;
    const std::string& replySignature;
    const Write& write;
    const Read& read;
    steady_clock::time_point deadline = {};
    std::promise<std::optional<Failure>> done = {};

    /// Reads the reply.
    /// @return the failure, if the reply is an error or cannot be used.
    std::optional<Failure> take(sd_bus_message* reply) const try {
        if (const sd_bus_error* error = sd_bus_message_get_error(reply)) {
            Failure failure = failureOf(*error, steady_clock::now() >= deadline);
            if (failure.error == android::TIMED_OUT) {
                const std::string bus = describe(connection->mKind);
                noteUnanswered(
                    owner == kBusName ? bus : "the service " + (interface + (" on " + bus)),
                    method);
            }
            return failure;
        }
        const char* signature = sd_bus_message_get_signature(reply, 1);
        if (signature == nullptr || signature != replySignature) {
            return misfit("its signature is \"" + std::string(signature ? signature : "") +
                          "\", not \"" + replySignature + "\"");
        }
        Reader reader(reply);
        if (read(reader) < 0) return misfit(reader.error);
        return std::nullopt;
    } catch (const std::bad_alloc&) {
        return Failure{android::NO_MEMORY, "no memory"};  // short, because it must not allocate
    }

    Failure misfit(const std::string& why) const {
        return Failure{android::FAILED_TRANSACTION,
                       std::string("the reply to ") + method + " cannot be used: " + why};
    }
};

std::shared_ptr<BusConnection> BusConnection::to(Bus bus) {
    Connections& connections =
        gOwnConnections.areUsed ? gOwnConnections : neverDestroyed<Connections>();
    std::lock_guard<std::mutex> lock(connections.mutex);
    auto& current = connections.of[static_cast<int>(bus)];
    if (current != nullptr && current->isOpen()) return current;
    current.reset();
    UniqueBus opened;
    if (const int result = openBus(bus, &opened); result < 0) {
        __android_log_print(ANDROID_LOG_DEBUG, kLogTag, "%s: %s", describe(bus).c_str(),
                            std::generic_category().message(-result).c_str());
        return nullptr;
    }
    auto connection = std::make_shared<BusConnection>(bus, std::move(opened));
    if (connection->start()) current = std::move(connection);
    return current;
}

bool BusConnection::start() {
    const auto closeIfRefused = [](sd_bus_message* reply, void* bus, sd_bus_error*) {
        const bool isRefused = sd_bus_message_is_method_error(reply, nullptr) > 0;
        if (isRefused && isFrom(reply, kBusName)) sd_bus_close(static_cast<sd_bus*>(bus));
        return 1;
    };
    mWakeUp = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    // The bus handles messages in order, so every answer about a name comes with the match in
    // place.
    return mWakeUp >= 0 && sd_bus_add_filter(mBus.get(), nullptr, heard, this) >= 0 &&
           sd_bus_call_method_async(mBus.get(), nullptr, kBusName, kBusPath, kBusName, "AddMatch",
                                    closeIfRefused, mBus.get(), "s", kDeathRule) >= 0 &&
           startThread([self = shared_from_this()] { self->run(); });
}

BusConnection::~BusConnection() {
    if (mWakeUp >= 0) close(mWakeUp);
}

bool BusConnection::isOpen() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mWakeUp >= 0;
}

void BusConnection::disconnect() {
    post([this] { sd_bus_close(mBus.get()); });
}

std::shared_ptr<BusPeer> BusConnection::findOwner(const std::string& name) {
    std::shared_ptr<BusPeer> peer;
    const auto failed = transact(
        kBusName, kBusName, "GetNameOwner", "s", [&](Writer& write) { return write(name); },
        [&](Reader& read) {
            std::string owner;
            if (const int result = read(owner); result < 0) return result;
            // A death from now on is reported after this reply, so this thread reads of it later.
            std::lock_guard<std::mutex> lock(mMutex);
            auto& known = mPeers[owner];
            peer = known.lock();
            if (peer == nullptr) {
                known = peer = std::make_shared<BusPeer>(shared_from_this(), std::move(owner));
            }
            return 0;
        });
    if (failed) {
        __android_log_print(ANDROID_LOG_DEBUG, kLogTag, "%s: %s", name.c_str(),
                            failed->message.c_str());
    }
    return peer;
}

std::optional<Failure> BusConnection::transact(const std::string& owner, const char* interface,
                                               const char* method,
                                               const std::string& replySignature,
                                               const Write& write, const Read& read) {
    Call call{this, owner, interface, method, replySignature, write, read};
    auto done = call.done.get_future();
    if (!post([&call] { call.connection->begin(&call); })) return Failure{android::DEAD_OBJECT};
    return done.get();
}

/// Runs a job on the connection's thread.
/// @return false when the connection is lost or another process's; then the job does not run.
bool BusConnection::post(std::function<void()> job) {
    if (isForked()) return false;
    std::lock_guard<std::mutex> lock(mMutex);
    if (mWakeUp < 0) return false;
    mJobs.push_back(std::move(job));
    eventfd_write(mWakeUp, 1);
    return true;
}

void BusConnection::run() {
    // Jobs come before each message, so that a flood of messages does not hold them up.
    while (runJobs()) {
        const int result = sd_bus_process(mBus.get(), nullptr);
        if (result < 0 || sd_bus_is_open(mBus.get()) <= 0) {
            lose();
        } else if (result == 0 && awaitWork(mBus.get(), mWakeUp)) {
            eventfd_t count = 0;
            eventfd_read(mWakeUp, &count);
        }
    }
}

/// @return false when the connection is lost and no job can come any more.
bool BusConnection::runJobs() {
    std::vector<std::function<void()>> jobs;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        jobs.swap(mJobs);
    }
    for (const auto& job : jobs) job();
    return mBus != nullptr;
}

/// Marks all services of the lost connection as dead, and ends its calls.
void BusConnection::lose() {
    {
        // The peers die before any thread can see the loss.
        std::lock_guard<std::mutex> lock(mMutex);
        for (const auto& entry : mPeers) {
            if (const auto peer = entry.second.lock()) peer->die();
        }
        close(std::exchange(mWakeUp, -1));
    }
    runJobs();  // the last ones
    for (Call* call : std::exchange(mCalls, {})) finish(call, Failure{android::DEAD_OBJECT});
    mBus.reset();
}

/// Sends a call. A call that is sent again keeps its deadline.
void BusConnection::begin(Call* call) try {
    const auto now = steady_clock::now();
    if (mCalls.insert(call).second) {
        call->deadline = std::min(now + gTimeLimit.load(), gDeadline.load());
    }
    const auto left = std::chrono::duration_cast<microseconds>(call->deadline - now).count();
    const auto limitUs = static_cast<uint64_t>(std::max<int64_t>(left, 1));
    sd_bus_message* made = nullptr;
    int result = sd_bus_message_new_method_call(mBus.get(), &made, call->owner.c_str(),
                                                call->owner == kBusName ? kBusPath : kObjectPath,
                                                call->interface, call->method);
    const UniqueMessage request(made);
    Writer writer(request.get());
    if (result >= 0) result = call->write(writer);
    if (result >= 0) {
        result = sd_bus_call_async(mBus.get(), nullptr, request.get(), replied, call, limitUs);
    }
    if (result == -EINVAL) {
        finish(call, Failure{android::FAILED_TRANSACTION, "the request holds a text with a NUL"});
    } else if (result < 0) {
        // Running out of buffers counts as a loss too: such a connection does not recover.
        sd_bus_close(mBus.get());
    }
} catch (const std::bad_alloc&) {
    finish(call, Failure{android::NO_MEMORY, "no memory"});
}

void BusConnection::finish(Call* call, std::optional<Failure> failure) {
    mCalls.erase(call);
    // Move it first: the waiting thread may destroy the original at once.
    std::promise<std::optional<Failure>> done = std::move(call->done);
    done.set_value(std::move(failure));
}

/// Marks a peer dead whose end the bus reports. Drops all other signals and calls, without an
/// answer.
int BusConnection::heard(sd_bus_message* message, void* userData, sd_bus_error* /*error*/) {
    const char *name, *before, *after;
    if (isFrom(message, kBusName) &&
        sd_bus_message_is_signal(message, kBusName, "NameOwnerChanged") > 0 &&
        sd_bus_message_read(message, "sss", &name, &before, &after) > 0 && *after == '\0') {
        auto* connection = static_cast<BusConnection*>(userData);
        std::lock_guard<std::mutex> lock(connection->mMutex);
        if (const auto found = connection->mPeers.find(name); found != connection->mPeers.end()) {
            if (const auto peer = found->second.lock()) peer->die();
            connection->mPeers.erase(found);
        }
    }
    return 1;
}

int BusConnection::replied(sd_bus_message* reply, void* userData, sd_bus_error* /*error*/) {
    auto* call = static_cast<Call*>(userData);
    BusConnection* const connection = call->connection;
    // If the connection is lost, lose() ends the call after it has marked the peers dead.
    if (sd_bus_is_open(connection->mBus.get()) <= 0) return 1;
    if (isFrom(reply, kBusName) || isFrom(reply, call->owner)) {
        connection->finish(call, call->take(reply));
    } else {
        // sd-bus takes a reply by its number alone, and a session bus lets strangers send one.
        // Asking again is harmless, because every call only reads.
        connection->begin(call);
    }
    return 1;
}

}  // namespace dbus

void useOwnBusConnections() {
    dbus::gOwnConnections.areUsed = true;
}

void setBusTimeLimit(double seconds, double allSeconds) {
    const auto limit = [](double of) {
        return std::chrono::microseconds(std::llround(std::clamp(of, 0.0, 1e9) * 1e6));
    };
    dbus::gTimeLimit = limit(seconds);
    dbus::gDeadline = dbus::steady_clock::now() + limit(allSeconds);
}

std::string takeUnanswered() {
    auto& [mutex, text] = neverDestroyed<dbus::Unanswered>();
    const std::lock_guard<std::mutex> lock(mutex);
    return std::exchange(text, "");
}

void noticeDeathsOnBuses() {
    auto& connections = neverDestroyed<dbus::Connections>();
    for (const Bus bus : {Bus::kSession, Bus::kSystem}) {
        std::shared_ptr<dbus::BusConnection> connection;
        {
            std::lock_guard<std::mutex> lock(connections.mutex);
            connection = connections.of[static_cast<int>(bus)];
        }
        if (connection == nullptr) continue;
        std::string id;  // follows all signals of the bus so far
        connection->call(dbus::kBusName, dbus::kBusName, "GetId", std::tie(id));
    }
}

}  // namespace host
