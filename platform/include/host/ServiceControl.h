// SPDX-License-Identifier: Apache-2.0
//
// The controls that only a host has over its services: kill a service, and choose the buses of
// look-ups. For tests, benchmarks, tools and power/service/; the library never includes this.
//
// A service is named as in the register: an AIDL service by its instance name, a HIDL one by its
// interface's full name, a slash and its instance.

#pragma once

#include <string>
#include <vector>

namespace host {

inline constexpr const char* kAidlPowerStats = "android.hardware.power.stats.IPowerStats/default";
inline constexpr const char* kHidlPowerStats =
    "android.hardware.power.stats@1.0::IPowerStats/default";

/// Ends the process that the service stands for. Takes the service out of the register, makes its
/// transactions fail with dead-object, including those in progress, and sends the death notices.
/// Returns without waiting for the notices.
/// @return whether there was one.
bool killService(const std::string& name);

/// Waits until the notices of all deaths so far have been handled.
/// @return false when that takes longer than `seconds`.
bool waitForDeathNotices(double seconds = 60);

/// The buses of a Linux machine: the bus of one user's session, and the system's.
enum class Bus { kSession, kSystem };

/// Sets the buses that a look-up asks, in this order, when this process has no such service, and
/// the names for which it does so. In a fresh process a look-up asks the session bus and then the
/// system bus for both names. A process that has its own services passes no bus, so that other
/// services do not matter.
/// @param waitSeconds [in] how long AServiceManager_getService waits for a service to appear while
///     it asks any bus; 5 s in a fresh process, as on a device. A service of another of these names
///     ends the waiting.
void setBusLookups(std::vector<Bus> buses,
                   std::vector<std::string> names = {kAidlPowerStats, kHidlPowerStats},
                   double waitSeconds = 0);

/// Gives the calling thread connections to the buses that no other thread uses. They serve the
/// services that this thread looks up from then on, and are closed when it ends.
void useOwnBusConnections();

/// Limits the time of a call to a service on a bus; 25 s in a fresh process. A call that takes
/// longer is a failed transaction. A bus has 5 s, or `allSeconds`, to answer a new connection, and
/// is not asked again for some seconds when it does not.
/// @param allSeconds [in] the time from now in which all calls have to end; later ones fail.
void setBusTimeLimit(double seconds, double allSeconds = 1e9);

/// Returns what did not answer in time since the last call of this: a bus or a service, and what
/// it was asked for. Only the first one, which may have left no time for others.
/// @return the start of a line, without a remedy; empty when all answered.
std::string takeUnanswered();

/// Finds out why a bus cannot be reached.
/// @return one line with the remedy; empty when it can be reached.
std::string findBusTrouble(Bus bus);

/// Returns the names that processes own on a bus, without the bus's own ":1.5"; none when it cannot
/// be reached.
std::vector<std::string> listBusNames(Bus bus);

}  // namespace host
