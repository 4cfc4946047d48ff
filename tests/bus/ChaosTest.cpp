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
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/bus/BusMachine.h"
#include "tests/bus/Support.h"

namespace support {
namespace {

using std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr int kWarmUpKills = 20;
constexpr int kThreads = 4;
constexpr Seconds kRecoveryLimit{10};
/// Less than the 25 s after which the bus gives up a call, because a call that needs this limit
/// hung.
constexpr Seconds kHang{20};
/// Less than a thousand kills with a leaked proxy each.
constexpr long kMemoryMarginKib = 512;

/// The result of a call that one generation of the service answers.
std::string resultOf(int generation, Call call) {
    const Machine machine = busMachine(std::to_string(generation));
    std::string rails;
    for (size_t i = 0; i < machine.rails.size(); ++i) {
        rails += rail(machine.rails[i].name, machine.energies[i].energyUWs / 1000);
    }
    std::vector<std::string> states;
    for (const auto& state : machine.totals[0].stateResidencyData) {
        states.push_back(residency(machine.entities[0].states[static_cast<size_t>(state.id)].name,
                                   state.totalTimeInStateMs, state.totalStateEntryCount));
    }
    return call == Call::kRails ? rails : entity(machine.entities[0].name, states);
}

/// The resources of this process and of its bus that must not grow.
struct Holdings {
    long descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    long matchRules = -1;
    long heapKib = 0;

    Holdings() {
        Process stats({"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus",
                       "/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats.GetStats"},
                      true);
        stats.wait();
        const std::string number = "uint32 ";
        const size_t found = stats.text().find(number, stats.text().find("\"MatchRules\""));
        if (found != std::string::npos) {
            matchRules = std::stol(stats.text().substr(found + number.size()));
        }
        malloc_trim(0);
        heapKib = static_cast<long>(mallinfo2().uordblks / 1024);
    }

    bool isBackAt(const Holdings& before) const {
        return matchRules >= 0 && matchRules == before.matchRules &&
               descriptors == before.descriptors &&
               (!kJudgeMemory || heapKib <= before.heapKib + kMemoryMarginKib);
    }
};

class Chaos : public testing::Test {
  protected:
    /// Makes a call and judges its result. Only a call that a death met may return null.
    /// @return the generation of the service that answered, or 0.
    int judgedCall(Call call, host::HostJniEnv* env) {
        const int dead = mDead;
        const int steady = mSteady;
        const auto start = steady_clock::now();
        const auto bytes = call == Call::kRails ? mScenario.library->railEnergy(env)
                                                : mScenario.library->residencies(env);
        const Seconds lasted = steady_clock::now() - start;
        const int started = mStarted;
        ++mCalls;
        EXPECT_LT(lasted.count(), kHang.count()) << call;
        std::string text = "null";
        if (bytes) {
            text.assign(bytes->begin(), bytes->end());
            // The service must have run during the call.
            for (int generation = dead + 1; generation <= started; ++generation) {
                if (text == resultOf(generation, call)) return generation;
            }
        } else {
            ++mNulls;
            if (steady == 0 || steady != mSteady) return 0;
        }
        ADD_FAILURE() << call << " returned " << text << " with services " << dead + 1 << " to "
                      << started;
        return 0;
    }

    void startService(bool untilItServes) {
        mService = startPeer({"serve", "aidl", std::to_string(++mStarted)}, untilItServes);
    }

    void killService() {
        mSteady = 0;
        mService->kill();
        mDead = mStarted.load();
    }

    /// Waits until the library uses the service that runs now.
    void recover() {
        const auto start = steady_clock::now();
        for (bool recovered = false; !recovered && !HasFailure();) {
            EXPECT_TRUE(host::waitForDeathNotices(10));
            recovered = judgedCall(Call::kRails, &mScenario.env) == mStarted &&
                        judgedCall(Call::kResidencies, &mScenario.env) == mStarted;
            EXPECT_LT(Seconds(steady_clock::now() - start).count(), kRecoveryLimit.count());
        }
        mSteady = mStarted.load();
    }

    bool chance(double probability) { return std::bernoulli_distribution(probability)(mRandom); }
    void pause(int atMostMs) { usleep(1000 * (mRandom() % static_cast<unsigned>(atMostMs))); }

    /// Kills the running service and starts others, some of which it kills at once or before they
    /// serve. Leaves the last one running.
    void killRepeatedly(int kills) {
        while (kills > 0 && !HasFailure()) {
            pause(20);
            killService();
            --kills;
            if (chance(0.5)) pause(10);
            for (; kills > 0 && chance(0.3); --kills) {
                const bool serving = chance(0.5);
                startService(serving);
                if (!serving) pause(30);
                killService();
            }
            startService(true);
            recover();
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
    mScenario.env.onCall = nullptr;  // records of events would grow
    bootClock().onRead = nullptr;
    __android_log_set_logger([](const __android_log_message*) {});
    // The first call chooses the interface for good, so a service runs before it.
    startService(true);
    recover();
    std::atomic<bool> stop{false};
    std::vector<std::thread> callers;
    for (size_t i = 0; i < kThreads; ++i) {
        callers.emplace_back([this, i, &stop] {
            host::HostJniEnv env;
            for (size_t n = i; !stop; ++n) judgedCall(kCalls[n % 2], &env);
        });
    }
    killRepeatedly(kWarmUpKills);
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
        << before.descriptors << " and " << after.descriptors << " descriptors, "
        << before.matchRules << " and " << after.matchRules << " match rules, " << before.heapKib
        << " and " << after.heapKib << " KiB of heap";
}

}  // namespace
}  // namespace support
