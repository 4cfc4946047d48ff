// SPDX-License-Identifier: Apache-2.0
//
// The power stats service that a subcommand asks: this machine's counters, served within this
// process, or a service on a bus.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/Source.h"

namespace powerstats {

struct ServiceOptions {
    std::string hal;                 ///< "aidl" or "hidl"; empty: AIDL if it is there
    std::optional<std::string> bus;  ///< "any", "session" or "system"; none: within this process
    double waitSeconds = 2;
    SourceOptions source;  ///< served within this process
};

/// Adds the options that say which service is asked. Mistakes in them are mistakes of parsing.
void addServiceOptions(CommandLine command, ServiceOptions* options);

/// Serves a source of counters in this process, or waits until a service is on the bus. From then
/// on look-ups find that service, and no other, in this process.
/// @param playingTime [in] that of a recording; empty: the clock.
/// @return 0 when a service is there. Otherwise, after one line, the exit status: kFailed when none
///     is on the bus, kUsage when the recording cannot be used.
int openService(const ServiceOptions& options, RecordedCounters::PlayingTime playingTime = {});

/// The recording that the service plays back; null when there is none.
const Replay* ownReplay();

/// The service, or null when none is there now.
std::shared_ptr<aidl::android::hardware::power::stats::IPowerStats> findAidl();
android::sp<android::hardware::power::stats::V1_0::IPowerStats> findHidl();

/// The service within this process over AIDL, whichever interface clients find; null with `--bus`.
std::shared_ptr<aidl::android::hardware::power::stats::IPowerStats> ownService();

/// The counters of energy that the service within this process may not read. openService() said
/// nothing about them.
const std::vector<std::string>& deniedCounters();

/// For a title: "this machine", a file, "the session bus". That is the bus on which openService()
/// found the service.
std::string describe(const ServiceOptions& options);

}  // namespace powerstats
