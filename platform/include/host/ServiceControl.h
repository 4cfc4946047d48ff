// SPDX-License-Identifier: Apache-2.0
//
// What only a host can do to its services: kill one, make its transactions fail, count what its
// clients ask of it, and watch what becomes of references. For tests, benchmarks and tools; the
// library never includes this.
//
// A service is named as in the register: an AIDL service by its instance name, a HIDL one by its
// interface's full name, a slash and its instance. Counts and scripts belong to the name, so they
// go on when a service is killed and another one takes its place.

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace host {

inline constexpr const char* kAidlPowerStats = "android.hardware.power.stats.IPowerStats/default";
inline constexpr const char* kHidlPowerStats =
    "android.hardware.power.stats@1.0::IPowerStats/default";

/// Takes the service out of the register. Clients that hold it go on using it.
/// @return whether there was one.
bool unregisterService(const std::string& name);

/// Ends the process that the service stands for: takes it out of the register, makes its running
/// and later transactions answer dead-object, and has those notified who linked to its death.
/// Returns without waiting for the notices.
/// @return whether there was one.
bool killService(const std::string& name);

/// What a client sees of a transaction that fails.
struct Failure {
    int32_t exceptionCode = -129;  ///< EX_TRANSACTION_FAILED
    int32_t transactionError = 0;  ///< with EX_TRANSACTION_FAILED: a status_t or binder_status_t
    std::string message = {};      ///< part of the status's description
    bool withoutStatus = false;    ///< AIDL only: a status holder that holds no status
};

/// -129 and -32: the service's process is gone, or appears to be.
Failure deadObject();

/// Makes the next `times` transactions of one method fail without reaching the service.
/// @param method [in] the method's name in its interface, "getRailInfo"; the process ends when the
///     interface has no such method.
void failTransactions(const std::string& name, const std::string& method, const Failure& failure,
                      int times = 1);

/// Makes the next `times` links fail by transport.
void failLinks(const std::string& name, const Failure& failure, int times = 1);

/// Counts since the process started; look-ups of a name that has no service included.
int64_t lookups(const std::string& name);
int64_t links(const std::string& name);
int64_t unlinks(const std::string& name);
/// Transactions of one method, failed ones included.
int64_t transactions(const std::string& name, const std::string& method);
/// Transactions of all methods.
int64_t transactions(const std::string& name);

/// Waits until every notice of a death that has happened so far has been handled.
/// @return false when that takes longer than `seconds`.
bool waitForDeathNotices(double seconds = 60);

/// What an observer is told of.
enum class Event {
    kAidlRecipientCreated,    ///< AIBinder_DeathRecipient_new was called
    kAidlProxyDestroyed,      ///< the last reference to an AIDL proxy was dropped
    kAidlRecipientDeleted,    ///< AIBinder_DeathRecipient_delete was called
    kBinderReleased,          ///< AIBinder_decStrong was called
    kHidlProxyDestroyed,      ///< the last reference to a HIDL proxy was dropped
    kHidlRecipientCreated,    ///< a HIDL death recipient was constructed
    kHidlRecipientDestroyed,  ///< a HIDL death recipient was destroyed
};

/// Has `observer` called at every event, on the thread and at the moment at which it happens, with
/// no lock of the platform held; an empty one ends that.
void setObserver(std::function<void(Event)> observer);

/// The message that was handed to android_set_abort_message, or null. May be called in a signal
/// handler.
const char* abortMessage();

/// The buses of a Linux machine: of one user's session, and of the system.
enum class Bus { kSession, kSystem };

/// Says which buses a look-up asks when this process has no such service, in this order, and for
/// which names. In a fresh process a look-up asks the session bus and then the system bus for both
/// names. A process that serves itself passes no bus, so that its user's buses do not matter.
void setBusLookups(std::vector<Bus> buses,
                   std::vector<std::string> names = {kAidlPowerStats, kHidlPowerStats});

/// Limits the time that a service on a bus may take to answer; 25 s in a fresh process. A call that
/// takes longer is a failed transaction.
void setBusTimeLimit(double seconds);

}  // namespace host
