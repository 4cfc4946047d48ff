// SPDX-License-Identifier: Apache-2.0
//
// The controls that only a host has over its services: kill a service, make its transactions fail,
// count its clients' requests, and observe references. For tests, benchmarks and tools; the library
// never includes this.
//
// A service is named as in the register: an AIDL service by its instance name, a HIDL one by its
// interface's full name, a slash and its instance. Counts and scripts belong to the name, so they
// continue when another service takes the place of a dead one.

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace host {

inline constexpr const char* kAidlPowerStats = "android.hardware.power.stats.IPowerStats/default";
inline constexpr const char* kHidlPowerStats =
    "android.hardware.power.stats@1.0::IPowerStats/default";

/// Takes the service out of the register. Clients that hold it can still use it.
/// @return whether there was one.
bool unregisterService(const std::string& name);

/// Ends the process that the service stands for. Takes the service out of the register, makes its
/// transactions fail with dead-object, including those in progress, and sends the death notices.
/// Returns without waiting for the notices.
/// @return whether there was one.
bool killService(const std::string& name);

/// A failed transaction, as its client sees it.
struct Failure {
    int32_t exceptionCode = -129;  ///< EX_TRANSACTION_FAILED
    int32_t transactionError = 0;  ///< with EX_TRANSACTION_FAILED: a status_t or binder_status_t
    std::string message = {};      ///< part of the status's description
    bool withoutStatus = false;    ///< AIDL only: a holder without a status
};

/// Returns the failure of a transaction whose peer is gone: -129 and -32.
Failure deadObject();

/// Makes the next `times` transactions of one method fail without reaching the service.
/// @param method [in] the method's name in its interface, such as "getRailInfo"; ends the process
///     when the interface has no such method.
void failTransactions(const std::string& name, const std::string& method, const Failure& failure,
                      int times = 1);

/// Makes the next `times` links fail by transport.
void failLinks(const std::string& name, const Failure& failure, int times = 1);

/// Return counts since the process started. Look-ups count even if the name has no service.
int64_t lookups(const std::string& name);
int64_t links(const std::string& name);
int64_t unlinks(const std::string& name);
/// Returns the number of transactions of one method, including failed ones.
int64_t transactions(const std::string& name, const std::string& method);
/// Returns the number of transactions of all methods.
int64_t transactions(const std::string& name);

/// Waits until the notices of all deaths so far have been handled.
/// @return false when that takes longer than `seconds`.
bool waitForDeathNotices(double seconds = 60);

/// The events that an observer gets.
enum class Event {
    kAidlRecipientCreated,    ///< AIBinder_DeathRecipient_new was called
    kAidlProxyDestroyed,      ///< the last reference to an AIDL proxy was dropped
    kAidlRecipientDeleted,    ///< AIBinder_DeathRecipient_delete was called
    kBinderReleased,          ///< AIBinder_decStrong was called
    kHidlProxyDestroyed,      ///< the last reference to a HIDL proxy was dropped
    kHidlRecipientCreated,    ///< a HIDL death recipient was constructed
    kHidlRecipientDestroyed,  ///< a HIDL death recipient was destroyed
};

/// Calls `observer` at every event, at once and on the event's thread, with no lock of the platform
/// held. An empty observer ends this.
void setObserver(std::function<void(Event)> observer);

/// Returns the message that android_set_abort_message got, or null. A signal handler may call it.
const char* abortMessage();

/// The buses of a Linux machine: the bus of one user's session, and the system's.
enum class Bus { kSession, kSystem };

/// Sets the buses that a look-up asks, in this order, when this process has no such service, and
/// the names for which it does so. In a fresh process a look-up asks the session bus and then the
/// system bus for both names. A process that has its own services passes no bus, so that other
/// services do not matter.
void setBusLookups(std::vector<Bus> buses,
                   std::vector<std::string> names = {kAidlPowerStats, kHidlPowerStats});

/// Gives the calling thread connections to the buses that no other thread uses. They serve the
/// services that this thread looks up from then on, and are closed when it ends.
void useOwnBusConnections();

/// Limits the time of a call to a service on a bus; 25 s in a fresh process. A call that takes
/// longer is a failed transaction.
void setBusTimeLimit(double seconds);

/// Finds out why a bus cannot be reached.
/// @return one line with the remedy; empty when it can be reached.
std::string findBusTrouble(Bus bus);

/// Returns the names that processes own on a bus, without the bus's own ":1.5"; none when it cannot
/// be reached.
std::vector<std::string> listBusNames(Bus bus);

}  // namespace host
