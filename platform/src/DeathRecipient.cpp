// SPDX-License-Identifier: Apache-2.0

#include <android/binder_ibinder.h>

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "Binder.h"

namespace {

/// What a recipient's links share with it, so that they may outlive it.
class RecipientState {
  public:
    explicit RecipientState(AIBinder_DeathRecipient_onBinderDied onDied) : mOnDied(onDied) {}

    void setOnUnlinked(AIBinder_DeathRecipient_onBinderUnlinked onUnlinked) {
        std::lock_guard<std::mutex> lock(mMutex);
        mOnUnlinked = onUnlinked;
    }

    void died(void* cookie) { run(mOnDied, cookie); }
    void unlinked(void* cookie) { run(mOnUnlinked, cookie); }

    void remove() {
        std::unique_lock<std::mutex> lock(mMutex);
        mDeleted = true;
        // A callback that deletes its own recipient must not wait for itself.
        const auto self = std::this_thread::get_id();
        mIdle.wait(lock, [&] {
            return std::all_of(mRunning.begin(), mRunning.end(),
                               [&](std::thread::id runner) { return runner == self; });
        });
    }

  private:
    using Callback = void (*)(void* cookie);

    void run(const Callback& callback, void* cookie) {
        std::unique_lock<std::mutex> lock(mMutex);
        const Callback function = callback;
        if (mDeleted || function == nullptr) return;
        const auto self = std::this_thread::get_id();
        mRunning.push_back(self);
        lock.unlock();
        function(cookie);
        lock.lock();
        mRunning.erase(std::find(mRunning.begin(), mRunning.end(), self));
        mIdle.notify_all();
    }

    std::mutex mMutex;
    std::condition_variable mIdle;
    const Callback mOnDied;
    Callback mOnUnlinked = nullptr;
    bool mDeleted = false;
    std::vector<std::thread::id> mRunning;
};

class AidlDeathLink : public host::DeathLink {
  public:
    AidlDeathLink(const void* owner, const void* recipient, void* cookie,
                  std::shared_ptr<RecipientState> state)
        : DeathLink(owner, recipient, reinterpret_cast<uintptr_t>(cookie)),
          mCookie(cookie),
          mState(std::move(state)) {}

    void deliver() override { mState->died(mCookie); }
    void ended() override { mState->unlinked(mCookie); }

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
    host::observe(host::Event::kAidlRecipientCreated);
    return new AIBinder_DeathRecipient{std::make_shared<RecipientState>(onBinderDied)};
}

void AIBinder_DeathRecipient_setOnUnlinked(AIBinder_DeathRecipient* recipient,
                                           AIBinder_DeathRecipient_onBinderUnlinked onUnlinked) {
    recipient->state->setOnUnlinked(onUnlinked);
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
    if (recipient == nullptr) return;
    host::observe(host::Event::kAidlRecipientDeleted);
    recipient->state->remove();
    delete recipient;
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
    if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
    if (auto failure = binder->peer->beginLink()) return failure->transactionError;
    auto link = std::make_shared<AidlDeathLink>(binder, recipient, cookie, recipient->state);
    switch (binder->peer->link(std::move(link))) {
        case host::Peer::LinkResult::kLinked:
            return STATUS_OK;
        case host::Peer::LinkResult::kReported:
            return STATUS_DEAD_OBJECT;
        case host::Peer::LinkResult::kFailed:
            break;
    }
    return STATUS_FAILED_TRANSACTION;
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
    if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
    switch (binder->peer->unlink(binder, recipient, reinterpret_cast<uintptr_t>(cookie))) {
        case host::Peer::UnlinkResult::kUnlinked:
            return STATUS_OK;
        case host::Peer::UnlinkResult::kReported:
            return STATUS_DEAD_OBJECT;
        case host::Peer::UnlinkResult::kNotFound:
            break;
    }
    return STATUS_NAME_NOT_FOUND;
}

}  // extern "C"
