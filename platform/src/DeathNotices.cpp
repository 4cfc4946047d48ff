// SPDX-License-Identifier: Apache-2.0
//
// The thread that delivers death notices. No call of a service waits for it, because a recipient
// may be waiting for a lock that the caller holds. Only AIBinder_DeathRecipient_delete and exit
// wait for a notice that runs.

#include <host/ServiceControl.h>
#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "NeverDestroyed.h"
#include "Peer.h"
#include "Register.h"

namespace host {
namespace {

class DeathNotices {
  public:
    /// Starts the delivering thread. If the system has no thread left, a later call tries again.
    bool prepare() {
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mStarted) mStarted = startThread([this] { run(); });
        return mStarted;
    }

    void add(std::shared_ptr<Peer> peer) {
        prepare();
        std::lock_guard<std::mutex> lock(mMutex);
        if (mStopped) return;
        mPeers.push_back(std::move(peer));
        mChanged.notify_all();
    }

    bool waitUntilDone(double seconds) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mChanged.wait_for(lock, std::chrono::duration<double>(seconds),
                                 [this] { return mPeers.empty() && !mReporting; });
    }

    /// Begins no further notice, and waits for one that runs.
    void stop() {
        std::unique_lock<std::mutex> lock(mMutex);
        mStopped = true;
        // A recipient that ends the process itself must not wait for itself.
        if (std::this_thread::get_id() == mThread) return;
        mChanged.wait(lock, [this] { return !mReporting; });
    }

  private:
    [[noreturn]] void run() {
        std::unique_lock<std::mutex> lock(mMutex);
        mThread = std::this_thread::get_id();
        while (true) {
            mChanged.wait(lock, [this] { return !mPeers.empty() && !mStopped; });
            std::shared_ptr<Peer> peer = std::move(mPeers.front());
            mPeers.pop_front();
            mReporting = true;
            lock.unlock();
            peer->report();
            peer.reset();
            lock.lock();
            mReporting = false;
            mChanged.notify_all();
        }
    }

    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<std::shared_ptr<Peer>> mPeers;
    std::thread::id mThread;
    bool mStarted = false;
    bool mReporting = false;
    bool mStopped = false;
};

}  // namespace

bool startThread(std::function<void()> function) {
    // Signals are for the program's own threads, which expect them.
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool started = true;
    try {
        std::thread(std::move(function)).detach();
    } catch (const std::exception&) {
        started = false;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

bool prepareNotices() {
    return neverDestroyed<DeathNotices>().prepare();
}

void expectNotices() {
    // A recipient must not be called while the destructors of the library that made it run at exit.
    // A link is made after its recipient, so this handler runs before those destructors.
    [[maybe_unused]] static const int registered =
        std::atexit([] { neverDestroyed<DeathNotices>().stop(); });
}

void deliverNotices(std::shared_ptr<Peer> peer) {
    neverDestroyed<DeathNotices>().add(std::move(peer));
}

bool waitForDeathNotices(double seconds) {
    noticeDeathsOnBuses();
    return neverDestroyed<DeathNotices>().waitUntilDone(seconds);
}

}  // namespace host
