// SPDX-License-Identifier: Apache-2.0
//
// The services of this process by name, and the counts and scripts of each name.

#pragma once

#include "Peer.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

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
    /// Return the scripted failure of the next call, if there is one.
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
    std::shared_ptr<void> object;  ///< keeps the object alive; the service name determines its type
    std::shared_ptr<Peer> peer;
};

/// Logs, at DEBUG, why a transaction failed, because its caller may ignore the reason.
void logFailure(Method method, const std::string& reason);

/// Puts a service in the register and replaces one of the same name.
void registerService(const std::string& name, RegisteredService service);

/// Counts a look-up, and finds the service of that name in this process, or else on a bus.
/// @return one whose object is null when there is none.
RegisteredService findService(const std::string& name);

/// Finds services of other processes. The bus plugs itself in here; the register knows no bus.
class OtherProcesses {
  public:
    virtual ~OtherProcesses() = default;

    /// @return a service whose object is null when there is none, or no such bus.
    virtual RegisteredService find(Bus bus, const std::string& name) = 0;
    /// Returns once every death that a bus knows of has been noticed.
    virtual void noticeDeaths() = 0;
    /// @return one line about a bus that cannot be reached, with the remedy; empty when it can.
    virtual std::string findTrouble(Bus bus) = 0;
    /// @return the names that processes own; none when the bus cannot be reached.
    virtual std::vector<std::string> listNames(Bus bus) = 0;
    /// Gives the calling thread connections of its own.
    virtual void useOwnConnections() = 0;
    /// Limits the time of every call from then on.
    virtual void setTimeLimit(double seconds) = 0;
};

/// @param others [in] lives as long as the process.
void plugIn(OtherProcesses* others);

/// Returns the plugged-in object; null in a build without a bus.
OtherProcesses* otherProcesses();

}  // namespace host
