// SPDX-License-Identifier: Apache-2.0
//
// powerstats_bench: the cost of the library, compared with a bare client's cost on the same data.
//
// Benchmarks are named "GROUP/BACKEND/COLLECTION/SIZE/NAME-LENGTH/SUBJECT". The subject is the
// library, another build of it ("against"), or the bare client of bench/BareClient.h ("floor"). The
// groups are "steady" calls, the "first" call, and "threads-N" that call at once. Only ratios of
// subjects within one run count: times differ between machines and moments.
//
// Usage: powerstats_bench REPETITIONS [OTHER-LIBRARY] [--benchmark_filter=REGEX...]
// Large collections have a quarter of the repetitions.

#include <android/binder_manager.h>
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <fmt/format.h>
#include <host/JavaRuntime.h>
#include <host/ServiceControl.h>
#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/BareClient.h"
#include "bench/Workload.h"
#include "proto/power_data_result.pb.h"
#include "tests/support/Allocations.h"

namespace bench {
namespace {

namespace proto = ::com::tavrel::android::ferrolith::poweranomalyservice::proto;

using benchmark::State;
using host::HostJniEnv;
using host::JavaBytes;
using host::LoadedLibrary;
using Clock = std::chrono::steady_clock;

/// Ends the program with a line on standard error.
[[noreturn]] void fail(const std::string& text) {
    fmt::print(stderr, "powerstats_bench: {}\n", text);
    std::exit(1);
}

/// A build of the library, or the bare client.
struct Build {
    std::string subject;
    std::string file;
    bool bare = false;
};

int64_t bootTimeMs() {
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

/// A service for a workload, in the register of this process while this exists.
class RegisteredService {
  public:
    explicit RegisteredService(const Workload& workload) : mName(nameOf(workload.backend)) {
        if (workload.backend == Backend::kAidl) {
            const auto service = ndk::SharedRefBase::make<support::FakeAidl>();
            service->machine = workload.machine();
            AServiceManager_addService(service->asBinder().get(), mName);
        } else {
            const android::sp<support::FakeHidl> service = new support::FakeHidl;
            service->tell(workload.machine());
            if (service->registerAsService() != android::OK) fail("no service can be registered");
        }
    }
    ~RegisteredService() {
        host::killService(mName);
        if (!host::waitForDeathNotices()) std::abort();
    }
    RegisteredService(const RegisteredService&) = delete;
    RegisteredService& operator=(const RegisteredService&) = delete;

  private:
    const char* const mName;
};

/// A loaded build. A bare client loads the library too, so that both leave the processor's caches
/// in one state.
class Subject {
  public:
    Subject(const Build& build, const Workload& workload) : mCall(workload.call) {
        std::string error;
        mLibrary = LoadedLibrary::load(build.file, &error);
        if (mLibrary == nullptr) fail(error);
        if (build.bare) mClient = std::make_unique<BareClient>(workload);
    }
    /// Connects and collects. The library does so by itself.
    JavaBytes callFirst(HostJniEnv* env) {
        if (mClient) mClient->connect();
        return call(env);
    }
    JavaBytes call(HostJniEnv* env) {
        if (mClient) return mClient->collect(bootTimeMs(), env);
        JavaBytes bytes =
            mCall == Call::kRails ? mLibrary->railEnergy(env) : mLibrary->residencies(env);
        if (!bytes) fail("the library returned null");
        return bytes;
    }
    /// From one of several threads. The library has a mutex of its own.
    void callInTurn(HostJniEnv* env) {
        std::unique_lock<std::mutex> lock(mMutex, std::defer_lock);
        if (mClient) lock.lock();
        call(env);
    }

  private:
    const Call mCall;
    std::unique_ptr<LoadedLibrary> mLibrary;
    std::unique_ptr<BareClient> mClient;
    std::mutex mMutex;
};

/// Ends the program unless the build of the library and the bare client return the same bytes.
void check(const Build& build, const Workload& workload) {
    const RegisteredService service(workload);
    HostJniEnv env;
    const JavaBytes expected = Subject(build, workload).callFirst(&env);
    proto::PowerDataResult result;
    if (!result.ParseFromArray(expected->data(), static_cast<int>(expected->size())) ||
        result.keyed_power_data_size() != workload.elements) {
        fail(workload.text() + ": the result does not have all elements");
    }
    BareClient client(workload);
    client.connect();
    // The clock goes on between calls.
    if (client.collect(result.keyed_power_data(0).id().timestamp_ms(), &env) != expected) {
        fail(workload.text() + ": the bare client's bytes differ from those of " + build.file);
    }
}

// The groups of benchmarks.

void measureSteady(State& state, const Build& build, const Workload& workload) {
    Subject subject(build, workload);
    HostJniEnv env;
    subject.callFirst(&env);
    for (auto _ : state) subject.call(&env);
    const support::Allocations before = support::allocations();
    subject.call(&env);
    const support::Allocations after = support::allocations();
    state.counters["allocations"] = static_cast<double>(after.count - before.count);
    state.counters["size"] = workload.size();
}

void measureFirst(State& state, const Build& build, const Workload& workload) {
    HostJniEnv env;
    for (auto _ : state) {
        Subject subject(build, workload);
        const auto start = Clock::now();
        subject.callFirst(&env);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    state.counters["size"] = workload.size();
}

/// Times threads that share a number of calls, from their common start to the end of the last call.
/// The threads' own times would add up to too little: the mutex may let a thread make all of its
/// calls, and end, before the next one makes any.
void measureThreads(State& state, const Build& build, const Workload& workload, int threads) {
    constexpr int kCalls = 16;
    Subject subject(build, workload);
    HostJniEnv first;
    subject.callFirst(&first);
    for (auto _ : state) {
        std::atomic<int> ready{0};
        std::atomic<bool> started{false};
        std::vector<std::thread> callers;
        callers.reserve(static_cast<size_t>(threads));
        for (int i = 0; i < threads; ++i) {
            callers.emplace_back([&] {
                HostJniEnv env;
                subject.callInTurn(&env);  // so that the thread has a heap
                ++ready;
                while (!started) std::this_thread::yield();
                for (int j = 0; j < kCalls / threads; ++j) subject.callInTurn(&env);
            });
        }
        while (ready != threads) std::this_thread::yield();
        const auto begin = Clock::now();
        started = true;
        for (auto& caller : callers) caller.join();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
    }
    state.counters["size"] = kCalls * workload.size();
}

/// Of each kind, the collections are in the order of their sizes.
std::vector<Workload> allWorkloads() {
    using Size = std::pair<int, int>;
    std::vector<Workload> all;
    for (const Backend backend : support::kBackends) {
        for (const int nameLength : {12, 40}) {
            for (const int rails : {20, 60, 1000, 100000}) {
                all.push_back({backend, Call::kRails, rails, 0, nameLength});
            }
            for (const auto& [entities, states] :
                 {Size(20, 5), Size(50, 8), Size(1000, 10), Size(10000, 10)}) {
                all.push_back({backend, Call::kResidencies, entities, states, nameLength});
            }
        }
    }
    return all;
}

/// Registers a repetition of a workload's benchmarks. The subjects of a comparison follow one
/// another within a moment, so that a machine that is slow for a moment slows all of them, and in
/// random order, so that none always finds the caches that the same one left.
/// @param thorough [in] also large collections. A quarter of the repetitions is enough for these.
void addAll(std::vector<Build> builds, const Workload& workload, bool thorough,
            std::mt19937* random) {
    const auto compare = [&](const std::string& group, int iterations, const auto& measure) {
        std::shuffle(builds.begin(), builds.end(), *random);
        for (const Build& build : builds) {
            const std::string name = group + "/" + workload.text() + "/" + build.subject;
            auto* const benchmark = benchmark::RegisterBenchmark(name.c_str(), [=](State& state) {
                // Free chunks that the last benchmark left scattered would cost this one cache
                // misses.
                malloc_trim(0);
                const RegisteredService service(workload);
                measure(state, build, workload);
            });
            benchmark->Iterations(iterations);
            if (group != "steady") benchmark->UseManualTime();
        }
    };
    const bool isOrdinary = workload.elements < 1000;  // as many as a device of today has
    // A few milliseconds.
    const int iterations = std::max(20'000 / workload.size(), 1);
    if (isOrdinary || thorough) compare("steady", iterations, measureSteady);
    if (workload.nameLength != 12) return;
    if (isOrdinary) compare("first", 50, measureFirst);
    if (workload.elements != 1000 || workload.call != Call::kResidencies) return;
    for (const int threads : {1, 2, 4, 8}) {
        compare(fmt::format("threads-{}", threads), 1,
                [threads](auto&... arguments) { measureThreads(arguments..., threads); });
    }
}

int run(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const int repetitions = argc > 1 ? std::atoi(argv[1]) : 0;
    if (repetitions < 1 || argc > 3) {
        fail("usage: powerstats_bench REPETITIONS [OTHER-LIBRARY] [--benchmark_...]");
    }

    // Keep the heap: returning it to the kernel after a large collection, and faulting it in again,
    // would cost more than the measured work.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    // Log lines are formatted, as always, but not written.
    __android_log_set_logger([](const __android_log_message*) {});
    host::setBusLookups({});
    std::vector<Build> builds = {{"library", LoadedLibrary::defaultFile()}};
    if (argc == 3) builds.push_back({"against", argv[2]});
    // Check first: long-lived allocations between freed chunks would fragment the heap.
    const std::vector<Workload> workloads = allWorkloads();
    for (const Build& build : builds) {
        for (const Workload& workload : workloads) check(build, workload);
    }
    builds.push_back({"floor", builds.front().file, true});
    std::mt19937 random(std::random_device{}());
    for (int i = 0; i < repetitions; ++i) {
        for (const Workload& workload : workloads) addAll(builds, workload, i % 4 == 0, &random);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    return bench::run(argc, argv);
}
