// SPDX-License-Identifier: Apache-2.0
//
// powerstats_bench: the cost of the library, compared with a bare client's cost on the same data.
//
// Benchmarks are named "GROUP/BACKEND/COLLECTION/SIZE/NAME-LENGTH/SUBJECT", and those of
// several threads end with how many. The subject is the library, another build of it ("against"),
// or a bare client, which bench/BareClient.h describes. In the group "counters" ("sysfs/numbers",
// SIZE files) it is the service for Linux, or bare preads. Only ratios of subjects within one run
// count: times differ between machines and moments.

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <host/JavaRuntime.h>
#include <host/ServiceControl.h>
#include <malloc.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/BareClient.h"
#include "bench/Workload.h"
#include "hal/Sysfs.h"
#include "proto/power_data_result.pb.h"
#include "tests/support/Allocations.h"
#include "tools/CommandLine.h"

namespace bench {
namespace {

namespace proto = ::com::tavrel::android::ferrolith::poweranomalyservice::proto;

using benchmark::State;
using host::HostJniEnv;
using host::JavaBytes;
using host::LoadedLibrary;

/// A build of the library.
struct Build {
    std::string subject;
    std::string file;
};

std::unique_ptr<LoadedLibrary> load(const Build& build) {
    std::string error;
    auto library = LoadedLibrary::load(build.file, &error);
    if (library == nullptr) fail(error);
    return library;
}

JavaBytes collect(const LoadedLibrary& library, Call call, HostJniEnv* env) {
    JavaBytes bytes = call == Call::kRails ? library.railEnergy(env) : library.residencies(env);
    if (!bytes) fail("the library returned null");
    return bytes;
}

/// Ends the program unless the library, the floor and the limit return the same bytes.
void check(const Build& build, const Workload& workload) {
    const RegisteredService service(workload);
    HostJniEnv env;
    const auto library = load(build);
    const JavaBytes expected = collect(*library, workload.call, &env);
    proto::PowerDataResult result;
    if (!result.ParseFromArray(expected->data(), static_cast<int>(expected->size())) ||
        result.keyed_power_data_size() != workload.elements) {
        fail(workload.text() + ": the result does not have all elements");
    }
    // The clock goes on between calls.
    const int64_t timestampMs = result.keyed_power_data(0).id().timestamp_ms();
    BareClient client(workload);
    client.connect(false);
    for (const Step step : {Step::kFloor, Step::kLimit}) {
        if (client.collect(step, timestampMs, &env) != expected) {
            fail(workload.text() + ": the bare client's bytes differ from those of " + build.file);
        }
    }
}

/// Times `run` in the benchmark's loop and counts its allocations.
void measure(State& state, const Workload& workload, const std::function<void()>& run) {
    run();
    for (auto _ : state) run();
    const support::Allocations before = support::allocations();
    run();
    const support::Allocations after = support::allocations();
    state.counters["allocations"] = static_cast<double>(after.count - before.count);
    state.counters["allocated_bytes"] = static_cast<double>(after.bytes - before.bytes);
    state.counters["size"] = workload.size();
}

/// Times `run` alone; `prepare` and `after` surround it in every iteration.
void measureWithin(State& state, const std::function<void()>& prepare,
                   const std::function<void()>& run, const std::function<void()>& after) {
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        prepare();
        const auto start = Clock::now();
        run();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
        after();
    }
}

/// One subject within one process: the library, or a bare client that goes as far as a step.
struct Subject {
    Subject(const Workload& workload, const Build& build, std::optional<Step> bare = {})
        : workload(workload), build(build), bare(bare), service(workload) {}

    /// A bare client loads the library too, so that both leave the processor's caches in one state.
    void load() {
        library = bench::load(build);
        if (bare) client = std::make_unique<BareClient>(workload);
    }
    void unload() {
        client.reset();
        library.reset();
    }
    /// Connects and collects. The library does so by itself.
    /// @param choose [in] whether it is the first call, which chooses the backend.
    void callFirst(bool choose) {
        if (bare) client->connect(choose);
        call();
    }
    void call() {
        if (bare) {
            client->collect(*bare, bootTimeMs(), &env);
        } else {
            collect(*library, workload.call, &env);
        }
    }

