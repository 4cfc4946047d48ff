// SPDX-License-Identifier: Apache-2.0
//
// The host's definition of AIBinder.

#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Peer.h"

struct AIBinder_Class {
    std::string descriptor;
    AIBinder_Class_onCreate onCreate;
    AIBinder_Class_onDestroy onDestroy;
};

struct AIBinder {
    const AIBinder_Class* clazz;
    void* userData;
    std::shared_ptr<host::Peer> peer;
    uint64_t serial;  // distinguishes it from a later object at the same address
    std::atomic<int32_t> strong{1};
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
