// SPDX-License-Identifier: Apache-2.0
//
// The owning pointer to a RefBase.

#pragma once

#include <cstddef>
#include <utility>

namespace android {

template <typename T>
class wp;

/// Owns one strong reference, or none.
template <typename T>
class sp {
  public:
    sp(std::nullptr_t = nullptr) {}
    sp(T* object) : mObject(object) {
        if (mObject != nullptr) mObject->incStrong(this);
    }
    sp(const sp& other) : sp(other.mObject) {}
    sp(sp&& other) noexcept : mObject(std::exchange(other.mObject, nullptr)) {}
    template <typename U>
    sp(const sp<U>& other) : sp(other.get()) {}
    ~sp() {
        if (mObject != nullptr) mObject->decStrong(this);
    }
    sp& operator=(sp other) noexcept {
        std::swap(mObject, other.mObject);
        return *this;
    }

    T* get() const { return mObject; }
    T& operator*() const { return *mObject; }
    T* operator->() const { return mObject; }
    bool operator==(const sp& other) const { return mObject == other.mObject; }
    bool operator!=(const sp& other) const { return mObject != other.mObject; }

  private:
    friend class wp<T>;

    T* mObject = nullptr;
};

}  // namespace android
