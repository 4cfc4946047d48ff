// SPDX-License-Identifier: Apache-2.0

#include "power/service/Clients.h"

#include <android/binder_manager.h>
#include <host/ServiceControl.h>

#include "power/service/Records.h"
#include "power/text/Names.h"

namespace powerstats {

namespace {

/// A service may answer any text.
constexpr size_t kMostTextSize = 300;

Failure::Kind kindOf(int32_t transactionError) {
    switch (transactionError) {
        case android::DEAD_OBJECT:
            return Failure::Kind::kGone;
        case android::PERMISSION_DENIED:
            return Failure::Kind::kRefused;
        case android::TIMED_OUT:
            return Failure::Kind::kTimedOut;
        default:
            return Failure::Kind::kOther;
    }
}

Failure makeFailure(int32_t transactionError, const std::string& description) {
    const Failure::Kind kind = kindOf(transactionError);
    switch (kind) {
        case Failure::Kind::kGone:
            return {kind, "the service is gone"};
        case Failure::Kind::kRefused:
            return {kind,
                    "the bus's policy refuses them (join the group: sudo usermod -aG powerstats "
                    "NAME, and log in again; or run as root)"};
        default:
            return {kind, safeName(description, kMostTextSize)};
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
