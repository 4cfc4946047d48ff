// SPDX-License-Identifier: Apache-2.0

#include <algorithm>
#include <mutex>
#include <utility>

#include "hal/CounterSources.h"

namespace powerstats {

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr int32_t kEntityId = 0x10000;
constexpr char kSuccessfulSuspends[] = "power/suspend_stats/success";

/// The time spent in suspend: CLOCK_BOOTTIME goes on in it and CLOCK_MONOTONIC does not.
class SuspendedTime {
  public:
    explicit SuspendedTime(ReadClock readClock) : mReadClock(std::move(readClock)) {}

    nanoseconds read() {
        nanoseconds least = difference();
        for (int i = 1; i < kReadings; ++i) least = std::min(least, difference());
        std::lock_guard<std::mutex> lock(mMutex);
        mGreatest = std::max(mGreatest, least);
        return mGreatest;
    }

  private:
    /// A thread that is held up between the two clocks sees that time as suspend; it is unlikely
    /// to be held up in every one of a few readings.
    static constexpr int kReadings = 3;

    /// The clock that goes on in suspend is read last, so that the difference is never negative.
    nanoseconds difference() const {
        const nanoseconds running = mReadClock(CLOCK_MONOTONIC);
        return mReadClock(CLOCK_BOOTTIME) - running;
    }

    const ReadClock mReadClock;
    std::mutex mMutex;
    nanoseconds mGreatest{0};
};

int64_t toMilliseconds(nanoseconds time) {
    return duration_cast<milliseconds>(time).count();
}

}  // namespace

nanoseconds readKernelClock(clockid_t clock) {
    timespec time{};
    if (clock_gettime(clock, &time) != 0) return nanoseconds(0);
    return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

EntitySource makeSystemEntity(const std::shared_ptr<const Sysfs>& sysfs, ReadClock readClock) {
    const auto suspends = [sysfs] { return sysfs->readNumber(kSuccessfulSuspends).value_or(0); };
    const auto suspendedTime = std::make_shared<SuspendedTime>(readClock);
    // Booting is an entry into `running`, and so is each return from suspend.
    const auto readRunning = [suspends, readClock] {
        return Residency{toMilliseconds(readClock(CLOCK_MONOTONIC)), suspends() + 1};
    };
    const auto readSuspended = [suspends, suspendedTime] {
        return Residency{toMilliseconds(suspendedTime->read()), suspends()};
    };
    return {kEntityId,
            "system",
            EntityType::kSystem,
            {{0, "running", readRunning}, {1, "suspended", readSuspended}}};
}

}  // namespace powerstats
