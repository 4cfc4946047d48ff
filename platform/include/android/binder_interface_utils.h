// SPDX-License-Identifier: Apache-2.0
//
// The bases of the interfaces that an AIDL compiler generates for the NDK: of reference-counted
// objects, interfaces, services (Bn) and proxies (Bp).

#pragma once

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>

#include <memory>
#include <mutex>
#include <utility>

namespace ndk {

/// Base of objects that are held by std::shared_ptr and made by `make`.
class SharedRefBase : public std::enable_shared_from_this<SharedRefBase> {
  public:
    virtual ~SharedRefBase() = default;

    /// Returns a reference to this object. REQUIRES: `make` made the object
    template <class T = SharedRefBase>
    std::shared_ptr<T> ref() {
        return std::static_pointer_cast<T>(shared_from_this());
    }

    template <class T, class... Args>
    static std::shared_ptr<T> make(Args&&... args) {
        return std::make_shared<T>(std::forward<Args>(args)...);
    }
};

/// Base of every interface.
class ICInterface : public SharedRefBase {
  public:
    /// Returns the interface's binder; the holder owns a reference.
    virtual SpAIBinder asBinder() = 0;

    /// Defines the binder class of an interface. Its objects keep their service alive.
    static AIBinder_Class* defineClass(const char* interfaceDescriptor,
                                       AIBinder_Class_onTransact onTransact);
    /// Returns the service that a binder of such a class stands for.
    static ICInterface* fromUserData(AIBinder* binder);
};

/// Base of services.
template <class INTERFACE>
class BnCInterface : public INTERFACE {
  public:
    /// Returns the service's binder, the same one for as long as anybody holds it.
    SpAIBinder asBinder() final;

  protected:
    /// Makes the service's binder.
    virtual SpAIBinder createBinder() = 0;

  private:
    std::mutex mMutex;
    ScopedAIBinder_Weak mBinder;  // weak, since the binder owns the service
};

template <class INTERFACE>
SpAIBinder BnCInterface<INTERFACE>::asBinder() {
    std::lock_guard<std::mutex> lock(mMutex);
    SpAIBinder binder(AIBinder_Weak_promote(mBinder.get()));
    if (binder.get() == nullptr) {
        binder = createBinder();
        mBinder.set(AIBinder_Weak_new(binder.get()));
    }
    return binder;
}

/// Base of proxies.
template <class INTERFACE>
class BpCInterface : public INTERFACE {
  public:
    explicit BpCInterface(const SpAIBinder& binder) : mBinder(binder) {}

    SpAIBinder asBinder() final { return mBinder; }

  protected:
    const SpAIBinder mBinder;
};

}  // namespace ndk
