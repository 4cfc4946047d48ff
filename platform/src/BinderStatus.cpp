// SPDX-License-Identifier: Apache-2.0

#include <android/binder_status.h>
#include <utils/Errors.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "Binder.h"
#include "NeverDestroyed.h"

struct AStatus {
    binder_exception_t exception = EX_NONE;
    int32_t serviceSpecific = 0;
    binder_status_t status = STATUS_OK;
    std::string message = {};
};

namespace {

/// Returns the one OK status, which all holders share because nearly every call returns it.
AStatus* okStatus() {
    return &host::neverDestroyed<AStatus>();
}

}  // namespace

AStatus* host::newTransactionStatus(binder_status_t status, const char* message) {
    return new AStatus{EX_TRANSACTION_FAILED, 0, status, message};
}

extern "C" {

AStatus* AStatus_newOk() {
    return okStatus();
}

AStatus* AStatus_fromExceptionCode(binder_exception_t exception) {
    return AStatus_fromExceptionCodeWithMessage(exception, "");
}

AStatus* AStatus_fromExceptionCodeWithMessage(binder_exception_t exception, const char* message) {
    const bool failed = exception == EX_TRANSACTION_FAILED;
    return new AStatus{exception, 0, failed ? STATUS_FAILED_TRANSACTION : STATUS_OK, message};
}

AStatus* AStatus_fromServiceSpecificError(int32_t serviceSpecific) {
    return new AStatus{EX_SERVICE_SPECIFIC, serviceSpecific};
}

AStatus* AStatus_fromStatus(binder_status_t status) {
    if (status == STATUS_OK) return AStatus_newOk();
    return host::newTransactionStatus(status, "");
}

bool AStatus_isOk(const AStatus* status) {
    return status->exception == EX_NONE;
}

binder_exception_t AStatus_getExceptionCode(const AStatus* status) {
    return status->exception;
}

binder_status_t AStatus_getStatus(const AStatus* status) {
    return status->status;
}

const char* AStatus_getMessage(const AStatus* status) {
    return status->message.c_str();
}

const char* AStatus_getDescription(const AStatus* status) {
    std::string text = "Status(" + std::to_string(status->exception);
    if (status->exception == EX_SERVICE_SPECIFIC) {
        text += ", " + std::to_string(status->serviceSpecific);
    } else if (status->exception == EX_TRANSACTION_FAILED) {
        text += ", " + android::statusToString(status->status);
    }
    return strdup((text + "): '" + status->message + "'").c_str());
}

void AStatus_deleteDescription(const char* description) {
    free(const_cast<char*>(description));
}

void AStatus_delete(AStatus* status) {
    if (status != okStatus()) delete status;
}

}  // extern "C"
