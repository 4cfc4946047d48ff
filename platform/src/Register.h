// SPDX-License-Identifier: Apache-2.0
//
// The services of this process by name.

#pragma once

#include <host/ServiceControl.h>

#include <memory>
#include <string>
#include <vector>

#include "Peer.h"

namespace host {

/// A service in the register: an AIBinder, or a HIDL interface, and the process it stands for.
struct RegisteredService {
    std::shared_ptr<void> object;  ///< keeps the object alive; the service name determines its type
    std::shared_ptr<Peer> peer;
};

/// Logs, at DEBUG, why a transaction failed, because its caller may ignore the reason.
/// @param interface [in] the full name of the method's interface.
void logFailure(const char* interface, const char* method, const std::string& reason);

/// Puts a service in the register and replaces one of the same name.
void registerService(const std::string& name, RegisteredService service);

/// Finds the service of that name in this process, or else on a bus.
/// @return one whose object is null when there is none.
RegisteredService findService(const std::string& name);

/// Finds services of other processes. The bus plugs itself in here; the register knows no bus.
class OtherProcesses {
  public:
    virtual ~OtherProcesses() = default;

    /// @return a service whose object is null when there is none, or no such bus.
    virtual RegisteredService find(Bus bus, const std::string& name) = 0;
    /// Returns once every death that a bus knows of has been noticed.
    virtual void noticeDeaths() = 0;
    /// @return one line about a bus that cannot be reached, with the remedy; empty when it can.
    virtual std::string findTrouble(Bus bus) = 0;
    /// @return the names that processes own; none when the bus cannot be reached.
    virtual std::vector<std::string> listNames(Bus bus) = 0;
    /// Gives the calling thread connections of its own.
    virtual void useOwnConnections() = 0;
    /// Limits the time of every call from then on.
    virtual void setTimeLimit(double seconds) = 0;
};

/// @param others [in] lives as long as the process.
void plugIn(OtherProcesses* others);

/// Returns the plugged-in object; null in a build without a bus.
OtherProcesses* otherProcesses();

}  // namespace host
