// SPDX-License-Identifier: Apache-2.0
//
// Owning holders for the NDK's binder objects.

#pragma once

#include <android/binder_ibinder.h>
#include <android/binder_status.h>

#include <cassert>
#include <string>
#include <utility>

namespace ndk {

/// Owns one strong reference to an AIBinder, or none.
class SpAIBinder {
  public:
    /// Takes ownership of the caller's reference.
    explicit SpAIBinder(AIBinder* binder = nullptr) : mBinder(binder) {}
    SpAIBinder(const SpAIBinder& other) : SpAIBinder(other.mBinder) { AIBinder_incStrong(mBinder); }
    SpAIBinder(SpAIBinder&& other) noexcept : mBinder(std::exchange(other.mBinder, nullptr)) {}
    ~SpAIBinder() { set(nullptr); }

    SpAIBinder& operator=(SpAIBinder other) noexcept {
        set(std::exchange(other.mBinder, nullptr));
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
        // Not assert(), which a build with NDEBUG leaves out.
        if (*content != released) __assert_fail("Race detected.", __FILE__, __LINE__, __func__);
        *content = binder;
    }

    AIBinder* get() const { return mBinder; }
    bool operator==(const SpAIBinder& other) const { return mBinder == other.mBinder; }

  private:
    AIBinder* mBinder;
};

/// Owns one resource that `kDestroy` releases; `kNone` stands for none.
template <typename T, void (*kDestroy)(T), T kNone = T{}>
class ScopedAResource {
  public:
    explicit ScopedAResource(T resource = kNone) : mResource(resource) {}
    ScopedAResource(ScopedAResource&& other) noexcept : mResource(other.release()) {}
    ~ScopedAResource() { set(kNone); }

    ScopedAResource& operator=(ScopedAResource&& other) noexcept {
        set(other.release());
        return *this;
    }

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

/// Owns a death recipient.
using ScopedAIBinder_DeathRecipient =
    ScopedAResource<AIBinder_DeathRecipient*, AIBinder_DeathRecipient_delete>;

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
