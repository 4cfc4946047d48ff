// SPDX-License-Identifier: Apache-2.0
//
// Offers service objects of this process to others, over D-Bus.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

namespace host {

enum class Bus { kSession, kSystem };

/// The user who makes the call that this thread is serving, as the bus knows it; nothing outside of
/// such a call, or when the bus does not tell.
std::optional<uid_t> callingUser();

/// A connection to a bus that offers services and serves their calls, one at a time, on the thread
/// that calls `run`.
class BusServer {
  public:
    /// @param error [out] on failure one line that says why.
    /// @return null on failure.
    static std::unique_ptr<BusServer> connect(Bus bus, std::string* error);
    ~BusServer();
    BusServer(const BusServer&) = delete;
    BusServer& operator=(const BusServer&) = delete;

    /// Offers a service under its interface's name, as the instance "default".
    /// @param error [out] on failure one line that says why, as when the name is taken.
    bool add(std::shared_ptr<::aidl::android::hardware::power::stats::IPowerStats> service,
             std::string* error);
    bool add(const ::android::sp<::android::hardware::power::stats::V1_0::IPowerStats>& service,
             std::string* error);

    /// Serves until something can be read from `stopFd`.
    /// @param error [out] on failure one line that says why, as when the bus went away.
    /// @return whether it was asked to stop.
    bool run(int stopFd, std::string* error);

  private:
    struct Impl;
    explicit BusServer(std::unique_ptr<Impl> impl);

    std::unique_ptr<Impl> mImpl;
};

}  // namespace host
