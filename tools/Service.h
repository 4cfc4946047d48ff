// SPDX-License-Identifier: Apache-2.0
//
// The power stats service that a subcommand asks: this machine's counters, served within this
// process, or a service on a bus.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>

namespace powerstats {

struct ServiceOptions {
    std::string hal;                 ///< "aidl" or "hidl"; empty: AIDL if it is there
    std::optional<std::string> bus;  ///< "any", "session" or "system"; none: within this process
    double waitSeconds = 2;
    std::string sysfs = "/sys";
};

/// Adds the options that say which service is asked. Mistakes in them are mistakes of parsing.
void addServiceOptions(CLI::App* command, ServiceOptions* options);

/// Serves this machine's counters in this process, or waits until a service is on the bus. From
/// then on look-ups find that service, and no other, in this process.
/// @return whether a service is there. Otherwise one line on standard error says why.
bool openService(const ServiceOptions& options);

/// The service, or null when none is there now.
std::shared_ptr<aidl::android::hardware::power::stats::IPowerStats> findAidl();
android::sp<android::hardware::power::stats::V1_0::IPowerStats> findHidl();

/// The service within this process over AIDL, whichever interface clients find; null with `--bus`.
std::shared_ptr<aidl::android::hardware::power::stats::IPowerStats> ownService();

/// For a title: "this machine", "the session bus".
std::string describe(const ServiceOptions& options);

/// Whether this user may not read a file of the machine's counters.
bool isDenied();

}  // namespace powerstats
