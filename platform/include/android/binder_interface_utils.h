// SPDX-License-Identifier: Apache-2.0
//
// The bases of the interfaces that an AIDL compiler generates for the NDK: of reference-counted
// objects, and of interfaces.

#pragma once

#include <android/binder_auto_utils.h>

#include <memory>
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
    /// Returns the interface's binder; the holder owns a reference. A service has the same one,
    /// which keeps the service alive, for as long as anybody holds it.
    virtual SpAIBinder asBinder();
};

}  // namespace ndk
