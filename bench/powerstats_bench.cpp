// SPDX-License-Identifier: Apache-2.0
//
// powerstats_bench: the cost of the library, compared with a bare client's cost on the same data.
//
// Benchmarks are named "GROUP/BACKEND/COLLECTION/SIZE/NAME-LENGTH". The groups are "steady" calls,
// the "first" call, and "threads-N" that call at once. Each repetition measures all subjects: the
// library, another build of it ("against"), and the bare client of bench/BareClient.h ("floor").
// Their nanoseconds are counters. Only ratios of subjects within one repetition count: times differ
// between machines and moments.
//
// Usage: powerstats_bench REPETITIONS [OTHER-LIBRARY] [--benchmark_...]
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
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/BareClient.h"
#include "bench/Workload.h"
#include "proto/power_data_result.pb.h"
#include "tests/support/Allocations.h"

namespace bench {
namespace {

using benchmark::State;
using host::HostJniEnv;
using host::JavaBytes;
using host::LoadedLibrary;

/// Ends the program with a line on standard error.
[[noreturn]] void fail(const std::string& text) {
    fmt::print(stderr, "powerstats_bench: {}\n", text);
    std::exit(1);
}

int64_t nanoseconds(clockid_t clock) {
    timespec now;
    clock_gettime(clock, &now);
    return static_cast<int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

/// A build of the library, or the bare client.
struct Subject {
    std::string name;
    std::string file;
    bool bare = false;
};

/// Makes a collection, and connects first if it is the first one.
using Collection = std::function<JavaBytes(HostJniEnv*)>;

/// Loads a subject. The bare client loads the library too, so that both leave the processor's
/// caches in one state.
Collection load(const Subject& subject, const Workload& workload) {
    std::string error;
    const std::shared_ptr<LoadedLibrary> library = LoadedLibrary::load(subject.file, &error);
    if (library == nullptr) fail(error);
    if (subject.bare) {
        return [library, client = std::make_shared<BareClient>(workload)](HostJniEnv* env) {
            return client->collect(nanoseconds(CLOCK_BOOTTIME) / 1'000'000, env);
        };
    }
    const auto method =
        workload.call == Call::kRails ? &LoadedLibrary::railEnergy : &LoadedLibrary::residencies;
    return [library, method](HostJniEnv* env) {
        JavaBytes bytes = (*library.*method)(env);
        if (!bytes) fail("the library returned null");
        return bytes;
    };
}

/// Does work while a service for a workload is in the register of this process.
template <typename Work>
void withService(const Workload& workload, const Work& work) {
    const char* const name = support::nameOf(workload.backend);
    if (workload.backend == Backend::kAidl) {
        const auto service = ndk::SharedRefBase::make<support::FakeAidl>();
        service->machine = workload.machine();
        AServiceManager_addService(service->asBinder().get(), name);
    } else {
        const android::sp<support::FakeHidl> service = new support::FakeHidl;
        service->tell(workload.machine());
        if (service->registerAsService() != android::OK) fail("no service can be registered");
    }
    work();
    host::killService(name);
    if (!host::waitForDeathNotices()) std::abort();
}

/// Ends the program unless the library and the bare client return the same bytes.
void check(const Subject& subject, const Workload& workload) {
    HostJniEnv env;
    const JavaBytes expected = load(subject, workload)(&env);
    proto::PowerDataResult result;
    if (!result.ParseFromArray(expected->data(), static_cast<int>(expected->size())) ||
        result.keyed_power_data_size() != workload.elements) {
        fail(workload.text() + ": the result does not have all elements");
    }
    // The clock goes on between calls.
    if (BareClient(workload).collect(result.keyed_power_data(0).id().timestamp_ms(), &env) !=
        expected) {
        fail(workload.text() + ": the bare client's bytes differ from those of " + subject.file);
    }
}

// The groups of benchmarks. Each returns the nanoseconds of its calls.

int64_t measureSteady(State& state, const Subject& subject, const Workload& workload) {
    const Collection call = load(subject, workload);
    HostJniEnv env;
    call(&env);
    const int calls = std::max(20'000 / workload.size(), 1);  // a few milliseconds
    // All of a call's work is this thread's, whatever else the machine does.
    const int64_t start = nanoseconds(CLOCK_THREAD_CPUTIME_ID);
    for (int i = 0; i < calls; ++i) call(&env);
    const int64_t spent = nanoseconds(CLOCK_THREAD_CPUTIME_ID) - start;
    const int64_t before = support::allocations().count;
    call(&env);
    state.counters[subject.name + " allocations"] =
        static_cast<double>(support::allocations().count - before);
    return spent / calls;
}

int64_t measureFirst(State& /*state*/, const Subject& subject, const Workload& workload) {
    constexpr int kCalls = 50;
    HostJniEnv env;
    int64_t spent = 0;
    for (int i = 0; i < kCalls; ++i) {
        const Collection call = load(subject, workload);
        spent -= nanoseconds(CLOCK_MONOTONIC);
        call(&env);
        spent += nanoseconds(CLOCK_MONOTONIC);
    }
    return spent / kCalls;
}

constexpr int kThreadedCalls = 16;

/// Times threads that share a number of calls, from their common start to the end of the last call.
/// The threads' own times would add up to too little: the mutex may let a thread make all of its
/// calls, and end, before the next one makes any.
int64_t measureThreads(const Subject& subject, const Workload& workload, int threads) {
    const Collection call = load(subject, workload);
    std::mutex mutex;
    const auto callInTurn = [&](HostJniEnv* env) {
        std::unique_lock<std::mutex> lock(mutex, std::defer_lock);
        if (subject.bare) lock.lock();  // the library has a mutex of its own
        call(env);
    };
    std::atomic<int> ready{0};
    std::atomic<bool> started{false};
    std::vector<std::thread> callers;
    callers.reserve(static_cast<size_t>(threads));
    for (int i = 0; i < threads; ++i) {
        callers.emplace_back([&] {
            HostJniEnv env;
            callInTurn(&env);  // so that the thread has a heap
            ++ready;
            while (!started) std::this_thread::yield();
            for (int j = 0; j < kThreadedCalls / threads; ++j) callInTurn(&env);
        });
    }
    while (ready != threads) std::this_thread::yield();
    const int64_t start = nanoseconds(CLOCK_MONOTONIC);
    started = true;
    for (auto& caller : callers) caller.join();
    return nanoseconds(CLOCK_MONOTONIC) - start;
}

/// Registers the benchmarks of a workload.
void addAll(const std::vector<Subject>& subjects, const Workload& workload, int repetitions) {
    const auto add = [&](const std::string& group, int calls, const auto& measure) {
        const auto run = [=](State& state) {
            static std::mt19937 random(std::random_device{}());
            // The subjects follow one another within a moment, so that a machine that is slow for a
            // moment slows all of them, and in random order, so that none always finds the caches
            // that the same one left.
            std::vector<Subject> order = subjects;
            std::shuffle(order.begin(), order.end(), random);
            for (auto _ : state) {
                for (const Subject& subject : order) {
                    // Free chunks that the last one left scattered would cost this one cache
                    // misses.
                    malloc_trim(0);
                    withService(workload, [&] {
                        state.counters[subject.name] =
                            static_cast<double>(measure(state, subject, workload));
                    });
                }
            }
            state.counters["size"] = calls * workload.size();
        };
        benchmark::RegisterBenchmark((group + "/" + workload.text()).c_str(), run)
            ->Iterations(1)
            ->Repetitions(repetitions);
    };
    add("steady", 1, measureSteady);
    if (workload.nameLength != 12) return;
    if (workload.elements < 1000) add("first", 1, measureFirst);
    if (workload.elements != 1000 || workload.call != Call::kResidencies) return;
    for (const int threads : {1, 2, 4, 8}) {
        add(fmt::format("threads-{}", threads), kThreadedCalls,
            [threads](State&, auto&... arguments) {
                return measureThreads(arguments..., threads);
            });
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
    std::vector<Subject> subjects = {{"library", LoadedLibrary::defaultFile()}};
    if (argc == 3) subjects.push_back({"against", argv[2]});
    std::vector<Workload> workloads;
    for (const Backend backend : support::kBackends) {
        for (const int nameLength : {12, 40}) {
            // Of each kind in the order of their sizes. The first two are those of today's devices.
            for (const int rails : {20, 60, 1000, 100000}) {
                workloads.push_back({backend, Call::kRails, rails, 1, nameLength});
            }
            for (const auto& [entities, states] :
                 {std::pair(20, 5), {50, 8}, {1000, 10}, {10000, 10}}) {
                workloads.push_back({backend, Call::kResidencies, entities, states, nameLength});
            }
        }
    }
    // Check first: long-lived allocations between freed chunks would fragment the heap.
    for (const Workload& workload : workloads) {
        withService(workload, [&] {
            for (const Subject& subject : subjects) check(subject, workload);
        });
    }
    subjects.push_back({"floor", subjects.front().file, true});
    for (const Workload& workload : workloads) {
        addAll(subjects, workload, workload.elements < 1000 ? repetitions : (repetitions + 3) / 4);
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
