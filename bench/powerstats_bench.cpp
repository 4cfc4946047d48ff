// SPDX-License-Identifier: Apache-2.0
//
// powerstats_bench: the cost of the library, compared with a bare client's cost on the same data.
//
// Benchmarks are named "GROUP/BACKEND/COLLECTION/SIZE/NAME-LENGTH". The groups are "steady" calls,
// the "first" call, and "threads-N" that call at once. Each repetition measures all subjects: the
// library, another build of it ("against"), and the bare client ("floor").
// Their nanoseconds are counters. Only ratios of subjects within one repetition count: times differ
// between machines and moments.
//
// Usage: powerstats_bench REPETITIONS [OTHER-LIBRARY] [--benchmark_...]
// Large collections have a quarter of the repetitions.

#include <android/binder_auto_utils.h>
#include <android/binder_ibinder.h>
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
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "proto/power_data_result.pb.h"
#include "tests/support/Allocations.h"
#include "tests/support/FakeServices.h"

namespace {

namespace proto = ::com::tavrel::android::ferrolith::poweranomalyservice::proto;
namespace stats = support::stats;
namespace stats_V1_0 = support::stats_V1_0;

using benchmark::State;
using host::HostJniEnv;
using host::JavaBytes;
using host::LoadedLibrary;
using support::Backend;
using support::Call;

/// The collection that is measured.
struct Workload {
    Backend backend;
    Call call;
    int elements;    ///< rails, or power entities
    int states;      ///< of each entity; a rail counts as one
    int nameLength;  ///< of every name, in bytes

    /// "aidl/residencies/50x8/12", as in the names of benchmarks.
    std::string text() const {
        return fmt::format("{}/{}/{}", backend == Backend::kAidl ? "aidl" : "hidl",
                           call == Call::kRails
                               ? fmt::format("rails/{}", elements)
                               : fmt::format("residencies/{}x{}", elements, states),
                           nameLength);
    }
    /// The number of items: rails, or states of all entities.
    int size() const { return elements * states; }
    /// The content of the service: values of the sizes that a device has after a day.
    support::Machine machine() const {
        constexpr int64_t kSinceBootMs = 86400000;
        const auto name = [this](const char* prefix, int index) {
            return fmt::format("{}{:0{}}", prefix, index, nameLength - 2);
        };
        support::Machine machine;
        // Over HIDL the library asks for entities first, even for the rails.
        if (call == Call::kRails) machine.entities = {{0, "SOC", {{0, "ON"}}}};
        for (int i = 0; i < elements; ++i) {
            if (call == Call::kRails) {
                machine.rails.push_back({i, name("E_", i), "a subsystem"});
                machine.energies.push_back(
                    {i, kSinceBootMs, kSinceBootMs, 1000000000 + 12345678LL * (i % 1000)});
                continue;
            }
            auto& entity = machine.entities.emplace_back();
            auto& totals = machine.totals.emplace_back();
            totals.id = entity.id = i;
            entity.name = name("E_", i);
            for (int j = 0; j < states; ++j) {
                entity.states.push_back({j, name("S_", j)});
                totals.stateResidencyData.push_back(
                    {j, 5000000 + 97777LL * j, 300 + 41LL * j, kSinceBootMs});
            }
        }
        return machine;
    }
};

/// The client that the library is measured against. It does only the work that no client can leave
/// out: it asks the same questions through the same proxies, builds the same messages from names
/// that it has at hand in the order of the answers, serializes them and hands them to Java. It
/// neither looks a name up nor checks anything.
class BareClient {
  public:
    explicit BareClient(const Workload& workload)
        : mWorkload(workload), mMachine(workload.machine()) {}

