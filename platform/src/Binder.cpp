// SPDX-License-Identifier: Apache-2.0

#include "Binder.h"

#include <android/binder_interface_utils.h>
#include <android/binder_manager.h>

#include <mutex>
#include <unordered_map>
#include <utility>

#include "NeverDestroyed.h"
#include "Register.h"

namespace {

/// All binders that somebody holds, including dead and unregistered ones. The table keeps them
/// reachable, so a reference that is kept on purpose is no leak.
struct BinderTable {
    std::mutex mutex;
    std::unordered_map<AIBinder*, uint64_t> serials;
    uint64_t nextSerial = 0;
};

/// Takes a reference unless the last one has been dropped.
bool retainIfHeld(AIBinder* binder) {
    int32_t count = binder->strong;
    while (count != 0) {
        if (binder->strong.compare_exchange_weak(count, count + 1)) return true;
    }
    return false;
}

}  // namespace

struct AIBinder_Weak {
    AIBinder* binder;
    uint64_t serial;
};

namespace host {

AIBinder* newBinder(const AIBinder_Class* clazz, void* args, std::shared_ptr<Peer> peer) {
    BinderTable& table = neverDestroyed<BinderTable>();
    void* userData = clazz->onCreate(args);
    std::lock_guard<std::mutex> lock(table.mutex);
    const uint64_t serial = table.nextSerial++;
    auto* binder = new AIBinder{clazz, userData, std::move(peer), serial};
    table.serials.emplace(binder, serial);
    return binder;
}

}  // namespace host

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
    if (binder != nullptr) ++binder->strong;
}

void AIBinder_decStrong(AIBinder* binder) {
    if (binder == nullptr) return;
    if (--binder->strong != 0) return;
    {
        auto& table = host::neverDestroyed<BinderTable>();
        std::lock_guard<std::mutex> lock(table.mutex);
        table.serials.erase(binder);
    }
    binder->peer->unlinkAll(binder);
    binder->clazz->onDestroy(binder->userData);
    delete binder;
}

int32_t AIBinder_debugGetRefCount(AIBinder* binder) {
    return binder != nullptr ? binder->strong.load() : -1;
}

bool AIBinder_associateClass(AIBinder* binder, const AIBinder_Class* clazz) {
    // A dead process cannot be asked for the descriptor.
    return binder != nullptr && binder->peer->isAlive() &&
           binder->clazz->descriptor == clazz->descriptor;
}

AIBinder_Weak* AIBinder_Weak_new(AIBinder* binder) {
    return new AIBinder_Weak{binder, binder->serial};
}

void AIBinder_Weak_delete(AIBinder_Weak* weak) {
    delete weak;
}

AIBinder* AIBinder_Weak_promote(AIBinder_Weak* weak) {
    if (weak == nullptr) return nullptr;
    BinderTable& table = host::neverDestroyed<BinderTable>();
    std::lock_guard<std::mutex> lock(table.mutex);
    auto entry = table.serials.find(weak->binder);
    if (entry == table.serials.end() || entry->second != weak->serial) return nullptr;
    return retainIfHeld(weak->binder) ? weak->binder : nullptr;
}

binder_status_t AServiceManager_addService(AIBinder* binder, const char* instance) {
    if (binder == nullptr || !binder->peer->isAlive()) return STATUS_BAD_VALUE;
    AIBinder_incStrong(binder);
    host::registerService(
        instance,
        {std::shared_ptr<void>(
             binder, [](void* held) { AIBinder_decStrong(static_cast<AIBinder*>(held)); }),
         binder->peer});
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
