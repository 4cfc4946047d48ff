// SPDX-License-Identifier: Apache-2.0
//
// Reference counting of the device's native libraries. An object counts its own strong references
// and is destroyed with the last one; weak references outlive it.

#pragma once

#include <utils/StrongPointer.h>

#include <atomic>
#include <cstdint>
#include <utility>

namespace android {

/// Base of objects held by sp<> and wp<>. Inherit it virtually where an object has it twice.
class RefBase {
  public:
    /// `id` identifies the holder for tools that trace references. It is not used here.
    void incStrong(const void* id) const;
    void decStrong(const void* id) const;
    /// The count of strong references; of use to tests only, because other threads change it.
    int32_t getStrongCount() const;

    /// The counts. They live until the object and its last weak reference are gone, so an object
    /// without weak references can still get its first strong one.
    class weakref_type {
      public:
        void incWeak(const void* id);
        void decWeak(const void* id);
        /// Takes a strong reference unless the object is destroyed.
        bool attemptIncStrong(const void* id);

      private:
        friend class RefBase;
        explicit weakref_type(RefBase* base) : mBase(base) {}

        // Not 0, which is the count of an object that has lost its last strong reference.
        static constexpr int32_t kNeverHeld = 1 << 28;

        RefBase* const mBase;
        std::atomic<int32_t> mStrong{kNeverHeld};
        std::atomic<int32_t> mWeak{1};  // the object's own, until it is destroyed
    };

    weakref_type* createWeak(const void* id) const;

  protected:
    RefBase();
    virtual ~RefBase();
    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

  private:
    weakref_type* const mRefs;
};

/// Owns one weak reference, or none.
template <typename T>
class wp {
  public:
    wp() : mObject(nullptr), mRefs(nullptr) {}
    wp(T* object)
        : mObject(object), mRefs(object != nullptr ? object->createWeak(this) : nullptr) {}
    wp(const sp<T>& other) : wp(other.get()) {}
    wp(const wp& other) : mObject(other.mObject), mRefs(other.mRefs) {
        if (mRefs != nullptr) mRefs->incWeak(this);
    }
    wp(wp&& other) noexcept
        : mObject(std::exchange(other.mObject, nullptr)),
          mRefs(std::exchange(other.mRefs, nullptr)) {}
    ~wp() {
        if (mRefs != nullptr) mRefs->decWeak(this);
    }
    wp& operator=(wp other) noexcept {
        std::swap(mObject, other.mObject);
        std::swap(mRefs, other.mRefs);
        return *this;
    }

    /// Returns a strong reference, or null when the object is destroyed.
    sp<T> promote() const {
        sp<T> strong;
        if (mRefs != nullptr && mRefs->attemptIncStrong(&strong)) strong.mObject = mObject;
        return strong;
    }

  private:
    T* mObject;
    RefBase::weakref_type* mRefs;
};

}  // namespace android
