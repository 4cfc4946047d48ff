// SPDX-License-Identifier: Apache-2.0

#include "Binder.h"

#include <android/binder_manager.h>

#include <atomic>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "NeverDestroyed.h"
#include "Register.h"

namespace {

/// The binders that somebody holds, by their services, including dead and unregistered ones. The
/// table keeps them reachable, so a reference that is kept on purpose is no leak.
struct BinderTable {
    std::mutex mutex;
    std::unordered_map<ndk::ICInterface*, AIBinder*> binders;
};

AIBinder* lookUp(const char* instance, bool waits) {
    const host::RegisteredService service = host::findService(instance, waits);
    auto* binder = static_cast<AIBinder*>(service.object.get());
    AIBinder_incStrong(binder);
    return binder;
}

}  // namespace

/// Links share their recipient, because they may outlive its deletion.
struct AIBinder_DeathRecipient : android::RefBase {
    /// Held during a callback, so that deleting the recipient waits for it. Recursive, because a
    /// callback may delete its own recipient.
    std::recursive_mutex mutex;
    std::atomic<AIBinder_DeathRecipient_onBinderDied> onDied;  ///< null once deleted
};

AIBinder::AIBinder(std::shared_ptr<ndk::ICInterface> service, std::shared_ptr<host::Peer> peer)
    : service(std::move(service)), peer(std::move(peer)) {}

AIBinder::~AIBinder() {
    {
        auto& table = host::neverDestroyed<BinderTable>();
        std::lock_guard<std::mutex> lock(table.mutex);
        // The service may have another binder by now, or have had one.
        const auto entry = table.binders.find(service.get());
        if (entry != table.binders.end() && entry->second == this) table.binders.erase(entry);
    }
    peer->unlinkAll(this);
}

ndk::SpAIBinder host::binderOf(ndk::ICInterface* service, std::shared_ptr<Peer> peer) {
    auto& table = neverDestroyed<BinderTable>();
    std::lock_guard<std::mutex> lock(table.mutex);
    AIBinder*& known = table.binders[service];
    android::sp<AIBinder> binder = android::wp<AIBinder>(known).promote();
    if (binder == nullptr) {
        if (peer == nullptr) peer = std::make_shared<Peer>();
        binder = known = new AIBinder(service->ref<ndk::ICInterface>(), std::move(peer));
    }
    AIBinder_incStrong(binder.get());
    return ndk::SpAIBinder(binder.get());
}

ndk::SpAIBinder ndk::ICInterface::asBinder() {
    return host::binderOf(this);
}

extern "C" {

void AIBinder_incStrong(AIBinder* binder) {
    if (binder != nullptr) binder->incStrong(nullptr);
}

void AIBinder_decStrong(AIBinder* binder) {
    if (binder != nullptr) binder->decStrong(nullptr);
}

int32_t AIBinder_debugGetRefCount(AIBinder* binder) {
    return binder != nullptr ? binder->getStrongCount() : -1;
}

AIBinder_DeathRecipient* AIBinder_DeathRecipient_new(
    AIBinder_DeathRecipient_onBinderDied onBinderDied) {
    auto* recipient = new AIBinder_DeathRecipient;
    recipient->incStrong(nullptr);
    recipient->onDied = onBinderDied;
    return recipient;
}

void AIBinder_DeathRecipient_delete(AIBinder_DeathRecipient* recipient) {
    if (recipient == nullptr) return;
    // Clear first: the next link's notice may get the lock before this thread does.
    recipient->onDied = nullptr;
    { std::lock_guard<std::recursive_mutex> wait(recipient->mutex); }
    recipient->decStrong(nullptr);
}

binder_status_t AIBinder_linkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                     void* cookie) {
    if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
    const android::sp<AIBinder_DeathRecipient> held(recipient);
    return binder->peer->link({binder, recipient, cookie}, [held, cookie] {
        std::lock_guard<std::recursive_mutex> lock(held->mutex);
        if (const auto onDied = held->onDied.load()) onDied(cookie);
    });
}

binder_status_t AIBinder_unlinkToDeath(AIBinder* binder, AIBinder_DeathRecipient* recipient,
                                       void* cookie) {
    if (binder == nullptr || recipient == nullptr) return STATUS_UNEXPECTED_NULL;
    return binder->peer->unlink({binder, recipient, cookie});
}

binder_status_t AServiceManager_addService(AIBinder* binder, const char* instance) {
    if (binder == nullptr || !binder->peer->isAlive()) return STATUS_BAD_VALUE;
    host::registerService(instance, {binder, binder->peer});
    return STATUS_OK;
}

AIBinder* AServiceManager_checkService(const char* instance) {
    return lookUp(instance, false);
}

AIBinder* AServiceManager_getService(const char* instance) {
    return lookUp(instance, true);
}

}  // extern "C"
