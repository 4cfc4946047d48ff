// SPDX-License-Identifier: Apache-2.0

#include "hal/PeriodicThread.h"

#include <pthread.h>

#include <csignal>
#include <utility>

namespace powerstats {

namespace {

/// Starts a thread that blocks every signal from its first instruction on.
std::thread startWithSignalsBlocked(const std::function<void()>& run) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    // A thread inherits the signal mask of its creator.
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread;
    try {
        thread = std::thread(run);
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

}  // namespace

PeriodicThread::PeriodicThread(const char* name, std::chrono::milliseconds interval,
                               std::function<void()> function)
    : mInterval(interval),
      mFunction(std::move(function)),
      mThread(startWithSignalsBlocked([this] { run(); })) {
    pthread_setname_np(mThread.native_handle(), name);
}

PeriodicThread::~PeriodicThread() {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStopping = true;
    }
    mStopRequested.notify_one();
    mThread.join();
}

void PeriodicThread::run() {
    std::unique_lock<std::mutex> lock(mMutex);
    while (!mStopRequested.wait_for(lock, mInterval, [this] { return mStopping; })) {
        lock.unlock();
        try {
            mFunction();
        } catch (...) {  // NOLINT(bugprone-empty-catch): a missed call is made up for by the next
        }
        lock.lock();
    }
}

}  // namespace powerstats
