// SPDX-License-Identifier: Apache-2.0
//
// Owning holders for the NDK's binder objects.

#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

#include <cassert>
#include <cstddef>
#include <string>

namespace ndk {

/// Owns one strong reference to an AIBinder, or none.
class SpAIBinder {
  public:
    SpAIBinder() : mBinder(nullptr) {}
    SpAIBinder(std::nullptr_t) : SpAIBinder() {}
    /// Takes ownership of the caller's reference.
    explicit SpAIBinder(AIBinder* binder) : mBinder(binder) {}
    SpAIBinder(const SpAIBinder& other) : mBinder(other.mBinder) { retain(mBinder); }
    SpAIBinder(SpAIBinder&& other) noexcept : mBinder(other.mBinder) { other.mBinder = nullptr; }
    ~SpAIBinder() { set(nullptr); }

    SpAIBinder& operator=(const SpAIBinder& other) {
        if (this == &other) return *this;
        retain(other.mBinder);
        set(other.mBinder);
        return *this;
    }
    SpAIBinder& operator=(SpAIBinder&& other) noexcept {
        if (this == &other) return *this;
        set(other.mBinder);
        other.mBinder = nullptr;
        return *this;
    }

    /// Drops the held reference and takes ownership of the caller's one to `binder`. REQUIRES: one
    /// thread at a time uses the holder. If the content changes during the release, the process
    /// ends.
    void set(AIBinder* binder) {
        // Read through volatile: the compiler must not replace the second read by the first.
        AIBinder* volatile* content = &mBinder;
        AIBinder* released = *content;
        if (released != nullptr) AIBinder_decStrong(released);
        if (*content != released) raceDetected();
        *content = binder;
    }

    AIBinder* get() const { return mBinder; }
    bool operator==(const SpAIBinder& other) const { return mBinder == other.mBinder; }

  private:
    static void retain(AIBinder* binder) {
        if (binder != nullptr) AIBinder_incStrong(binder);
    }
    [[noreturn]] static void raceDetected() {
        // Not assert(), which a build with NDEBUG leaves out.
        __assert_fail("Race detected.", __FILE__, __LINE__, __func__);
    }

    AIBinder* mBinder;
};

/// Owns one resource that `kDestroy` releases; `kNone` stands for none.
template <typename T, void (*kDestroy)(T), T kNone = T{}>
class ScopedAResource {
  public:
    explicit ScopedAResource(T resource = kNone) : mResource(resource) {}
    ScopedAResource(ScopedAResource&& other) noexcept : mResource(other.release()) {}
    ScopedAResource(const ScopedAResource&) = delete;
    ~ScopedAResource() { set(kNone); }

    ScopedAResource& operator=(ScopedAResource&& other) noexcept {
        if (this != &other) set(other.release());
        return *this;
    }
    ScopedAResource& operator=(const ScopedAResource&) = delete;

    void set(T resource) {
        if (mResource != kNone) kDestroy(mResource);
        mResource = resource;
    }
    T get() const { return mResource; }
    /// Gives the ownership to the caller.
    [[nodiscard]] T release() {
        T released = mResource;
        mResource = kNone;
        return released;
    }

  private:
    T mResource;
};

/// Owns a weak reference to a binder.
class ScopedAIBinder_Weak : public ScopedAResource<AIBinder_Weak*, AIBinder_Weak_delete> {
  public:
    explicit ScopedAIBinder_Weak(AIBinder_Weak* weak = nullptr) : ScopedAResource(weak) {}
};

/// Owns a death recipient.
class ScopedAIBinder_DeathRecipient
    : public ScopedAResource<AIBinder_DeathRecipient*, AIBinder_DeathRecipient_delete> {
  public:
    explicit ScopedAIBinder_DeathRecipient(AIBinder_DeathRecipient* recipient = nullptr)
        : ScopedAResource(recipient) {}
};

/// Owns the status of an AIDL call. A holder without a status counts as failed.
class ScopedAStatus : public ScopedAResource<AStatus*, AStatus_delete> {
  public:
    explicit ScopedAStatus(AStatus* status = nullptr) : ScopedAResource(status) {}

    static ScopedAStatus ok() { return ScopedAStatus(AStatus_newOk()); }
    static ScopedAStatus fromExceptionCode(binder_exception_t exception) {
        return ScopedAStatus(AStatus_fromExceptionCode(exception));
    }
    static ScopedAStatus fromExceptionCodeWithMessage(binder_exception_t exception,
                                                      const char* message) {
        return ScopedAStatus(AStatus_fromExceptionCodeWithMessage(exception, message));
    }
    static ScopedAStatus fromServiceSpecificError(int32_t serviceSpecific) {
        return ScopedAStatus(AStatus_fromServiceSpecificError(serviceSpecific));
    }
    static ScopedAStatus fromStatus(binder_status_t status) {
        return ScopedAStatus(AStatus_fromStatus(status));
    }

    bool isOk() const { return get() != nullptr && AStatus_isOk(get()); }
    binder_exception_t getExceptionCode() const { return AStatus_getExceptionCode(get()); }
    binder_status_t getStatus() const { return AStatus_getStatus(get()); }
    const char* getMessage() const { return AStatus_getMessage(get()); }
    std::string getDescription() const {
        const char* description = AStatus_getDescription(get());
        std::string text(description);
        AStatus_deleteDescription(description);
        return text;
    }
};

}  // namespace ndk
