// SPDX-License-Identifier: Apache-2.0
//
// Binder objects, as the NDK declares them: reference counts, death notices. There are no classes,
// parcels and raw transactions, because on the host a proxy reaches its service without them.

#pragma once

#include <android/binder_status.h>

extern "C" {

/// A client's handle of a service. On the host an object of this process stands for a service in a
/// process of its own: it can die (see host/ServiceControl.h), and a dead one stays dead.
typedef struct AIBinder AIBinder;

void AIBinder_incStrong(AIBinder* binder);
/// Drops one strong reference. Null is allowed and does nothing.
void AIBinder_decStrong(AIBinder* binder);
/// The count of strong references, -1 for null.
int32_t AIBinder_debugGetRefCount(AIBinder* binder);

/// A receiver of death notices. One recipient may be linked to any number of binders.
typedef struct AIBinder_DeathRecipient AIBinder_DeathRecipient;
typedef void (*AIBinder_DeathRecipient_onBinderDied)(void* cookie);

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied);

/// Deletes the recipient. Waits for a callback in progress on another thread: when this returns, no
/// callback of the recipient runs or will run. Null is allowed and does nothing.
void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient);

/// Links the recipient to the death of the binder's process. The platform calls it once, with the
/// cookie, on a thread of its own; at once if the process is dead and the death is not reported
/// yet.
/// @return STATUS_OK, or STATUS_DEAD_OBJECT when the death has been reported.
binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie);

/// Ends one link made with the same three arguments.
/// @return STATUS_OK, STATUS_DEAD_OBJECT when the death has been reported, or
/// STATUS_NAME_NOT_FOUND.
binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie);

}  // extern "C"
