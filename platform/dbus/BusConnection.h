// SPDX-License-Identifier: Apache-2.0
//
// The connection that finds, calls and watches services of other processes.

#pragma once

#include <host/BusServer.h>
#include <host/ServiceControl.h>
#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Peer.h"
#include "Records.h"

namespace host::dbus {

struct CloseBus {
    // Does not flush, because a bus that does not read must not block the caller.
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using UniqueBus = std::unique_ptr<sd_bus, CloseBus>;

struct ReleaseMessage {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using UniqueMessage = std::unique_ptr<sd_bus_message, ReleaseMessage>;

struct ReleaseSlot {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using UniqueSlot = std::unique_ptr<sd_bus_slot, ReleaseSlot>;

/// Returns "session" or "system".
const char* nameOf(Bus bus);

/// One line about a bus that could not be reached, with the remedy.
/// @param result [in] a negative errno.
std::string describeTrouble(Bus bus, int result);

/// Begins to connect to a bus. Does not wait for the bus.
/// @return a negative errno when there is no such bus, or no descriptor is left.
int openBus(Bus bus, UniqueBus* opened);

/// A transaction that failed in the transport.
struct Failure {
    android::status_t error;
    std::string message = {};  ///< part of the status's description
};

class BusConnection;

/// The process behind one connection to a bus.
class BusPeer : public Peer {
  public:
    /// @param owner [in] the unique name of the service's connection. A restarted service has
    ///     another one.
    BusPeer(std::shared_ptr<BusConnection> connection, std::string owner)
        : connection(std::move(connection)), owner(std::move(owner)) {}
    ~BusPeer() override;

    const std::shared_ptr<BusConnection> connection;
    const std::string owner;

  protected:
    /// Returns true once the death cannot be missed; a peer that is already dead is marked dead.
    bool startWatching() override;
    void stopWatching() override;

  private:
    bool mWatched = false;  // guarded by the caller's lock
};

/// One connection of this process to a bus, for calls and for deaths, and its thread, the only one
/// that uses the connection. The thread reads all the time, so that no messages pile up between
/// calls. It calls no recipient, so a caller may wait for it.
///
/// A bus carries messages from anybody. The thread believes only the bus itself, and the owner of a
/// called service about that call; it drops all other messages unread.
///
/// A connection that is lost stays lost: its calls fail with dead-object and its peers are dead.
/// Safe to use from any thread.
class BusConnection : public std::enable_shared_from_this<BusConnection> {
  public:
    /// Returns the open connection to a bus, a new one if there is none.
    /// After useOwnBusConnections, no other thread gets it.
    /// @return null when there is no such bus, or no descriptor or thread is left. A later call
    ///     tries again.
    static std::shared_ptr<BusConnection> to(Bus bus);

    explicit BusConnection(UniqueBus bus);
    ~BusConnection();

    bool isOpen();
    /// Loses the connection soon. Does not wait.
    void disconnect();

    /// Returns the unique name of a service's connection; empty when the name has no owner.
    std::string ownerOf(const std::string& name);

    using Write = std::function<int(Writer& writer)>;
    using Read = std::function<int(Reader& reader)>;

    /// Calls a method of the object "/default" and reads its reply, all of it or none. Both
    /// functions run on the connection's thread.
    /// @param interface [in] of the method; its name on the bus.
    /// @param replySignature [in] the required signature; a reply with another one is not read.
    /// @return the failure, or std::nullopt when the call succeeded.
    std::optional<Failure> call(const std::string& owner, const char* interface, const char* method,
                                const std::string& replySignature, const Write& write,
                                const Read& read);

    /// Marks a peer dead when its unique name loses its owner, from now until `unwatch`.
    /// @return false when the bus refused: it limits the matches of a connection.
    bool watch(const std::shared_ptr<BusPeer>& peer);
    void unwatch(const BusPeer* peer);

  private:
    struct Call;
    struct Watched;

    bool start();
    bool post(std::function<void()> job);
    void run();
    void wait();
    bool runJobs();
    void lose();

    // For the connection's thread only.
    void begin(Call* call);
    void finish(Call* call, std::optional<Failure> failure);
    void beginWatching(const std::shared_ptr<BusPeer>& peer, std::promise<bool>* watching);
    void addMatch(Watched* watched);
    void ask(Watched* watched);
    static int ignoreStrangers(sd_bus_message* message, void* userData, sd_bus_error* error);
    static int replied(sd_bus_message* reply, void* userData, sd_bus_error* error);
    static int matchInstalled(sd_bus_message* reply, void* userData, sd_bus_error* error);
    static int ownerChanged(sd_bus_message* signal, void* userData, sd_bus_error* error);
    static int ownerTold(sd_bus_message* reply, void* userData, sd_bus_error* error);

    std::mutex mMutex;
    std::vector<std::function<void()>> mJobs;  // guarded by mMutex
    int mWakeUp = -1;                          // guarded by mMutex; -1 once the connection is lost

    UniqueBus mBus;  // null once the connection is lost
    std::unordered_set<Call*> mCalls;
    std::unordered_map<const BusPeer*, std::unique_ptr<Watched>> mWatched;
};

}  // namespace host::dbus
