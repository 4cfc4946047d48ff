// SPDX-License-Identifier: Apache-2.0
//
// Results of binder calls, as the NDK declares them: plain status codes, exception codes, and the
// status object that an AIDL method returns.

#pragma once

#include <errno.h>
#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    STATUS_OK = 0,
    STATUS_UNKNOWN_ERROR = (-2147483647 - 1),
    STATUS_NO_MEMORY = -ENOMEM,
    STATUS_INVALID_OPERATION = -ENOSYS,
    STATUS_BAD_VALUE = -EINVAL,
    STATUS_NAME_NOT_FOUND = -ENOENT,
    STATUS_PERMISSION_DENIED = -EPERM,
    STATUS_DEAD_OBJECT = -EPIPE,
    STATUS_FAILED_TRANSACTION = (STATUS_UNKNOWN_ERROR + 2),
    STATUS_TIMED_OUT = -ETIMEDOUT,
    STATUS_UNKNOWN_TRANSACTION = -EBADMSG,
    STATUS_UNEXPECTED_NULL = (STATUS_UNKNOWN_ERROR + 8),
};
typedef int32_t binder_status_t;

enum {
    EX_NONE = 0,
    EX_SECURITY = -1,
    EX_ILLEGAL_ARGUMENT = -3,
    EX_NULL_POINTER = -4,
    EX_ILLEGAL_STATE = -5,
    EX_UNSUPPORTED_OPERATION = -7,
    EX_SERVICE_SPECIFIC = -8,
    EX_TRANSACTION_FAILED = -129,
};
typedef int32_t binder_exception_t;

/// The result of an AIDL call. A function that returns one gives the ownership to the caller, who
/// releases it with AStatus_delete.
typedef struct AStatus AStatus;

AStatus* AStatus_newOk();
AStatus* AStatus_fromExceptionCode(binder_exception_t exception);
AStatus* AStatus_fromExceptionCodeWithMessage(binder_exception_t exception, const char* message);
AStatus* AStatus_fromServiceSpecificError(int32_t serviceSpecific);
AStatus* AStatus_fromStatus(binder_status_t status);

bool AStatus_isOk(const AStatus* status);
binder_exception_t AStatus_getExceptionCode(const AStatus* status);
/// Returns the transport's code when the exception code is EX_TRANSACTION_FAILED, otherwise
/// STATUS_OK.
binder_status_t AStatus_getStatus(const AStatus* status);
/// Returns the exception's message, never null; valid until the status is deleted.
const char* AStatus_getMessage(const AStatus* status);
/// Returns a text of the whole status; the caller releases it with AStatus_deleteDescription.
const char* AStatus_getDescription(const AStatus* status);
void AStatus_deleteDescription(const char* description);
void AStatus_delete(AStatus* status);

#ifdef __cplusplus
}
#endif
