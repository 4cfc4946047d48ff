// SPDX-License-Identifier: Apache-2.0
//
// Threads call the library without pause while the service that answers them, a process of its own,
// is killed and started again. Each start serves values of its own, so a result tells its service,
// and a result mixed from two services matches none.

#include <android/log.h>
#include <gtest/gtest.h>
#include <host/ServiceControl.h>
#include <malloc.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/bus/Support.h"

namespace support {
namespace {

/// The resources of this process that must not grow. A connection to the bus is a descriptor.
struct Holdings {
    long descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    long heapKib = 0;

    Holdings() {
        malloc_trim(0);
        heapKib = static_cast<long>(mallinfo2().uordblks / 1024);
    }

    bool isBackAt(const Holdings& before) const {
        return descriptors == before.descriptors &&
               (!kJudgeMemory ||
                heapKib <= before.heapKib + 512);  // a thousand leaked proxies need more
    }
};

class Chaos : public testing::Test {
  protected:
    /// Makes a call and judges its result. Only a call that a death met may return null.
    /// @return the generation of the service that answered, or 0.
    int judgedCall(Call call, host::HostJniEnv* env) {
        const int dead = mDead;
        const int steady = mSteady;
        const auto bytes = toText(call == Call::kRails ? mScenario.library->railEnergy(env)
                                                       : mScenario.library->residencies(env));
        const int started = mStarted;
        ++mCalls;
        // The service must have run during the call.
        for (int generation = dead + 1; generation <= started; ++generation) {
            if (bytes == busResult(call, generation)) return generation;
        }
        mNulls += bytes ? 0 : 1;
        if (bytes || (steady != 0 && steady == mSteady)) {
            ADD_FAILURE() << call << " returned " << bytes.value_or("null") << " with services "
                          << dead + 1 << " to " << started;
        }
        return 0;
    }

    void startService(bool untilItServes) {
        mService = startPeer({"serve", "aidl", std::to_string(++mStarted)}, untilItServes);
    }

    /// Waits until the library uses the service that runs now.
    void recover() {
        do {
            EXPECT_TRUE(host::waitForDeathNotices(10));
        } while (!HasFailure() && (judgedCall(Call::kRails, &mScenario.env) != mStarted ||
                                   judgedCall(Call::kResidencies, &mScenario.env) != mStarted));
        mSteady = mStarted.load();
    }

    /// Kills the running service and starts others, some of which it kills at once or before they
    /// serve. Leaves the last one running.
    void killRepeatedly(int kills) {
        for (; kills > 0 && !HasFailure(); --kills) {
            usleep(mRandom() % 20'000);
            mSteady = 0;
            mService->kill();
            mDead = mStarted.load();
            const bool last = kills == 1 || mRandom() % 10 < 7;
            startService(last || mRandom() % 2 == 0);
            if (last) recover();
        }
    }

    const PrivateBus mBus;
    std::unique_ptr<Process> mService;
    BusScenario mScenario;
    std::mt19937 mRandom{std::random_device()()};
    // Generations: the last one started, the last one known to be gone, and the one that runs and
    // that the library uses, or 0.
    std::atomic<int> mStarted{0}, mDead{0}, mSteady{0};
    std::atomic<long> mCalls{0}, mNulls{0};
};

TEST_F(Chaos, EachCallReturnsTheResultOfOneLivingServiceAndNothingIsLeftOver) {
    const char* const text = std::getenv("POWERSTATS_CHAOS_KILLS");
    const int kills = text != nullptr ? std::atoi(text) : 50;
    alarm(120 + 2 * static_cast<unsigned>(kills));  // ends a process that is stuck
    mScenario.load();
    mScenario.env.onCall = nullptr;  // records of events and requests would grow
    recordsRequests = false;
    bootClock().onRead = nullptr;
    __android_log_set_logger([](const __android_log_message*) {});
    // The first call chooses the interface for good, so a service runs before it.
    startService(true);
    recover();
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (size_t i = 0; i < 4; ++i) {
        callers.emplace_back([this, i, &stop] {
            host::HostJniEnv env;
            for (size_t n = i; !stop; ++n) judgedCall(kCalls[n % 2], &env);
        });
    }
    killRepeatedly(20);  // until all that stays has been made
    usleep(200'000);
    const Holdings before;
    killRepeatedly(kills);
    Holdings after;
    // The bus learns a little later of connections that have ended.
    for (int i = 0; i < 20 && !after.isBackAt(before); ++i, after = Holdings()) usleep(100'000);
    stop = true;
    for (auto& caller : callers) caller.join();
    std::printf("%d kills under %ld calls, %ld of them null\n", kills, mCalls.load(),
                mNulls.load());
    EXPECT_GT(mNulls, 0) << "no kill met a call";
    EXPECT_TRUE(after.isBackAt(before))
        << before.descriptors << " and " << after.descriptors << " descriptors, " << before.heapKib
        << " and " << after.heapKib << " KiB of heap";
}

}  // namespace
}  // namespace support
