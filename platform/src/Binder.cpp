// SPDX-License-Identifier: Apache-2.0

#include "Binder.h"

#include <android/binder_interface_utils.h>
#include <android/binder_manager.h>

#include <mutex>
#include <unordered_set>
#include <utility>

#include "NeverDestroyed.h"
#include "Register.h"

namespace {

/// All binders that somebody holds, including dead and unregistered ones. The table keeps them
/// reachable, so a reference that is kept on purpose is no leak.
struct BinderTable {
    std::mutex mutex;
    std::unordered_set<AIBinder*> binders;
};

}  // namespace

struct AIBinder_Weak {
    android::wp<AIBinder> binder;
};

AIBinder::AIBinder(const AIBinder_Class* clazz, void* args, std::shared_ptr<host::Peer> peer)
    : clazz(clazz), userData(clazz->onCreate(args)), peer(std::move(peer)) {
    auto& table = host::neverDestroyed<BinderTable>();
    std::lock_guard<std::mutex> lock(table.mutex);
    table.binders.insert(this);
}

AIBinder::~AIBinder() {
    {
        auto& table = host::neverDestroyed<BinderTable>();
        std::lock_guard<std::mutex> lock(table.mutex);
        table.binders.erase(this);
    }
    peer->unlinkAll(this);
    clazz->onDestroy(userData);
}

AIBinder* host::newBinder(const AIBinder_Class* clazz, void* args, std::shared_ptr<Peer> peer) {
    auto* binder = new AIBinder(clazz, args, std::move(peer));
    AIBinder_incStrong(binder);
    return binder;
}

extern "C" {

AIBinder_Class* AIBinder_Class_define(const char* interfaceDescriptor,
                                      AIBinder_Class_onCreate onCreate,
                                      AIBinder_Class_onDestroy onDestroy,
                                      AIBinder_Class_onTransact /*onTransact*/) {
    return new AIBinder_Class{interfaceDescriptor, onCreate, onDestroy};
}

AIBinder* AIBinder_new(const AIBinder_Class* clazz, void* args) {
    return host::newBinder(clazz, args, std::make_shared<host::Peer>());
}

void AIBinder_incStrong(AIBinder* binder) {
    if (binder != nullptr) binder->incStrong(nullptr);
}

void AIBinder_decStrong(AIBinder* binder) {
    if (binder != nullptr) binder->decStrong(nullptr);
}

int32_t AIBinder_debugGetRefCount(AIBinder* binder) {
    return binder != nullptr ? binder->getStrongCount() : -1;
}

bool AIBinder_associateClass(AIBinder* binder, const AIBinder_Class* clazz) {
    // A dead process cannot be asked for the descriptor.
    return binder != nullptr && binder->peer->isAlive() &&
           binder->clazz->descriptor == clazz->descriptor;
}

AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder) {
    return new AIBinder_Weak{binder};
}

void AIBinder_Weak_delete(AIBinder_Weak* weak) {
    delete weak;
}

AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak) {
    if (weak == nullptr) return nullptr;
    const android::sp<AIBinder> binder = weak->binder.promote();
    AIBinder_incStrong(binder.get());
    return binder.get();
}

binder_status_t AServiceManager_addService(AIBinder* binder, const char* instance) {
    if (binder == nullptr || !binder->peer->isAlive()) return STATUS_BAD_VALUE;
    host::registerService(instance, {host::hold(android::sp<AIBinder>(binder)), binder->peer});
    return STATUS_OK;
}

AIBinder* AServiceManager_checkService(const char* instance) {
    const host::RegisteredService service = host::findService(instance);
    auto* binder = static_cast<AIBinder*>(service.object.get());
    AIBinder_incStrong(binder);
    return binder;
}

AIBinder* AServiceManager_getService(const char* instance) {
    return AServiceManager_checkService(instance);
}

}  // extern "C"

namespace ndk {

namespace {

// The user data of an interface's binder, which keeps its service alive.
using HeldService = std::shared_ptr<ICInterface>;

void* holdService(void* service) {
    return new HeldService(static_cast<ICInterface*>(service)->ref<ICInterface>());
}

void releaseService(void* userData) {
    delete static_cast<HeldService*>(userData);
}

}  // namespace

AIBinder_Class* ICInterface::defineClass(const char* interfaceDescriptor,
                                         AIBinder_Class_onTransact onTransact) {
    return AIBinder_Class_define(interfaceDescriptor, holdService, releaseService, onTransact);
}

ICInterface* ICInterface::fromUserData(AIBinder* binder) {
    return static_cast<HeldService*>(binder->userData)->get();
}

}  // namespace ndk
