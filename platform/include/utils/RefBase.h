// SPDX-License-Identifier: Apache-2.0
//
// Reference counting of the device's native libraries. An object counts its own strong references
// and is destroyed with the last one; weak references outlive it.

#pragma once

#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>
#include <memory>

namespace android {

/// Base of objects held by sp<> and wp<>. Inherit it virtually where an object has it twice.
class RefBase {
  public:
    /// `id` identifies the holder for tools that trace references. It is not used here.
    void incStrong(const void* /*id*/) const { ++*mStrong; }
    void decStrong(const void* /*id*/) const {
        if (--*mStrong == 0) delete this;
    }
    /// The count of strong references; of use to tests only, because other threads change it.
    int32_t getStrongCount() const { return *mStrong; }

  protected:
    RefBase();
    virtual ~RefBase() = default;
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

  private:
    template <typename T>
    friend class wp;

    using Count = std::atomic<int32_t>;
    const std::shared_ptr<Count> mStrong;
};

/// Owns one weak reference, or none.
template <typename T>
class wp {
  public:
    wp() = default;
    wp(T* object) : mObject(object) {
        if (object != nullptr) mStrong = object->mStrong;
    }
    wp(const sp<T>& other) : wp(other.get()) {}

    /// Returns a strong reference, or null when nobody holds one any more.
    sp<T> promote() const {
        sp<T> strong;
        int32_t count = mStrong != nullptr ? mStrong->load() : 0;
        while (count != 0 && !mStrong->compare_exchange_weak(count, count + 1)) {
        }
        if (count != 0) strong.mObject = mObject;
        return strong;
    }

  private:
    T* mObject = nullptr;
    std::shared_ptr<RefBase::Count> mStrong;
};

}  // namespace android
