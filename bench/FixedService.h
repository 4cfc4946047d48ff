// SPDX-License-Identifier: Apache-2.0
//
// A power stats service whose answers are made once, so that a call of it costs as little as its
// interface allows.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>

#include <functional>
#include <memory>

#include "bench/Workload.h"

namespace bench {

using AidlPowerStats = ::aidl::android::hardware::power::stats::IPowerStats;
using HidlPowerStats = ::android::hardware::power::stats::V1_0::IPowerStats;

/// Makes services that share one set of answers.
std::function<std::shared_ptr<AidlPowerStats>()> aidlServices(const Workload& workload);
std::function<::android::sp<HidlPowerStats>()> hidlServices(const Workload& workload);

/// A service for the workload, in the register of this process while this exists.
class RegisteredService {
  public:
    explicit RegisteredService(const Workload& workload);
    ~RegisteredService();
    RegisteredService(const RegisteredService&) = delete;
    RegisteredService& operator=(const RegisteredService&) = delete;

    /// Kills it, waits until its clients have been told, and registers another.
    void restart();

  private:
    const char* const mName;
    std::function<void()> mServe;
};

/// Serves the workload to other processes, on the session bus, until standard input ends.
/// @return the exit code of a program that does only this.
int serveOnBus(const Workload& workload);

}  // namespace bench
