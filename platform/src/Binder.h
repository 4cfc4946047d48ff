// SPDX-License-Identifier: Apache-2.0
//
// The host's definition of AIBinder.

#pragma once

#include <android/binder_interface_utils.h>
#include <utils/RefBase.h>

#include <memory>

#include "Peer.h"

struct AIBinder : android::RefBase {
    AIBinder(std::shared_ptr<ndk::ICInterface> service, std::shared_ptr<host::Peer> peer);
    ~AIBinder() override;

    const std::shared_ptr<ndk::ICInterface> service;
    const std::shared_ptr<host::Peer> peer;
};

namespace host {

/// Returns the binder of a service. If nobody holds it, makes a new one, for a process of its own
/// unless one is given.
ndk::SpAIBinder binderOf(ndk::ICInterface* service, std::shared_ptr<Peer> peer = nullptr);

/// Returns the status of a failed transaction; the caller owns it.
AStatus* newTransactionStatus(binder_status_t status, const char* message);

}  // namespace host
