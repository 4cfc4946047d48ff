// SPDX-License-Identifier: Apache-2.0
//
// Binder objects, as the NDK declares them: reference counts, classes, death notices. There are no
// parcels and raw transactions, because on the host a proxy reaches its service without them.

#pragma once

#include <android/binder_status.h>

extern "C" {

typedef uint32_t transaction_code_t;
typedef struct AParcel AParcel;

/// A client's handle of a service. On the host an object of this process stands for a service in a
/// process of its own: it can die (see host/ServiceControl.h), and a dead one stays dead.
typedef struct AIBinder AIBinder;
typedef struct AIBinder_Class AIBinder_Class;

typedef void* (*AIBinder_Class_onCreate)(void* args);
typedef void (*AIBinder_Class_onDestroy)(void* userData);
typedef binder_status_t (*AIBinder_Class_onTransact)(AIBinder* binder, transaction_code_t code,
                                                     const AParcel* in, AParcel* out);

/// Defines a class of binder objects. It is never released.
AIBinder_Class* AIBinder_Class_define(const char* interfaceDescriptor,
                                      AIBinder_Class_onCreate onCreate,
                                      AIBinder_Class_onDestroy onDestroy,
                                      AIBinder_Class_onTransact onTransact);

/// Makes an object of a class. The class's onCreate makes its user data from `args`; onDestroy gets
/// the user data with the last strong reference.
/// @return the object with one strong reference, owned by the caller.
AIBinder* AIBinder_new(const AIBinder_Class* clazz, void* args);

void AIBinder_incStrong(AIBinder* binder);
/// Drops one strong reference. Null is allowed and does nothing.
void AIBinder_decStrong(AIBinder* binder);
/// The count of strong references, -1 for null.
int32_t AIBinder_debugGetRefCount(AIBinder* binder);
/// @return whether the object's class has the same interface descriptor as `clazz`. False for null,
///     and for an object whose process is dead, because a dead process cannot tell its descriptor.
bool AIBinder_associateClass(AIBinder* binder, const AIBinder_Class* clazz);

/// A weak reference to a binder.
typedef struct AIBinder_Weak AIBinder_Weak;
/// The caller releases it with AIBinder_Weak_delete.
AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder);
/// Null is allowed and does nothing.
void AIBinder_Weak_delete(AIBinder_Weak* weak);
/// @return the binder with one strong reference owned by the caller, or null when it is destroyed.
AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak);

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
