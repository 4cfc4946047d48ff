// SPDX-License-Identifier: Apache-2.0

#include "power/service/Interfaces.h"

#include <android/binder_manager.h>
#include <host/ServiceControl.h>

#include "power/text/Names.h"

namespace powerstats {

namespace {

Failure makeFailure(int32_t transactionError, const std::string& description) {
    switch (transactionError) {
        case android::DEAD_OBJECT:
            return {Failure::Kind::kGone, "the service is gone"};
        case android::PERMISSION_DENIED:
            return {Failure::Kind::kRefused,
                    "the bus's policy refuses them (join the group: sudo usermod -aG powerstats "
                    "NAME, and log in again; or run as root)"};
        case android::TIMED_OUT:
            return {Failure::Kind::kTimedOut, safeName(description, SIZE_MAX)};
        default:
            return {Failure::Kind::kOther, safeName(description, SIZE_MAX)};
    }
}

}  // namespace

std::shared_ptr<stats_aidl::IPowerStats> findAidl() {
    return stats_aidl::IPowerStats::fromBinder(
        ndk::SpAIBinder(AServiceManager_checkService(host::kAidlPowerStats)));
}

android::sp<stats_V1_0::IPowerStats> findHidl() {
    return stats_V1_0::IPowerStats::getService();
}

Failure failureOf(const ndk::ScopedAStatus& status) {
    if (status.isOk()) return {};
    if (status.get() == nullptr) return {Failure::Kind::kOther, "the call returned no status"};
    return makeFailure(status.getStatus(), status.getDescription());
}

Failure failureOf(const android::hardware::Return<void>& result) {
    if (result.isOk()) return {};
    return makeFailure(host::transactionError(result), result.description());
}

}  // namespace powerstats
