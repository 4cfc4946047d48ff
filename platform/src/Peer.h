// SPDX-License-Identifier: Apache-2.0
//
// A service's process as its clients see it: alive or dead, who wants to be told, and what its
// clients ask of it. Both kinds of binder, AIDL's and HIDL's, are built on it.

#pragma once

#include <host/ServiceControl.h>
#include <utils/Errors.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace host {

/// Of the stand-ins' own lines in the log.
inline constexpr const char* kLogTag = "android_host";

class ServiceStats;

/// The methods of both interfaces that the host can transact.
enum class Method {
    kAidlGetPowerEntityInfo,
    kAidlGetStateResidency,
    kAidlGetEnergyMeterInfo,
    kAidlReadEnergyMeter,
    kHidlGetRailInfo,
    kHidlGetEnergyData,
    kHidlGetPowerEntityInfo,
    kHidlGetPowerEntityStateInfo,
    kHidlGetPowerEntityStateResidencyData,
    kCount,
};

/// One request to be told of a death, made through one proxy.
class DeathLink {
  public:
    DeathLink(const void* owner, const void* recipient, uint64_t cookie)
        : owner(owner), recipient(recipient), cookie(cookie) {}
    virtual ~DeathLink() = default;

    /// Tells the recipient. Called on the delivering thread with no lock held.
    virtual void deliver() = 0;

    const void* const owner;      ///< the proxy that the link goes with
    const void* const recipient;  ///< tells links of one proxy apart, with the cookie
    const uint64_t cookie;

  private:
    friend class Peer;
    std::atomic<bool> mEnded{false};
};

class Peer : public std::enable_shared_from_this<Peer> {
  public:
    virtual ~Peer() = default;

    bool isAlive() const { return mAlive; }

    /// The process has ended: later transactions fail, and the delivering thread tells the links.
    void die();

    /// Counts a transaction and says how it fails, if it does so before reaching the service.
    std::optional<Failure> begin(Method method);

    /// Counts a link and says how it fails, if it is scripted to.
    std::optional<Failure> beginLink();

    /// Adds a link. A dead peer whose death has not been reported yet accepts it and reports at
    /// once.
    /// @return OK, DEAD_OBJECT once the death has been reported, or FAILED_TRANSACTION when the
    ///     death cannot be watched for.
    android::status_t link(std::shared_ptr<DeathLink> link);

    /// Ends the first link of these two, with this cookie if one is given.
    /// @return OK, DEAD_OBJECT once the death has been reported, or NAME_NOT_FOUND.
    android::status_t unlink(const void* owner, const void* recipient,
                             std::optional<uint64_t> cookie);
    /// Ends all links of a proxy that goes.
    void unlinkAll(const void* owner);

    /// Tells the links of a death. Called by the delivering thread only.
    void report();

    /// What is counted for this peer, by its registered name.
    ServiceStats& stats() const { return *mStats.load(); }
    void setStats(ServiceStats* stats) { mStats = stats; }

  protected:
    /// Watching starts before the first link and stops after the last. Starting twice is harmless.
    virtual bool startWatching() { return true; }
    virtual void stopWatching() {}

  private:
    using Matches = std::function<bool(const DeathLink&)>;
    size_t end(const Matches& matches, size_t most);

    std::atomic<bool> mAlive{true};
    std::atomic<ServiceStats*> mStats{unnamed()};
    static ServiceStats* unnamed();

    void stopWatchingUnlessLinked();

    std::mutex mWatchMutex;  // held while watching starts or stops; taken before mMutex
    std::mutex mMutex;
    bool mReported = false;                          // guarded by mMutex
    std::vector<std::shared_ptr<DeathLink>> mLinks;  // guarded by mMutex
};

/// Called for every link. From the first one on, exit ends the delivery before destructors run.
void expectNotices();

/// Starts the thread that delivers notices, if it does not run yet.
/// @return false when no thread is left; a later call tries again.
bool prepareNotices();

/// Starts a thread that blocks all signals and goes on for as long as the process.
/// @return false when no thread is left.
bool startThread(std::function<void()> function);

/// Has the delivering thread report the death of a peer. The thread starts with the first one.
void deliverNotices(std::shared_ptr<Peer> peer);

/// Tells the observer, if there is one.
void observe(Event event);

}  // namespace host
