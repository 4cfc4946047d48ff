// SPDX-License-Identifier: Apache-2.0

#include "hal/PeriodicThread.h"

#include <pthread.h>

#include <utility>

namespace powerstats {

PeriodicThread::PeriodicThread(const char* name, std::chrono::milliseconds interval,
                               std::function<void()> function)
    : mInterval(interval), mFunction(std::move(function)), mThread([this] { run(); }) {
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
        mFunction();
        lock.lock();
    }
}

}  // namespace powerstats
