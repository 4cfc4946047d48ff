// SPDX-License-Identifier: Apache-2.0

#include "bench/Workload.h"

#include <android/binder_manager.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <host/BusServer.h>
#include <host/ServiceControl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <vector>

namespace bench {
namespace {

namespace stats = support::stats;
using HidlPowerStats = support::stats_V1_0::IPowerStats;

constexpr int64_t kSinceBootMs = 86400000;

std::shared_ptr<support::FakeAidl> makeAidl(const Machine& machine) {
    auto service = ndk::SharedRefBase::make<support::FakeAidl>();
    service->machine = machine;
    return service;
}

android::sp<support::FakeHidl> makeHidl(const Machine& machine) {
    android::sp<support::FakeHidl> service = new support::FakeHidl;
    service->tell(machine);
    return service;
}

void require(bool succeeded, const std::string& step) {
    if (!succeeded) fail(step + " (is there a session bus?)");
}

}  // namespace

void fail(const std::string& text) {
    fmt::print(stderr, "powerstats_bench: {}\n", text);
    std::exit(1);
}

std::string Workload::text() const {
    const char* const interface = backend == Backend::kAidl ? "aidl" : "hidl";
    if (call == Call::kRails) return fmt::format("{}/rails/{}/{}", interface, elements, nameLength);
    return fmt::format("{}/residencies/{}x{}/{}", interface, elements, states, nameLength);
}

Machine Workload::machine() const {
    const auto name = [this](const char* prefix, int index) {
        return fmt::format("{}{:0{}}", prefix, index, nameLength - 2);
    };
    Machine machine;
    // Over HIDL the library asks for entities first, even for the rails.
    if (call == Call::kRails) machine.entities = {{0, "SOC", {{0, "ON"}}}};
    for (int i = 0; i < elements; ++i) {
        if (call == Call::kRails) {
            machine.rails.push_back({i, name("E_", i), "a subsystem"});
            machine.energies.push_back(
                {i, kSinceBootMs, kSinceBootMs, 1000000000 + 12345678LL * (i % 1000)});
            continue;
        }
        auto& entity = machine.entities.emplace_back(stats::PowerEntity{i, name("E_", i), {}});
        auto& totals = machine.totals.emplace_back(stats::StateResidencyResult{i, {}});
        for (int j = 0; j < states; ++j) {
            entity.states.push_back({j, name("S_", j)});
            totals.stateResidencyData.push_back(
                {j, 5000000 + 97777LL * j, 300 + 41LL * j, kSinceBootMs});
        }
    }
    return machine;
}

RegisteredService::RegisteredService(const Workload& workload)
    : mBackend(workload.backend), mMachine(workload.machine()) {
    serve();
}

void RegisteredService::serve() const {
    if (mBackend == Backend::kAidl) {
        AServiceManager_addService(makeAidl(mMachine)->asBinder().get(), nameOf(mBackend));
    } else if (makeHidl(mMachine)->registerAsService() != android::OK) {
        std::abort();
    }
}

void RegisteredService::kill() const {
    host::killService(nameOf(mBackend));
    if (!host::waitForDeathNotices()) std::abort();
}

void RegisteredService::restart() {
    kill();
    serve();
}

BusService::BusService(const Workload& workload) : mWorkload(workload) {
    int ready[2];
    require(pipe2(ready, O_CLOEXEC) == 0, "no more pipes");
    std::vector<std::string> arguments = {"powerstats_bench", "--serve"};
    for (const int argument : {static_cast<int>(workload.backend), static_cast<int>(workload.call),
                               workload.elements, workload.states, workload.nameLength}) {
        arguments.push_back(std::to_string(argument));
    }
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (auto& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ready[1], STDOUT_FILENO);
    require(
        posix_spawn(&mProcess, "/proc/self/exe", &actions, nullptr, pointers.data(), environ) == 0,
        "the service could not be started");
    posix_spawn_file_actions_destroy(&actions);
    close(ready[1]);
    char newline;
    require(read(ready[0], &newline, 1) == 1, "the service could not be offered");
    close(ready[0]);
    require(sd_bus_open_user(&mBus) >= 0, "no bus");
    host::setBusLookups({host::Bus::kSession, host::Bus::kSystem});
}

BusService::~BusService() {
    host::setBusLookups({});
    sd_bus_flush_close_unref(mBus);
    kill(mProcess, SIGTERM);
    waitpid(mProcess, nullptr, 0);
    (void)host::waitForDeathNotices();
}

void BusService::call() const {
    const bool aidl = mWorkload.backend == Backend::kAidl;
    const char* const name = aidl ? "android.hardware.power.stats.IPowerStats"
                                  : "android.hardware.power.stats.V1_0.IPowerStats";
    const auto call = [&](const char* method, const char* signature) {
        sd_bus_message* reply = nullptr;
        // A list of no ids asks for all elements.
        require(sd_bus_call_method(mBus, name, "/default", name, method, nullptr, &reply, signature,
                                   0) >= 0,
                method);
        sd_bus_message_unref(reply);
    };
    if (mWorkload.call == Call::kResidencies) {
        aidl ? call("getStateResidency", "ai") : call("getPowerEntityStateResidencyData", "au");
        return;
    }
    if (!aidl) call("getRailInfo", "");
    aidl ? call("readEnergyMeter", "ai") : call("getEnergyData", "au");
}

int serveOnBus(const Workload& workload) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);  // an interrupted benchmark leaves no service behind
    const Machine machine = workload.machine();
    std::string error;
    const auto server = host::BusServer::connect(host::Bus::kSession, &error);
    const bool served =
        server != nullptr &&
        (workload.backend == Backend::kAidl
             ? server->add(makeAidl(machine), &error)
             : server->add(android::sp<HidlPowerStats>(makeHidl(machine)), &error)) &&
        write(STDOUT_FILENO, "\n", 1) == 1 && server->run(&error);
    if (!served) fmt::print(stderr, "powerstats_bench: {}\n", error);
    return served ? 0 : 1;
}

}  // namespace bench
