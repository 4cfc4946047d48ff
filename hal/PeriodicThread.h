// SPDX-License-Identifier: Apache-2.0

#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace powerstats {

/// Calls a function repeatedly on a thread of its own, for as long as this object lives. The first
/// call comes one interval after construction; destruction waits for a call in progress only. When
/// a call throws, the exception is dropped and the next call comes one interval later. The thread
/// blocks all signals, so that a program's handlers run on its own threads.
class PeriodicThread {
  public:
    /// @param name [in] of the thread, at most 15 characters.
    PeriodicThread(const char* name, std::chrono::milliseconds interval,
                   std::function<void()> function);
    ~PeriodicThread();
    PeriodicThread(const PeriodicThread&) = delete;
    PeriodicThread& operator=(const PeriodicThread&) = delete;

  private:
    void run();

    const std::chrono::milliseconds mInterval;
    const std::function<void()> mFunction;
    std::mutex mMutex;
    std::condition_variable mStopRequested;
    bool mStopping = false;
    std::thread mThread;
};

}  // namespace powerstats
