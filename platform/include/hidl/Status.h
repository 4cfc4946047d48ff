// SPDX-License-Identifier: Apache-2.0
//
// Transport results of HIDL calls: whether a call reached its service at all.

#pragma once

#include <utils/Errors.h>

#include <cstdint>
#include <string>
#include <utility>

namespace android::hardware::details {
class return_status;
}

namespace host {

/// Returns the transport's code of a HIDL call, or android::OK. A device tells it in the status's
/// text only. Does not mark the status as checked.
::android::status_t transactionError(const ::android::hardware::details::return_status& status);

}  // namespace host

namespace android::hardware {

/// The outcome of one transaction.
class Status final {
  public:
    enum Exception : int32_t {
        EX_NONE = 0,
        EX_ILLEGAL_ARGUMENT = -3,
        EX_NULL_POINTER = -4,
        EX_ILLEGAL_STATE = -5,
        EX_UNSUPPORTED_OPERATION = -7,
        EX_TRANSACTION_FAILED = -129,
    };

    static Status ok() { return Status(); }
    static Status fromExceptionCode(int32_t exceptionCode, const char* message = "");
    /// OK for android::OK, otherwise EX_TRANSACTION_FAILED with that transaction error.
    static Status fromStatusT(status_t status, const char* message = "");

    Status() = default;

    bool isOk() const { return mException == EX_NONE; }
    /// Returns the transport's code when the exception code is EX_TRANSACTION_FAILED, otherwise
    /// android::OK.
    status_t transactionError() const { return mTransactionError; }
    /// Returns a readable text: "No error", "Status(EX_ILLEGAL_ARGUMENT): 'MESSAGE'", or
    /// "Status(EX_TRANSACTION_FAILED): 'DEAD_OBJECT: MESSAGE'". An empty message keeps the colon
    /// and the space before it.
    std::string description() const;

  private:
    Status(int32_t exception, status_t transactionError, const char* message)
        : mException(exception), mTransactionError(transactionError), mMessage(message) {}

    int32_t mException = EX_NONE;
    status_t mTransactionError = OK;
    std::string mMessage;
};

namespace details {

/// A status that the caller must check. The destructor of a failed status that nobody checked ends
/// the process, because the caller would go on with an answer that never came.
class return_status {
  public:
    return_status() = default;
    return_status(const Status& status) : mStatus(status) {}
    return_status(return_status&& other) noexcept;
    return_status& operator=(return_status other) noexcept;
    ~return_status();

    /// Returns whether the call succeeded, and marks the status as checked.
    bool isOk() const {
        mChecked = true;
        return mStatus.isOk();
    }
    /// Does the same without marking it.
    bool isOkUnchecked() const { return mStatus.isOk(); }
    /// Returns whether the service's process is gone. Does not mark the status as checked.
    bool isDeadObject() const { return mStatus.transactionError() == DEAD_OBJECT; }
    /// Returns a readable text of the status. Does not mark it as checked.
    std::string description() const { return mStatus.description(); }

  protected:
    /// Ends the process unless the status is OK.
    void assertOk() const;

  private:
    friend status_t host::transactionError(const return_status& status);
    void endUnlessChecked() const;

    Status mStatus;
    mutable bool mChecked = false;
};

}  // namespace details

/// The return type of HIDL calls: the transport's status and, for some calls, a value.
template <typename T>
class Return : public details::return_status {
  public:
    Return(T value) : mValue(std::move(value)) {}
    Return(const Status& status) : return_status(status), mValue{} {}

    /// Returns the value. Ends the process when the call failed.
    operator T() const {
        assertOk();
        return mValue;
    }

  private:
    T mValue;
};

template <>
class Return<void> : public details::return_status {
  public:
    Return() = default;
    Return(const Status& status) : return_status(status) {}
};

/// Returns the result of a call that the service has answered.
inline Return<void> Void() {
    return Return<void>();
}

}  // namespace android::hardware
