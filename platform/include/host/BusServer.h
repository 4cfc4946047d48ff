// SPDX-License-Identifier: Apache-2.0
//
// Offers service objects of this process to others, over D-Bus.

#pragma once

#include <aidl/android/hardware/power/stats/IPowerStats.h>
#include <android/hardware/power/stats/1.0/IPowerStats.h>
#include <host/ServiceControl.h>

#include <memory>
#include <string>

namespace host {

/// A connection to a bus that offers services and serves their calls, one at a time, on the thread
/// that calls `run`. Anybody on the bus may call, so no call can end the process or block the
/// others: the server skips a call that wants no reply, refuses a list of too many ids before it
/// reads the list, and reads no call while too many answers wait to be sent.
class BusServer {
  public:
    /// Connects to a bus. From then on this thread, and the threads that it starts, block SIGTERM
    /// and SIGINT, which end `run`.
    /// @param error [out] on failure one line with the reason.
    /// @return null on failure.
    static std::unique_ptr<BusServer> connect(Bus bus, std::string* error);
    ~BusServer();
    BusServer(const BusServer&) = delete;
    BusServer& operator=(const BusServer&) = delete;

    /// Offers a service under its interface's name, as the instance "default".
    /// @param error [out] on failure one line with the reason, for example that the name is taken.
    bool add(std::shared_ptr<::aidl::android::hardware::power::stats::IPowerStats> service,
             std::string* error);
    bool add(const ::android::sp<::android::hardware::power::stats::V1_0::IPowerStats>& service,
             std::string* error);

    /// Serves until SIGTERM or SIGINT comes.
    /// @param error [out] on failure one line with the reason, for example that the bus went away.
    /// @return whether a signal ended it.
    bool run(std::string* error);

  private:
    struct Impl;
    explicit BusServer(std::unique_ptr<Impl> impl);

    std::unique_ptr<Impl> mImpl;
};

}  // namespace host
