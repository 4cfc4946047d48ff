// SPDX-License-Identifier: Apache-2.0
//
// The host's definition of AIBinder.

#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
#include <utils/RefBase.h>

#include <memory>
#include <string>

#include "Peer.h"

struct AIBinder_Class {
    std::string descriptor;
    AIBinder_Class_onCreate onCreate;
    AIBinder_Class_onDestroy onDestroy;
};

struct AIBinder : android::RefBase {
    AIBinder(const AIBinder_Class* clazz, void* args, std::shared_ptr<host::Peer> peer);
    ~AIBinder() override;

    const AIBinder_Class* const clazz;
    void* const userData;
    const std::shared_ptr<host::Peer> peer;
};

namespace host {

/// Makes a binder for a service in the given process.
/// @return the binder with one strong reference, owned by the caller.
AIBinder* newBinder(const AIBinder_Class* clazz, void* args, std::shared_ptr<Peer> peer);

/// Returns the binder class of the AIDL interface.
const AIBinder_Class* aidlPowerStatsClass();

/// Returns the status of a failed transaction; the caller owns it.
AStatus* newTransactionStatus(binder_status_t status, const char* message);

}  // namespace host
