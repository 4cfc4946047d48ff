// SPDX-License-Identifier: Apache-2.0

#include <android/hidl/base/1.0/IBase.h>
#include <android/log.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>

#include <cstdlib>
#include <system_error>

namespace android {

// Not inline: weak references may outlive the library of the object, and so need code from here.
RefBase::RefBase() : mStrong(std::make_shared<Count>(0)) {}

namespace {

struct CodeName {
    int32_t code;
    const char* name;
};

/// Returns the code's name in a table, or null.
template <size_t kSize>
const char* nameOf(int32_t code, const CodeName (&names)[kSize]) {
    for (const CodeName& entry : names) {
        if (entry.code == code) return entry.name;
    }
    return nullptr;
}

}  // namespace

std::string statusToString(status_t status) {
    static constexpr CodeName kNames[] = {
        {OK, "OK"},
        {UNKNOWN_ERROR, "UNKNOWN_ERROR"},
        {NO_MEMORY, "NO_MEMORY"},
        {INVALID_OPERATION, "INVALID_OPERATION"},
        {BAD_VALUE, "BAD_VALUE"},
        {NAME_NOT_FOUND, "NAME_NOT_FOUND"},
        {PERMISSION_DENIED, "PERMISSION_DENIED"},
        {DEAD_OBJECT, "DEAD_OBJECT"},
        {FAILED_TRANSACTION, "FAILED_TRANSACTION"},
        {TIMED_OUT, "TIMED_OUT"},
        {UNKNOWN_TRANSACTION, "UNKNOWN_TRANSACTION"},
        {UNEXPECTED_NULL, "UNEXPECTED_NULL"},
    };
    if (const char* name = nameOf(status, kNames)) return name;
    return std::to_string(status) + " (" + std::generic_category().message(-status) + ")";
}

namespace hardware {

Status Status::fromExceptionCode(int32_t exceptionCode, const char* message) {
    const bool failed = exceptionCode == EX_TRANSACTION_FAILED;
    return Status(exceptionCode, failed ? FAILED_TRANSACTION : OK, message);
}

Status Status::fromStatusT(status_t status, const char* message) {
    if (status == OK) return ok();
    return Status(EX_TRANSACTION_FAILED, status, message);
}

std::string Status::description() const {
    static constexpr CodeName kNames[] = {
        {EX_ILLEGAL_ARGUMENT, "EX_ILLEGAL_ARGUMENT"},
        {EX_NULL_POINTER, "EX_NULL_POINTER"},
        {EX_ILLEGAL_STATE, "EX_ILLEGAL_STATE"},
        {EX_UNSUPPORTED_OPERATION, "EX_UNSUPPORTED_OPERATION"},
        {EX_TRANSACTION_FAILED, "EX_TRANSACTION_FAILED"},
    };
    if (isOk()) return "No error";
    const char* name = nameOf(mException, kNames);
    std::string text = "Status(" + (name != nullptr ? name : std::to_string(mException)) + "): '";
    if (mException == EX_TRANSACTION_FAILED) text += statusToString(mTransactionError) + ": ";
    return text + mMessage + "'";
}

namespace details {

return_status::return_status(return_status&& other) noexcept
    : mStatus(std::move(other.mStatus)), mChecked(std::exchange(other.mChecked, true)) {}

return_status& return_status::operator=(return_status other) noexcept {
    std::swap(mStatus, other.mStatus);
    std::swap(mChecked, other.mChecked);
    return *this;
}

return_status::~return_status() {
    endUnlessChecked();
}

void return_status::assertOk() const {
    if (isOk()) return;
    __android_log_print(ANDROID_LOG_FATAL, "HidlStatus",
                        "The value of a failed HIDL call was used. Error is: %s",
                        description().c_str());
    std::abort();
}

void return_status::endUnlessChecked() const {
    if (mChecked || mStatus.isOk()) return;
    __android_log_print(ANDROID_LOG_FATAL, "HidlStatus",
                        "Failed HIDL return status not checked. Error is: %s",
                        description().c_str());
    std::abort();
}

}  // namespace details
}  // namespace hardware

namespace hidl::base::V1_0 {

using ::android::hardware::hidl_death_recipient;
using ::android::hardware::Return;

Return<bool> IBase::linkToDeath(const sp<hidl_death_recipient>&, uint64_t) {
    return false;  // an object of the caller's own process cannot die before the caller
}

Return<bool> IBase::unlinkToDeath(const sp<hidl_death_recipient>&) {
    return false;
}

}  // namespace hidl::base::V1_0
}  // namespace android

namespace host {

android::status_t transactionError(const android::hardware::details::return_status& status) {
    return status.mStatus.transactionError();
}

}  // namespace host
