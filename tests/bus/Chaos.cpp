// SPDX-License-Identifier: Apache-2.0
//
// powerstats_chaos: threads call the library without pause while the service that answers them, a
// process of its own, is killed and started again. Every start serves values of its own, so each
// result tells which service it came from, and a result of two is told from one.

#include <android/log.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <host/ServiceControl.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "proto/power_data_result.pb.h"
#include "tests/bus/Support.h"
#include "tests/hal/TemporaryTree.h"
#include "tools/CommandLine.h"
#include "tools/HostJavaRuntime.h"

namespace powerstats {
namespace {

using com::tavrel::android::ferrolith::poweranomalyservice::proto::PowerDataResult;
using support::kServing;
using support::launchDaemon;
using support::Process;

#ifdef POWERSTATS_MEMORY_UNJUDGED
constexpr bool kJudgeMemory = false;  // a sanitizer's own grows
#else
constexpr bool kJudgeMemory = true;
#endif

constexpr int kWarmUpKills = 20;
constexpr int64_t kRecoveryLimitMs = 10'000;
/// Below the 25 s after which the bus gives up a call: one that this has to save hung too.
constexpr int64_t kHangMs = 20'000;
constexpr int64_t kAbortAfterMs = 40'000;
/// Less than a thousand kills with a leaked proxy each.
constexpr long kMemoryMarginKib = 512;

int64_t nowMs() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}
void sleepMs(double ms) {
    std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(ms));
}

/// Puts what the service of one generation serves into its tree. Things keep their places, and so
/// their ids, under changing names; how many there are changes too.
/// @return the two results, as `textOf` tells them.
std::vector<std::string> makeValues(const TemporaryTree* tree, int generation) {
    std::string rails, states;
    for (int i = 0; i <= generation % 3; ++i) {
        const std::string name = fmt::format("RAIL{}_{}", generation, i);
        const int millijoules = (generation * 3 + i) % 16'000;  // microjoules that a float holds
        if (tree) tree->writeZone(fmt::format("zone:{}", i), name, millijoules * 1000LL);
        rails += fmt::format("1 {} {}mJ;", name, millijoules);
    }
    for (int i = 0; i <= generation % 2; ++i) {
        const std::string name = fmt::format("S{}_{}", generation, i);
        if (tree) tree->writeIdleState(0, i, name, (generation + i) * 1000LL, generation + 2 * i);
        states += fmt::format(" {}:{}/{}", name, generation + i, generation + 2 * i);
    }
    if (tree) tree->write("power/suspend_stats/success", generation);
    return {rails, fmt::format("2 system running:-/{} suspended:-/{};2 cpu0{};", generation + 1,
                               generation, states)};
}

/// The system's times are this machine's, and left out.
std::string textOf(const std::vector<uint8_t>& bytes) {
    PowerDataResult result;
    if (!result.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()))) return "no message";
    std::string text;
    for (const auto& element : result.keyed_power_data()) {
        const std::string& name = element.id().name();
        const auto& data = element.data();
        text += fmt::format("{} {}", static_cast<int>(element.id().kind()), name);
        if (data.has_scalar()) text += fmt::format(" {}mJ", data.scalar().value());
        for (const auto& state : data.residency()) {
            const std::string time = std::to_string(state.total_time_in_state_ms());
            text += fmt::format(" {}:{}/{}", state.name(), name == "system" ? "-" : time,
                                state.total_state_entry_count());
        }
        text += ';';
    }
    return text;
}

/// What of this process and of its bus must not grow.
struct Holdings {
    long descriptors = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    long matchRules = -1;
    long heapKib = 0;
    long residentKib = 0;

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
        std::ifstream status("/proc/self/status");
        for (std::string word; word != "VmRSS:" && status >> word;) {
        }
        status >> residentKib;
    }

    std::string describe() const {
        return fmt::format("{} descriptors, {} match rules, {} KiB of heap, {} KiB resident{}",
                           descriptors, matchRules, heapKib, residentKib,
                           kJudgeMemory ? "" : " (memory not judged under a sanitizer)");
    }
    bool isBackAt(const Holdings& before) const {
        return matchRules >= 0 && matchRules == before.matchRules &&
               descriptors == before.descriptors &&
               (!kJudgeMemory || (heapKib <= before.heapKib + kMemoryMarginKib &&
                                  residentKib <= before.residentKib + kMemoryMarginKib));
    }
};

