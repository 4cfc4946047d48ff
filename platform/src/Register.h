// SPDX-License-Identifier: Apache-2.0
//
// The services of this process by name, and what is counted and scripted for each name.

#pragma once

#include "Peer.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace host {

/// The counts and scripts of one name. An object lives as long as the process.
class ServiceStats {
  public:
    std::atomic<int64_t> lookups{0};
    std::atomic<int64_t> links{0};
    std::atomic<int64_t> unlinks{0};
    std::array<std::atomic<int64_t>, static_cast<size_t>(Method::kCount)> transactions{};

    void scriptTransaction(Method method, const Failure& failure, int times);
    void scriptLink(const Failure& failure, int times);
    /// The failure that is due now, if there is one.
    std::optional<Failure> nextTransaction(Method method);
    std::optional<Failure> nextLink();

    static ServiceStats& of(const std::string& name);

  private:
    struct Script {
        Failure failure;
        std::atomic<int> times{0};
    };
    std::optional<Failure> next(Script* script);

    std::mutex mMutex;  // guards the scripts' failures
    std::array<Script, static_cast<size_t>(Method::kCount)> mTransactionScripts;
    Script mLinkScript;
};

/// A service in the register: an AIBinder, or a HIDL interface, and the process it stands for.
struct RegisteredService {
    std::shared_ptr<void> object;  ///< keeps it alive; what it points to the name tells
    std::shared_ptr<Peer> peer;
};

/// Logs, at DEBUG, why a transaction failed, since its caller may not look at the reason.
void logFailure(Method method, const std::string& reason);

/// Puts a service in the register, in place of one under the same name.
void registerService(const std::string& name, RegisteredService service);

/// Counts a look-up, and finds the service under that name: in this process, or else on a bus.
/// @return one whose object is null when there is none.
RegisteredService findService(const std::string& name);

/// Finds services of other processes. The bus plugs itself in here; the register knows no bus.
class OtherProcesses {
  public:
    virtual ~OtherProcesses() = default;

    /// @return a service whose object is null when there is none, or no such bus.
    virtual RegisteredService find(Bus bus, const std::string& name) = 0;
    /// Makes sure that every death has been noticed that a bus knows of.
    virtual void noticeDeaths() = 0;
};

/// @param others [in] lives as long as the process.
void plugIn(OtherProcesses* others);

/// The object that was plugged in; null in a build without a bus.
OtherProcesses* otherProcesses();

}  // namespace host
