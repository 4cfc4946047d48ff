// SPDX-License-Identifier: Apache-2.0

#include "bench/BusService.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <host/ServiceControl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace bench {
namespace {

/// Ends the program when a step did not succeed.
void require(bool succeeded, const char* step) {
    if (succeeded) return;
    fmt::print(stderr, "powerstats_bench: {} (is there a session bus?)\n", step);
    std::exit(1);
}

}  // namespace

BusService::BusService(const Workload& workload) : mWorkload(workload) {
    int ready[2];
    require(pipe2(ready, O_CLOEXEC) == 0, "no more pipes");
    std::vector<std::string> arguments = {"powerstats_bench",
                                          "serve",
                                          std::to_string(static_cast<int>(workload.backend)),
                                          std::to_string(static_cast<int>(workload.call)),
                                          std::to_string(workload.elements),
                                          std::to_string(workload.states),
                                          std::to_string(workload.nameLength)};
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
        // All of them: a list of no elements.
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

}  // namespace bench