std::atomic<int64_t> gLogLines{0};

class Chaos {
  public:
    Chaos(const LoadedLibrary& library, int threads, unsigned seed)
        : mLibrary(library), mRandom(seed), mActivities(static_cast<size_t>(threads) + 1) {}

    /// @return the exit code.
    int run(int kills) {
        std::thread watchdog([this, end = nowMs() + 120'000 + kills * 2000LL] { watch(end); });
        // The first call chooses the interface for good, so there is a service before it.
        startService(true);
        recover();
        std::vector<std::thread> callers;
        for (size_t i = 1; i < mActivities.size(); ++i) {
            callers.emplace_back([this, i] {
                for (size_t n = i; !mStop; ++n) call(n % 2, &mActivities[i]);
            });
        }
        killRepeatedly(kWarmUpKills);
        mHits = mCalls = mNulls = 0;
        sleepMs(200);
        const Holdings before;
        const int survived = killRepeatedly(kills);
        Holdings after;
        // The bus is told of what ended without anybody waiting for it.
        for (int i = 0; i < 20 && !after.isBackAt(before); ++i, after = Holdings()) sleepMs(100);
        mStop = true;
        for (auto& caller : callers) caller.join();
        watchdog.join();
        if (!after.isBackAt(before)) fault("something is left over, see below");
        for (const auto& text : mFaults) fmt::print("fault: {}\n", text);
        fmt::print("after warm-up: {}\nat the end:    {}\n", before.describe(), after.describe());
        fmt::print(
            "{} calls, {} of them null; {} kills met a call; slowest call {} ms, recovery {} "
            "ms; {} lines logged\n",
            mCalls.load(), mNulls.load(), mHits.load(), mSlowestCallMs.load(), mSlowestRecoveryMs,
            gLogLines.load());
        fmt::print("{} kills survived, {} hangs, {} wrong answers\n", survived, mHangs.load(),
                   mWrong.load());
        return mFailed ? 1 : 0;
    }

  private:
    /// What a thread does now, for the watchdog.
    struct Activity {
        std::atomic<const char*> what{"starting"};
        std::atomic<int64_t> sinceMs{nowMs()};
        HostJniEnv env;

        void begin(const char* next) {
            sinceMs = nowMs();
            what = next;
        }
    };

    void fault(const std::string& text) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (mFaults.size() < 10) mFaults.push_back(text);
        mFailed = true;
    }
    bool chance(double probability) { return std::bernoulli_distribution(probability)(mRandom); }
    void pause(double atMostMs) { sleepMs(std::uniform_real_distribution<>(0, atMostMs)(mRandom)); }

    /// Ends the program with a message when a thread is stuck or it all takes too long.
    void watch(int64_t endMs) {
        for (; !mStop; sleepMs(50)) {
            bool stuck = nowMs() > endMs;
            for (const auto& at : mActivities) stuck |= nowMs() - at.sinceMs > kAbortAfterMs;
            if (!stuck) continue;
            fmt::print(stderr,
                       "powerstats_chaos: stuck; where the threads are, the killer first:\n");
            for (const auto& at : mActivities) {
                fmt::print(stderr, "  {} for {} ms\n", at.what.load(), nowMs() - at.sinceMs);
            }
            std::abort();
        }
    }

    /// Makes a call and judges what it gives.
    /// @return the generation that it tells of, or 0.
    int call(bool residencies, Activity* at) {
        const int dead = mDead;
        const int steady = mSteady;
        at->begin(residencies ? "getResidenciesNative" : "getRailEnergyNative");
        const JavaBytes bytes =
            residencies ? mLibrary.residencies(&at->env) : mLibrary.railEnergy(&at->env);
        const int64_t lasted = nowMs() - at->sinceMs;
        const int started = mStarted;
        ++mCalls;
        if (lasted > mSlowestCallMs) mSlowestCallMs = lasted;
        if (lasted > kHangMs) {
            ++mHangs;
            fault(fmt::format("{} took {} ms", at->what.load(), lasted));
        }
        std::string text = "null";
        if (bytes) {
            text = textOf(*bytes);
            // Only of a service that ran within the call.
            for (int generation = dead + 1; generation <= started; ++generation) {
                if (text == makeValues(nullptr, generation)[residencies]) return generation;
            }
        } else {
            ++mNulls;
            if (steady == 0) return 0;
            if (steady != mSteady) {
                if (mLastHit.exchange(steady) != steady) ++mHits;
                return 0;
            }
        }
        ++mWrong;
        fault(fmt::format("{} gave {} with services {} to {}", at->what.load(), text, dead + 1,
                          started));
        return 0;
    }

    void startService(bool untilItServes) {
        mActivities[0].begin("starting a service");
        mTree = std::make_unique<TemporaryTree>();
        makeValues(mTree.get(), mStarted + 1);
        ++mStarted;
        mService = launchDaemon("aidl", mTree->root());
        if (untilItServes && !mService->waitFor(kServing)) {
            fault(fmt::format("service {} did not start: {}", mStarted.load(), mService->text()));
        }
    }

    void killService() {
        mActivities[0].begin("killing a service");
        mSteady = 0;
        mService->kill();
        mDead = mStarted.load();
    }

    /// Waits until the library has turned to the service that runs now.
    void recover() {
        const int64_t startMs = nowMs();
        for (bool recovered = false; !recovered && !mFailed;) {
            mActivities[0].begin("waiting for death notices");
            if (!host::waitForDeathNotices(10)) fault("a death notice took more than 10 s");
            recovered = call(false, &mActivities[0]) == mStarted;
            recovered &= call(true, &mActivities[0]) == mStarted;
            if (!recovered && nowMs() - startMs > kRecoveryLimitMs) {
                fault(fmt::format("the library does not turn to service {}", mStarted.load()));
            }
        }
        mSlowestRecoveryMs = std::max(mSlowestRecoveryMs, nowMs() - startMs);
        mSteady = mStarted.load();
    }

    /// Kills the running service and starts others, some of which are killed at once or before they
    /// serve. The last one is left running.
    /// @return how many kills there were.
    int killRepeatedly(int kills) {
        int done = 0;
        while (done < kills && !mFailed) {
            pause(20);
            killService();
            ++done;
            if (chance(0.5)) pause(10);
            for (; done < kills && chance(0.3); ++done) {
                const bool serving = chance(0.5);
                startService(serving);
                if (!serving) pause(30);
                killService();
            }
            startService(true);
            recover();
        }
        return done;
    }

    const LoadedLibrary& mLibrary;
    std::mt19937 mRandom;
    std::vector<Activity> mActivities;  // of the thread that kills, and of the callers
    std::unique_ptr<TemporaryTree> mTree;
    std::unique_ptr<Process> mService;
    // Generations: the last one started, the last one known to be gone, the one that runs and that
    // the library has turned to, or 0, and the last one whose kill a call met.
    std::atomic<int> mStarted{0}, mDead{0}, mSteady{0}, mLastHit{0};
    std::atomic<bool> mStop{false}, mFailed{false};
    std::atomic<int64_t> mCalls{0}, mNulls{0}, mHits{0}, mHangs{0}, mWrong{0}, mSlowestCallMs{0};
    int64_t mSlowestRecoveryMs = 0;
    std::mutex mMutex;
    std::vector<std::string> mFaults;  // guarded by mMutex
};

int run(int argc, char** argv) {
    int kills = 0;
    int threads = 4;
    unsigned seed = std::random_device()();
    CLI::App app("Kills the service under the library's calls.", "powerstats_chaos");
    app.add_option("--kills", kills, "Number of kills")->required()->check(CLI::Range(1, 1000000));
    app.add_option("--threads", threads, "Threads that call")->check(CLI::Range(1, 64));
    app.add_option("--seed", seed, "Of the delays; another one each time by default");
    if (const auto exitCode = parseArguments(&app, argc, argv)) return *exitCode;

    __android_log_set_logger([](const __android_log_message*) { ++gLogLines; });
    const support::PrivateBus bus;
    std::string error;
    const auto library = LoadedLibrary::load(POWERSTATS_LIBRARY, &error);
    if (library == nullptr) {
        printError("powerstats_chaos", error);
        return 1;
    }
    fmt::print("seed {}\n", seed);
    const int exitCode = Chaos(*library, threads, seed).run(kills);
    // What the bus and the programs had to report was printed as it happened.
    return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : exitCode;
}

}  // namespace
}  // namespace powerstats

int main(int argc, char** argv) {
    return powerstats::runProgram("powerstats_chaos", powerstats::run, argc, argv);
}
