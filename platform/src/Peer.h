// SPDX-License-Identifier: Apache-2.0
//
// A service's process as its clients see it: whether it is alive, and the links to its death. Both
// AIDL's and HIDL's binders are built on it.

#pragma once

#include <utils/Errors.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <tuple>

namespace host {

/// The tag of the stand-ins' own log lines.
inline constexpr const char* kLogTag = "android_host";

/// Distinguishes the links to a death: the proxy, with which the link ends, the recipient, and
/// AIDL's cookie.
using LinkKey = std::tuple<const void*, const void*, const void*>;

class Peer : public std::enable_shared_from_this<Peer> {
  public:
    bool isAlive() const { return mAlive; }

    /// Marks the process as ended: later transactions fail, and the links get their notices.
    void die();

    /// Adds a link. A dead peer whose death has not been reported yet accepts it, and its notice
    /// follows at once.
    /// @param deliver [in] calls the recipient. Runs on the delivering thread with no lock held.
    /// @return OK, or DEAD_OBJECT once the death has been reported.
    android::status_t link(const LinkKey& key, std::function<void()> deliver);

    /// Ends the first link of this key.
    /// @return OK, DEAD_OBJECT once the death has been reported, or NAME_NOT_FOUND.
    android::status_t unlink(const LinkKey& key);
    /// Ends all links of a proxy that is being destroyed.
    void unlinkAll(const void* proxy);

    /// Delivers the notices. REQUIRES: this is the delivering thread
    void report();

  private:
    std::atomic<bool> mAlive{true};
    std::mutex mMutex;
    bool mReported = false;                                       // guarded by mMutex
    std::list<std::pair<LinkKey, std::function<void()>>> mLinks;  // guarded by mMutex
};

/// Starts the thread that delivers notices, if it does not run yet.
/// @return false when the system has no thread left; a later call tries again.
bool prepareNotices();

/// Starts a thread that blocks all signals and runs until the process ends.
/// @return false when the system has no thread left.
bool startThread(std::function<void()> function);

/// Lets the delivering thread report the death of a peer. Starts the thread if needed.
void deliverNotices(std::shared_ptr<Peer> peer);

/// Must be called before every link. From the first call on, an exit of the process stops the
/// delivery before destructors run.
void expectNotices();

}  // namespace host
