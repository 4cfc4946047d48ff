// SPDX-License-Identifier: Apache-2.0
//
// The services of this process by name.

#pragma once

#include <host/ServiceControl.h>
#include <utils/RefBase.h>

#include <memory>
#include <string>
#include <vector>

#include "Peer.h"

namespace host {

/// A service in the register: an AIBinder or a HIDL interface, as its name says, and the process
/// it stands for.
struct RegisteredService {
    android::sp<android::RefBase> object;
    std::shared_ptr<Peer> peer;
};

/// Logs, at DEBUG, why a transaction failed, because its caller may ignore the reason.
/// @param interface [in] the full name of the method's interface.
void logFailure(const char* interface, const char* method, const std::string& reason);

/// Puts a service in the register and replaces one of the same name.
void registerService(const std::string& name, RegisteredService service);

/// Finds the service of that name in this process, or else on a bus.
/// @param waits [in] whether to wait for one on a bus, as long as setBusLookups() says.
/// @return one whose object is null when there is none.
RegisteredService findService(const std::string& name, bool waits = false);

/// Whether this process is a child of the one that called this first. It has copies of that one's
/// connections, whose threads it lacks.
bool isForked();

// The bus. `dbus/` has these functions and the settings of host/ServiceControl.h, and src/NoBus.cpp
// has them for a build without a bus.

/// How long a look-up waits in a fresh process.
extern const double kFreshLookupSeconds;

/// Finds a service of another process.
/// @return one whose object is null when there is none, or no such bus.
RegisteredService findOnBus(Bus bus, const std::string& name);

/// Returns once every death that a bus knows of has been noticed.
void noticeDeathsOnBuses();

}  // namespace host
