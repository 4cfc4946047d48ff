// SPDX-License-Identifier: Apache-2.0
//
// The connection through which services in other processes are found and called.

#pragma once

#include <host/ServiceControl.h>
#include <systemd/sd-bus.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Records.h"

namespace host::dbus {

struct CloseBus {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using UniqueBus = std::unique_ptr<sd_bus, CloseBus>;

struct ReleaseMessage {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using UniqueMessage = std::unique_ptr<sd_bus_message, ReleaseMessage>;

/// Connects to the session bus where DBUS_SESSION_BUS_ADDRESS is set, otherwise to the system bus.
/// @return null when there is none.
UniqueBus connectToBus();

/// Handles what has arrived.
/// @return whether the bus is still there.
bool isStillOpen(sd_bus* bus);

/// How a call that came back with this error failed. Told by the error's name where there is one:
/// a peer that was killed and a time limit that ran out may share an errno.
Failure failureOf(const sd_bus_error& error, int result);

/// One object of a service, at the connection that had its name when it was found. A restarted
/// service has another one.
struct BusObject {
    std::string owner;
    std::string path;
    std::string interface;
};

/// A connection shared by all calls of the process, one at a time. It is for calls only: nobody
/// waits on it for a signal.
class BusConnection {
  public:
    /// The connection of now; a new one when the bus of the last one has gone.
    /// @return null when there is no bus.
    static std::shared_ptr<BusConnection> current();

    BusConnection(UniqueBus bus, const sd_id128_t& busId) : mBus(std::move(bus)), mBusId(busId) {}

    /// Which bus this is: a bus that was started again is another one.
    const sd_id128_t& busId() const { return mBusId; }

    bool isOpen();

    /// The unique name of a service's connection; empty when nobody owns the name.
    std::string ownerOf(const std::string& name);

    using Write = std::function<int(Writer& writer)>;
    using Read = std::function<int(Reader& reader)>;

    /// Calls a method and reads its reply, all of it or none.
    /// @param replySignature [in] what the reply must look like before any of it is read.
    /// @return how the call failed, or nothing when it succeeded.
    std::optional<Failure> call(const BusObject& object, const char* method,
                                const std::string& replySignature, const Write& write,
                                const Read& read);

  private:
    std::mutex mMutex;
    const UniqueBus mBus;  // guarded by mMutex, with every message that belongs to it
    const sd_id128_t mBusId;
};

}  // namespace host::dbus
