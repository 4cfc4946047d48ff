// SPDX-License-Identifier: Apache-2.0
//
// The connection that finds, calls and watches services of other processes.

#pragma once

#include <host/ServiceControl.h>
#include <systemd/sd-bus.h>

#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Peer.h"
#include "Records.h"

namespace host::dbus {

template <auto kRelease>
struct Release {
    template <typename T>
    void operator()(T* object) const {
        kRelease(object);
    }
};
/// Does not flush, because a bus that does not read must not block the caller.
using UniqueBus = std::unique_ptr<sd_bus, Release<sd_bus_close_unref>>;
using UniqueMessage = std::unique_ptr<sd_bus_message, Release<sd_bus_message_unref>>;

/// The bus itself, as a peer and an interface.
inline constexpr const char* kBusName = "org.freedesktop.DBus";

/// Makes a text of the bus or of a service fit for a terminal: escapes characters that control one
/// or the direction of writing, and cuts it at 300 bytes. REQUIRES: it is UTF-8, as sd-bus's texts
/// are
std::string safeText(std::string_view text);

/// One line about a bus that could not be reached, with the remedy.
/// @param result [in] a negative errno.
std::string describeTrouble(Bus bus, int result);

/// Connects to a bus, and waits for its answer as long as setBusTimeLimit() says.
/// @return a negative errno: -ETIMEDOUT when the bus does not answer, and others when there is no
///     such bus, or no descriptor is left.
int openBus(Bus bus, UniqueBus* opened);

/// Waits until a bus has something to process or a descriptor is readable.
/// @param onlySends [in] whether to wait on the bus only until it can send.
/// @return whether the descriptor is readable.
bool awaitWork(sd_bus* bus, int descriptor, bool onlySends = false);

/// A transaction that failed in the transport.
struct Failure {
    android::status_t error;
    std::string message = {};  ///< part of the status's description
};

class BusConnection;

/// The process behind one connection to a bus.
struct BusPeer : Peer {
    BusPeer(std::shared_ptr<BusConnection> connection, std::string owner)
        : connection(std::move(connection)), owner(std::move(owner)) {}

    const std::shared_ptr<BusConnection> connection;
    /// The unique name of the service's connection. A restarted service has another one.
    const std::string owner;
};

/// One connection of this process to a bus, for calls and for deaths, and its thread, the only one
/// that uses the connection. The thread reads all the time, so that no messages pile up between
/// calls. It calls no recipient, so a caller may wait for it.
///
/// A bus carries messages from anybody. The thread believes only the bus itself, and the owner of a
/// called service about that call; it drops all other messages unread.
///
/// A connection that is lost stays lost: its calls fail with dead-object and its peers are dead. So
/// do the calls of a forked child, which has no such thread and leaves the connection alone.
/// Safe to use from any thread.
class BusConnection : public std::enable_shared_from_this<BusConnection> {
  public:
    /// Returns the open connection to a bus, a new one if there is none.
    /// After useOwnBusConnections, no other thread gets it.
    /// @return null when there is no such bus, or no descriptor or thread is left. A later call
    ///     tries again.
    static std::shared_ptr<BusConnection> to(Bus bus);

    BusConnection(Bus kind, UniqueBus bus) : mKind(kind), mBus(std::move(bus)) {}
    ~BusConnection();

    bool isOpen();
    /// Loses the connection soon. Does not wait.
    void disconnect();

    /// Finds the process that owns a name, which is marked dead when the bus reports its end. A
    /// process is the same object as long as anybody holds it.
    /// @return null when the name has no owner.
    std::shared_ptr<BusPeer> findOwner(const std::string& name);

    /// Calls a method of the object "/default", or of the bus, and reads its reply, all of it or
    /// none, on the connection's thread.
    /// @param interface [in] of the method; its name on the bus.
    /// @param reply [out] the members of the reply. One with another signature is not read.
    /// @return the failure, or std::nullopt when the call succeeded.
    template <typename... Replies, typename... Arguments>
    std::optional<Failure> call(const std::string& owner, const char* interface, const char* method,
                                const std::tuple<Replies&...>& reply,
                                const Arguments&... arguments) {
        static const std::string signature = signatureOf(reply);
        return transact(
            owner, interface, method, signature, [&](Writer& write) { return write(arguments...); },
            [&](Reader& read) { return std::apply(read, reply); });
    }

  private:
    struct Call;
    using Write = std::function<int(Writer& writer)>;
    using Read = std::function<int(Reader& reader)>;

    std::optional<Failure> transact(const std::string& owner, const char* interface,
                                    const char* method, const std::string& replySignature,
                                    const Write& write, const Read& read);
    bool start();
    bool post(std::function<void()> job);

    // For the connection's thread only.
    void run();
    bool runJobs();
    void lose();
    void begin(Call* call);
    void finish(Call* call, std::optional<Failure> failure);
    static int heard(sd_bus_message* message, void* userData, sd_bus_error* error);
    static int replied(sd_bus_message* reply, void* userData, sd_bus_error* error);

    const Bus mKind;
    std::mutex mMutex;
    std::vector<std::function<void()>> mJobs;  // guarded by mMutex
    int mWakeUp = -1;                          // guarded by mMutex; -1 once the connection is lost
    std::map<std::string, std::weak_ptr<BusPeer>, std::less<>> mPeers;  // living; guarded by mMutex

    UniqueBus mBus;  // null once the connection is lost
    std::unordered_set<Call*> mCalls;
};

}  // namespace host::dbus
