// SPDX-License-Identifier: Apache-2.0
//
// The platform's functions as the library finds them in a test: this program's own, which call the
// platform's and wrap the proxies that it makes. They record the library's requests, and can
// fail them.
//
// A request is named as in an outcome's traffic: the interface, a colon, and "lookup", "link",
// "unlink" or a method, such as "aidl:readEnergyMeter".

#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "tests/support/FakeServices.h"

namespace support {

/// A request that fails without reaching the service, as its client sees it.
struct Failure {
    int32_t error;             ///< a status_t or binder_status_t
    std::string message = {};  ///< part of a HIDL status's description
};

/// Makes the next request of this name fail. Look-ups and the ends of links cannot fail.
void failNext(const std::string& request, const Failure& failure);

/// Returns all requests since the last call of this, failed ones too, and forgets them:
/// "aidl:lookup aidl:link".
std::string takeRequests();
/// Whether requests are recorded. A test that never takes them turns it off.
extern std::atomic<bool> recordsRequests;

/// Returns "aidl:lookup" for AIDL and "lookup".
std::string requestOf(Backend backend, const std::string& name);

/// Called when references go, on the thread that does it: "AIDL recipient deleted", "Aidl proxy
/// destroyed", "Hidl proxy destroyed", "binder released".
/// REQUIRES: no other thread uses the platform while a test sets or resets this
extern std::function<void(const char* event)> onReference;

}  // namespace support