    const Workload& workload;
    const Build& build;
    const std::optional<Step> bare;
    RegisteredService service;
    HostJniEnv env;
    std::unique_ptr<LoadedLibrary> library;
    std::unique_ptr<BareClient> client;
};

// The groups of benchmarks.

void measureSteady(State& state, Subject& subject) {
    subject.load();
    subject.callFirst(false);
    measure(state, subject.workload, [&] { subject.call(); });
}

void measureFirst(State& state, Subject& subject) {
    measureWithin(
        state, [&] { subject.load(); }, [&] { subject.callFirst(true); },
        [&] { subject.unload(); });
}

void measureLoading(State& state, Subject& subject) {
    measureWithin(
        state, [] {},
        [&] {
            subject.load();
            subject.callFirst(true);
        },
        [&] { subject.unload(); });
}

void measureReconnect(State& state, Subject& subject) {
    subject.load();
    subject.callFirst(true);
    measureWithin(
        state,
        [&] {
            subject.service.restart();
            if (subject.client) subject.client->disconnect();
        },
        [&] { subject.callFirst(false); }, [] {});
}

/// Takes the choice of the backend away, so that a steady call has to choose again.
void measureSelecting(State& state, Subject& subject) {
    using Collector = std::function<jbyteArray(JNIEnv*, jclass)>;
    subject.load();
    auto* const chosen = static_cast<Collector*>(subject.library->symbol(
        subject.workload.call == Call::kRails ? "_ZN9ferrolith18gGetRailEnergyImplE"
                                              : "_ZN9ferrolith19gGetResidenciesImplE"));
    if (chosen == nullptr) fail(subject.build.file + ": does not export its choice");
    subject.call();
    measureWithin(
        state, [&] { *chosen = nullptr; }, [&] { subject.call(); }, [] {});
}

/// Times threads that share a number of calls, from their common start to the end of the last call.
/// The threads' own times would add up to too little: the mutex may let a thread make all of its
/// calls, and end, before the next one makes any.
void measureThreads(State& state, Subject& subject, int threads) {
    constexpr int kCalls = 16;
    subject.load();
    if (subject.bare) subject.client->connect(false);
    std::mutex mutex;  // a bare client's, as the library has one
    for (auto _ : state) {
        std::atomic<int> ready{0};
        std::promise<void> start;
        const std::shared_future<void> started(start.get_future());
        std::vector<std::thread> callers;
        callers.reserve(static_cast<size_t>(threads));
        for (int i = 0; i < threads; ++i) {
            callers.emplace_back([&] {
                HostJniEnv env;
                const auto call = [&] {
                    if (subject.bare) {
                        const std::lock_guard<std::mutex> lock(mutex);
                        subject.client->collect(*subject.bare, bootTimeMs(), &env);
                    } else {
                        collect(*subject.library, subject.workload.call, &env);
                    }
                };
                call();  // so that the thread has a heap
                ++ready;
                started.wait();
                for (int j = 0; j < kCalls / threads; ++j) call();
            });
        }
        while (ready != threads) std::this_thread::yield();
        const auto begin = std::chrono::steady_clock::now();
        start.set_value();
        for (auto& caller : callers) caller.join();
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
        state.SetIterationTime(time.count());
    }
    state.counters["size"] = kCalls;
}

/// @param build [in] of the library; null for the bare calls of a collection.
void measureBus(State& state, const Workload& workload, const Build* build) {
    const BusService service(workload);
    HostJniEnv env;
    const auto library = build != nullptr ? load(*build) : nullptr;
    measure(state, workload, [&] {
        if (library != nullptr) {
            collect(*library, workload.call, &env);
        } else {
            service.call();
        }
    });
}

constexpr int kMostCounters = 1280;

/// `count` paths below /sys of the times that devices were active and suspended; repeated when the
/// machine has fewer, and none when it has none.
std::vector<std::string> counterFiles(size_t count) {
    namespace fs = std::filesystem;
    std::vector<std::string> files;
    std::error_code error;
    for (fs::recursive_directory_iterator entry("/sys/devices", error), end;
         !error && entry != end && files.size() < count; entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name == "runtime_active_time" || name == "runtime_suspended_time") {
            files.push_back(fs::relative(entry->path(), "/sys").string());
        }
    }
    for (size_t i = 0; !files.empty() && files.size() < count; ++i) files.push_back(files[i]);
    return files;
}