    /// One collection. The first one connects.
    JavaBytes collect(int64_t timestampMs, HostJniEnv* env) {
        if (!mAidl && mHidl == nullptr) connect();
        // The records, and the message, exist until the bytes are handed over, as in the library.
        // An allocator's cost depends on that order.
        std::vector<stats::EnergyMeasurement> measurements;
        std::vector<stats::StateResidencyResult> residencies;
        std::unordered_map<uint32_t, std::pair<std::string, std::string>> names;
        ::android::hardware::hidl_vec<stats_V1_0::EnergyData> energies;
        proto::PowerDataResult result;
        std::string bytes;
        const auto addElement = [&](const std::string& name, proto::IdKind kind) {
            proto::KeyedPowerData* element = result.add_keyed_power_data();
            proto::Id* id = element->mutable_id();
            id->mutable_name()->assign(name);
            id->set_timestamp_ms(timestampMs);
            id->set_kind(kind);
            return element->mutable_data();
        };
        const auto addRails = [&](const auto& records, auto energy) {
            for (size_t i = 0; i < records.size(); ++i) {
                const auto microwattSeconds = static_cast<float>(records[i].*energy);
                addElement(mMachine.rails[i].name, proto::KIND_RAIL)
                    ->mutable_scalar()
                    ->set_value(static_cast<int32_t>(microwattSeconds / 1000.0f));
            }
            result.SerializeToString(&bytes);
        };
        const auto addEntities = [&](const auto& records) {
            for (size_t i = 0; i < records.size(); ++i) {
                const stats::PowerEntity& entity = mMachine.entities[i];
                proto::PowerData* data = addElement(entity.name, proto::KIND_POWER_ENTITY);
                const auto& states = records[i].stateResidencyData;
                for (size_t j = 0; j < states.size(); ++j) {
                    proto::Residency* residency = data->add_residency();
                    residency->mutable_name()->assign(entity.states[j].name);
                    residency->set_total_time_in_state_ms(
                        static_cast<int64_t>(states[j].totalTimeInStateMs));
                    residency->set_total_state_entry_count(
                        static_cast<int64_t>(states[j].totalStateEntryCount));
                }
            }
            result.SerializeToString(&bytes);
        };
        const bool rails = mWorkload.call == Call::kRails;
        if (mAidl && rails) {
            mAidl->readEnergyMeter({}, &measurements);
            addRails(measurements, &stats::EnergyMeasurement::energyUWs);
        } else if (mAidl) {
            mAidl->getStateResidency({}, &residencies);
            addEntities(residencies);
        } else if (rails) {
            // The table is part of the service's protocol: rails are asked for in every call.
            (void)mHidl->getRailInfo([&](const auto& all, auto) {
                for (const auto& rail : all) {
                    names.emplace(rail.index, std::pair<std::string, std::string>(rail.subsysName,
                                                                                  rail.railName));
                }
            });
            (void)mHidl->getEnergyData({}, [&](const auto& all, auto) { energies = all; });
            addRails(energies, &stats_V1_0::EnergyData::energy);
        } else {
            (void)mHidl->getPowerEntityStateResidencyData({}, [&](const auto& all, auto) {
                addEntities(all);
                // This message ends with the service's callback.
                proto::PowerDataResult().Swap(&result);
            });
        }
        const auto length = static_cast<jsize>(bytes.size());
        jbyteArray array = env->get()->NewByteArray(length);
        env->get()->SetByteArrayRegion(array, 0, length,
                                       reinterpret_cast<const jbyte*>(bytes.data()));
        return env->take(array);
    }

  private:
    struct Recipient : public ::android::hardware::hidl_death_recipient {
        void serviceDied(uint64_t,
                         const ::android::wp<::android::hidl::base::V1_0::IBase>&) override {}
    };

    /// Looks the service up as the library does in its first call, links to its death, asks for the
    /// names that the library would ask for, and fills caches like the library's.
    void connect() {
        // By this look-up the library chooses its backend.
        const ::ndk::SpAIBinder chosen(AServiceManager_getService(host::kAidlPowerStats));
        if (mWorkload.backend == Backend::kHidl) {
            mHidl = stats_V1_0::IPowerStats::getService("default", false);
            mHidl->linkToDeath(mHidlRecipient, 0).isOk();
            (void)mHidl->getPowerEntityInfo([this](const auto& entities, auto) {
                for (const auto& entity : entities) {
                    mEntityNames.emplace(entity.powerEntityId, entity.powerEntityName);
                }
            });
            (void)mHidl->getPowerEntityStateInfo({}, [this](const auto& entities, auto) {
                for (const auto& entity : entities) {
                    auto& states = mStateNames[entity.powerEntityId];
                    for (const auto& state : entity.states) {
                        states.emplace(state.powerEntityStateId, state.powerEntityStateName);
                    }
                }
            });
            return;
        }
        mAidl = stats::IPowerStats::fromBinder(
            ::ndk::SpAIBinder(AServiceManager_getService(host::kAidlPowerStats)));
        AIBinder_linkToDeath(mAidl->asBinder().get(), mAidlRecipient.get(), nullptr);
        if (mWorkload.call == Call::kRails) {
            std::vector<stats::Channel> channels;
            mAidl->getEnergyMeterInfo(&channels);
            for (const auto& channel : channels) mChannels.emplace(channel.id, channel);
            return;
        }
        std::vector<stats::PowerEntity> entities;
        mAidl->getPowerEntityInfo(&entities);
        for (const auto& entity : entities) {
            mEntityNames.emplace(entity.id, entity.name);
            auto& states = mStateNames[entity.id];
            for (const auto& state : entity.states) states.emplace(state.id, state.name);
        }
    }

    const Workload mWorkload;
    const support::Machine mMachine;  ///< has the names that the service announces, by position

    std::shared_ptr<stats::IPowerStats> mAidl;
    ::android::sp<stats_V1_0::IPowerStats> mHidl;
    const ::ndk::ScopedAIBinder_DeathRecipient mAidlRecipient{
        AIBinder_DeathRecipient_new([](void*) {})};
    const ::android::sp<Recipient> mHidlRecipient = new Recipient;
    std::unordered_map<uint32_t, std::string> mEntityNames;
    std::unordered_map<uint32_t, std::unordered_map<uint32_t, std::string>> mStateNames;
    std::unordered_map<int, stats::Channel> mChannels;
};

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
    const auto add = [&](const std::string& group, int calls, auto measure) {
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

}  // namespace

int main(int argc, char** argv) {
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
}
