// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace powerstats {

/// Calls a function once per interval on a thread of its own, for as long as this object lives.
/// When a call throws, the exception is dropped and the next call comes one interval later. The
/// thread blocks all signals, so that a program's handlers run on its own threads.
class PeriodicThread {
  public:
    /// The first call comes after one interval.
    /// @param name [in] of the thread, at most 15 characters.
    PeriodicThread(const char* name, std::chrono::milliseconds interval,
                   std::function<void()> function)
        : mInterval(interval), mFunction(std::move(function)) {
        sigset_t all, before;
        sigfillset(&all);
        // A thread inherits the signal mask of its creator.
        pthread_sigmask(SIG_SETMASK, &all, &before);
        try {
            mThread = std::thread([this] { run(); });
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            throw;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        pthread_setname_np(mThread.native_handle(), name);
    }

    /// Waits for a call in progress.
    ~PeriodicThread() {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mStopping = true;
        }
        mStopRequested.notify_one();
        mThread.join();
    }

    PeriodicThread(const PeriodicThread&) = delete;
    PeriodicThread& operator=(const PeriodicThread&) = delete;

  private:
    void run() {
        std::unique_lock<std::mutex> lock(mMutex);
        while (!mStopRequested.wait_for(lock, mInterval, [this] { return mStopping; })) {
            lock.unlock();
            try {
                mFunction();
            } catch (...) {  // NOLINT(bugprone-empty-catch): the next call makes up for this one
            }
            lock.lock();
        }
    }

    const std::chrono::milliseconds mInterval;
    const std::function<void()> mFunction;
    std::mutex mMutex;
    std::condition_variable mStopRequested;
    bool mStopping = false;
    std::thread mThread;
};

}  // namespace powerstats
