// SPDX-License-Identifier: Apache-2.0

#include <android/binder_ibinder.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "Binder.h"

namespace {

/// The part of a recipient that its links share, because they may outlive it.
struct RecipientState {
    /// Held during a callback, so that deleting the recipient waits for it. Recursive, because a
    /// callback may delete its own recipient.
    std::recursive_mutex mutex;
    std::atomic<AIBinder_DeathRecipient_onBinderDied> onDied;  ///< null once deleted
};

}  // namespace

struct AIBinder_DeathRecipient {
    std::shared_ptr<RecipientState> state = std::make_shared<RecipientState>();
};

extern "C" {

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied) {
    auto* recipient = new AIBinder_DeathRecipient;
    recipient->state->onDied = onBinderDied;
    return recipient;
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
    if (recipient == nullptr) return;
    // Clear first: the next link's notice may get the lock before this thread does.
    recipient->state->onDied = nullptr;
    { std::lock_guard<std::recursive_mutex> wait(recipient->state->mutex); }
    delete recipient;
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
    if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
    auto deliver = [state = recipient->state, cookie] {
        std::lock_guard<std::recursive_mutex> lock(state->mutex);
        if (const auto onDied = state->onDied.load()) onDied(cookie);
    };
    return binder->peer->link(binder, recipient, reinterpret_cast<uintptr_t>(cookie), deliver);
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
    if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
    return binder->peer->unlink(binder, recipient, reinterpret_cast<uintptr_t>(cookie));
}

}  // extern "C"