/// Reads all files in every iteration: by the service for Linux, or as the floor by bare preads.
void measureCounters(State& state, const std::vector<std::string>& paths, bool floor) {
    const auto sysfs = std::make_shared<const powerstats::Sysfs>("/sys", nullptr);
    std::vector<std::unique_ptr<powerstats::NumberFile>> files;
    std::vector<int> descriptors;
    for (const std::string& path : paths) {
        if (floor) {
            descriptors.push_back(open(("/sys/" + path).c_str(), O_RDONLY | O_CLOEXEC));
        } else {
            files.push_back(std::make_unique<powerstats::NumberFile>(sysfs, path));
        }
    }
    const auto readAll = [&] {
        char buffer[64];
        for (const int descriptor : descriptors) {
            if (pread(descriptor, buffer, sizeof(buffer), 0) <= 0) fail("pread of /sys failed");
        }
        for (const auto& file : files) {
            if (!file->read()) fail("a counter of /sys cannot be read");
        }
    };
    readAll();  // opens the service's files
    for (auto _ : state) readAll();
    for (const int descriptor : descriptors) close(descriptor);
    state.counters["size"] = static_cast<double>(paths.size());
}

/// @param files [in] kMostCounters of them, or none.
void addCounters(const std::vector<std::string>& files, std::mt19937* random) {
    if (files.empty()) return;
    for (const int count : {40, kMostCounters}) {
        const std::vector<std::string> paths(files.begin(), files.begin() + count);
        const bool floorFirst = (*random)() % 2 == 0;
        for (const bool floor : {floorFirst, !floorFirst}) {
            const std::string name = "counters/sysfs/numbers/" + std::to_string(count) + "/0/" +
                                     (floor ? "floor" : "service");
            benchmark::RegisterBenchmark(name.c_str(), [=](State& state) {
                measureCounters(state, paths, floor);
            })->Iterations(10'000 / count);
        }
    }
}

benchmark::internal::Benchmark* add(const std::string& group, const Workload& workload,
                                    const std::string& subject,
                                    const std::function<void(State&)>& run) {
    const std::string name = group + "/" + workload.text() + "/" + subject;
    return benchmark::RegisterBenchmark(name.c_str(), [=](State& state) {
        // Free chunks that the last benchmark left scattered would cost this one cache misses.
        malloc_trim(0);
        run(state);
    });
}

std::vector<Workload> allWorkloads() {
    const struct {
        Call call;
        int elements;
        int states;
    } sizes[] = {
        {Call::kRails, 20, 0},          {Call::kRails, 60, 0},
        {Call::kRails, 1000, 0},        {Call::kRails, 100000, 0},
        {Call::kResidencies, 20, 5},    {Call::kResidencies, 50, 8},
        {Call::kResidencies, 1000, 10}, {Call::kResidencies, 10000, 10},
    };
    std::vector<Workload> all;
    for (const Backend backend : {Backend::kAidl, Backend::kHidl}) {
        for (const auto& size : sizes) {
            for (const int nameLength : {12, 40}) {
                all.push_back({backend, size.call, size.elements, size.states, nameLength});
            }
        }
    }
    return all;
}

/// A bare client that goes as far as a step.
struct Bare {
    const char* subject;
    Step step;
};

/// Registers a repetition of a workload's benchmarks. The subjects of a comparison follow one
/// another within a moment, so that a machine that is slow for a moment slows all of them, and in
/// random order, so that none always finds the caches that the same one left. `builds` outlive
/// them.
/// @param thorough [in] also large collections, and calls over a bus. A quarter of the repetitions
///     is enough for these.
void addAll(const std::vector<Build>& builds, const Workload& workload, bool bus, bool thorough,
            std::mt19937* random) {
    const auto compare = [&](const std::string& group, const std::string& suffix,
                             const std::vector<Bare>& bares, int iterations, const auto& measure) {
        std::vector<std::pair<std::string, std::function<void(State&)>>> subjects;
        const auto addSubject = [&](const std::string& name, const Build& build,
                                    std::optional<Step> bare) {
            subjects.emplace_back(name + suffix, [=, &build](State& state) {
                Subject subject(workload, build, bare);
                measure(state, subject);
            });
        };
        for (const Build& build : builds) addSubject(build.subject, build, {});
        for (const auto& [name, step] : bares) addSubject(name, builds.front(), step);
        std::shuffle(subjects.begin(), subjects.end(), *random);
        for (const auto& [name, run] : subjects) {
            auto* const benchmark = add(group, workload, name, run)->Iterations(iterations);
            if (group != "steady") benchmark->UseManualTime();
        }
    };
    const bool isOrdinary = workload.elements < 1000;  // as many as a device of today has
    const bool isShort = workload.nameLength == 12;
    std::vector<Bare> bares = {{"floor", Step::kFloor}, {"limit", Step::kLimit}};
    if (isOrdinary && isShort) {
        bares.insert(bares.end(), {{"transaction", Step::kTransaction},
                                   {"tree", Step::kTree},
                                   {"sizes", Step::kSizes},
                                   {"bytes", Step::kBytes}});
    }
    // A few milliseconds.
    const int iterations = std::max(20'000 / workload.size(), 1);
    if (isOrdinary || thorough) compare("steady", "", bares, iterations, measureSteady);
    if (!isShort) return;
    const std::vector<Bare> floor = {{"floor", Step::kFloor}};
    if (workload.elements == 1000 && workload.call == Call::kResidencies) {
        for (const int threads : {1, 2, 4, 8}) {
            compare("threads", "/" + std::to_string(threads), floor, 1,
                    [threads](State& state, Subject& subject) {
                        measureThreads(state, subject, threads);
                    });
        }
    }
    if (!isOrdinary) return;
    compare("first", "", floor, 50, measureFirst);
    compare("reconnect", "", floor, 50, measureReconnect);
    compare("loading", "", {}, 50, measureLoading);
    compare("selecting", "", {}, 50, measureSelecting);
    if (!bus || !thorough) return;
    const auto addBus = [&](const std::string& subject, const Build* build) {
        add("bus", workload, subject, [=](State& state) { measureBus(state, workload, build); })
            ->Iterations(50)
            ->UseRealTime();
    };
    for (const Build& build : builds) addBus(build.subject, &build);
    addBus("floor", nullptr);
}

int run(int argc, char** argv) {
    CLI::App app("Compares libpowerstatshaldataprovider with a bare client of the same services.");
    app.footer(
        "Other options are Google Benchmark's: --benchmark_filter=REGEX, --benchmark_out=FILE");
    app.allow_extras();
    std::string file = LoadedLibrary::defaultFile();
    std::string against;
    bool bus = false;
    int repetitions = 1;
    std::vector<int> served;
    app.add_option("--library", file, "The library's file")->check(CLI::ExistingFile);
    app.add_option("--against", against, "Another build of the library, measured in the same run")
        ->check(CLI::ExistingFile);
    app.add_flag("--bus", bus, "Measure collections over the session bus too");
    app.add_option("--repetitions", repetitions,
                   "Of each benchmark; of large collections and those over a bus a quarter")
        ->check(CLI::PositiveNumber);
    app.add_option("--serve", served)->expected(5)->group("");  // see BusService
    if (const auto ended = powerstats::parseArguments(&app, argc, argv)) return *ended;
    if (!served.empty()) {
        return serveOnBus({static_cast<Backend>(served[0]), static_cast<Call>(served[1]), served[2],
                           served[3], served[4]});
    }

    std::vector<std::string> rest = app.remaining();
    rest.insert(rest.begin(), argv[0]);
    std::vector<char*> arguments;
    arguments.reserve(rest.size());
    for (auto& argument : rest) arguments.push_back(argument.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

    // Keep the heap: returning it to the kernel after a large collection, and faulting it in again,
    // would cost more than the measured work.
    mallopt(M_TRIM_THRESHOLD, 1 << 30);
    mallopt(M_MMAP_THRESHOLD, 1 << 30);
    // Log lines are formatted, as always, but not written.
    __android_log_set_logger([](const __android_log_message*) {});
    host::setBusLookups({});
    std::vector<Build> builds = {{"library", file}};
    if (!against.empty()) builds.push_back({"against", against});
    // Check first: long-lived allocations between freed chunks would fragment the heap.
    const std::vector<Workload> workloads = allWorkloads();
    for (const Build& build : builds) {
        for (const Workload& workload : workloads) check(build, workload);
    }
    powerstats::raiseOpenFileLimit();  // for more than a thousand counters
    const std::vector<std::string> counters = counterFiles(kMostCounters);
    std::mt19937 random(std::random_device{}());
    for (int i = 0; i < repetitions; ++i) {
        for (const Workload& workload : workloads) {
            addAll(builds, workload, bus, i % 4 == 0, &random);
        }
        addCounters(counters, &random);
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    return powerstats::runProgram("powerstats_bench", bench::run, argc, argv);
}
