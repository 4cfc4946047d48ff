// SPDX-License-Identifier: Apache-2.0
//
// The platform's functions as the library finds them in a test: this program's own, which call the
// platform's and wrap the proxies that it makes. They count the library's requests, and can fail
// them.
//
// A request is named as in an outcome's traffic: the interface, a colon, and "lookup", "link",
// "unlink" or a method, such as "aidl:readEnergyMeter". Any other name ends the process.

#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/FakeServices.h"

namespace support {

/// A request that fails without reaching the service, as its client sees it.
struct Failure {
    int32_t exceptionCode = -129;  ///< EX_TRANSACTION_FAILED
    int32_t transactionError = 0;  ///< with EX_TRANSACTION_FAILED: a status_t or binder_status_t
    std::string message = {};      ///< part of a HIDL status's description
    bool withoutStatus = false;    ///< AIDL only: a holder without a status
};

/// Makes the next request of this name fail. Look-ups and the ends of links cannot fail.
void failNext(const std::string& request, const Failure& failure);

struct RequestCount {
    const char* request;
    int64_t count;
};
/// Returns the counts of all requests since the process started, failed ones too, in the order of
/// an outcome's traffic.
std::vector<RequestCount> requestCounts();
int64_t requestCount(const std::string& request);

/// Returns "aidl:lookup" for AIDL and "lookup".
std::string requestOf(Backend backend, const std::string& name);

/// Returns the number of proxies that somebody holds.
int proxies(Backend backend);

/// Called when references come and go, on the thread that does it: "AIDL recipient created",
/// "AIDL recipient deleted", "AIDL proxy destroyed", "HIDL proxy destroyed", "binder released".
/// REQUIRES: no other thread uses the platform while this is set
extern std::function<void(const char* event)> onReference;

}  // namespace support
