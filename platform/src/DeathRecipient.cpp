// SPDX-License-Identifier: Apache-2.0

#include <android/binder_ibinder.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "Binder.h"

namespace {

/// The part of a recipient that its links share, because they may outlive it.
class RecipientState {
  public:
    explicit RecipientState(AIBinder_DeathRecipient_onBinderDied onDied) : mOnDied(onDied) {}

    /// Calls the recipient unless it has been deleted. REQUIRES: this is the delivering thread
    void died(void* cookie) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (mDeleted) return;
        mRunning = std::this_thread::get_id();
        lock.unlock();
        mOnDied(cookie);
        lock.lock();
        mRunning = {};
        mIdle.notify_all();
    }

    void remove() {
        std::unique_lock<std::mutex> lock(mMutex);
        mDeleted = true;
        // A callback that deletes its own recipient must not wait for itself.
        if (mRunning == std::this_thread::get_id()) return;
        mIdle.wait(lock, [this] { return mRunning == std::thread::id(); });
    }

  private:
    std::mutex mMutex;
    std::condition_variable mIdle;
    const AIBinder_DeathRecipient_onBinderDied mOnDied;
    bool mDeleted = false;     // guarded by mMutex
    std::thread::id mRunning;  // of the callback; guarded by mMutex
};

class AidlDeathLink : public host::DeathLink {
  public:
    AidlDeathLink(const void* owner, const void* recipient, void* cookie,
                  std::shared_ptr<RecipientState> state)
        : DeathLink(owner, recipient, reinterpret_cast<uintptr_t>(cookie)),
          mCookie(cookie),
          mState(std::move(state)) {}

    void deliver() override { mState->died(mCookie); }

  private:
    void* const mCookie;
    const std::shared_ptr<RecipientState> mState;
};

}  // namespace

struct AIBinder_DeathRecipient {
    std::shared_ptr<RecipientState> state;
};

extern "C" {

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied) {
    return new AIBinder_DeathRecipient{std::make_shared<RecipientState>(onBinderDied)};
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
    if (recipient == nullptr) return;
    recipient->state->remove();
    delete recipient;
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
    if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
    auto link = std::make_shared<AidlDeathLink>(binder, recipient, cookie, recipient->state);
    return binder->peer->link(std::move(link));
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
    if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
    return binder->peer->unlink(binder, recipient, reinterpret_cast<uintptr_t>(cookie));
}

}  // extern "C"
