// SPDX-License-Identifier: Apache-2.0
//
// powerstatsd: offers this machine's counters as a power stats service to other processes.

#include <fmt/format.h>
#include <grp.h>
#include <host/BusServer.h>
#include <pthread.h>
#include <pwd.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "hal/LinuxCounters.h"
#include "hal/LinuxPowerStatsAidl.h"
#include "hal/LinuxPowerStatsHidl.h"
#include "tools/CommandLine.h"

namespace powerstats {

namespace {

using android::hardware::hidl_vec;
using android::hardware::Return;
using android::hardware::Void;
using android::hardware::power::stats::V1_0::Status;

constexpr const char* kEnergyGroup = "powerstats";

/// Whether the user is root or in the group that may read energy, by the machine's user database.
bool mayReadEnergy(uid_t user) {
    if (user == 0) return true;
    const passwd* account = getpwuid(user);
    const group* allowed = getgrnam(kEnergyGroup);
    if (account == nullptr || allowed == nullptr) return false;
    int count = 0;
    getgrouplist(account->pw_name, account->pw_gid, nullptr, &count);
    std::vector<gid_t> groups(static_cast<size_t>(count));
    if (getgrouplist(account->pw_name, account->pw_gid, groups.data(), &count) < 0) return false;
    return std::find(groups.begin(), groups.end(), allowed->gr_gid) != groups.end();
}

/// The HIDL service with its energy for the few. Fine-grained energy tells what other programs
/// compute. AIDL's energy is guarded by the bus's policy; here a refusal by the bus would be a
/// failed transaction, which ends the client, so the service refuses by a status.
class GuardedPowerStatsHidl : public LinuxPowerStatsHidl {
  public:
    GuardedPowerStatsHidl(std::shared_ptr<const LinuxCounters> counters, uid_t self)
        : LinuxPowerStatsHidl(std::move(counters)), mSelf(self) {}

    Return<void> getEnergyData(const hidl_vec<uint32_t>& railIndices,
                               getEnergyData_cb callback) override {
        const auto user = host::callingUser();
        // A user may always ask a service of their own: it knows nothing that they do not.
        if (user && (*user == mSelf || mayReadEnergy(*user))) {
            return LinuxPowerStatsHidl::getEnergyData(railIndices, std::move(callback));
        }
        callback({}, Status::FILESYSTEM_ERROR);
        return Void();
    }

  private:
    const uid_t mSelf;
};

struct Arguments {
    std::string hal = "both";
    std::string bus = "system";
    std::string sysfs = "/sys";
};

void say(const std::string& text) {
    printError("powerstatsd", text);
}

/// A descriptor that can be read once the process was asked to end.
int blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

int serve(const Arguments& arguments) {
    // First, so that every thread inherits it.
    const int stopFd = blockStopSignals();

    std::string error;
    const auto server = host::BusServer::connect(
        arguments.bus == "session" ? host::Bus::kSession : host::Bus::kSystem, &error);
    if (server == nullptr) {
        say(error);
        return kUsage;
    }
    LinuxCounters::Options options;
    options.root = arguments.sysfs;
    options.warn = say;
    const auto counters = std::make_shared<const LinuxCounters>(options);
    const bool aidl = arguments.hal != "hidl";
    const bool hidl = arguments.hal != "aidl";
    if ((aidl && !server->add(ndk::SharedRefBase::make<LinuxPowerStatsAidl>(counters), &error)) ||
        (hidl && !server->add(android::sp<android::hardware::power::stats::V1_0::IPowerStats>(
                                  new GuardedPowerStatsHidl(counters, geteuid())),
                              &error))) {
        say(error);
        return kUsage;
    }
    say(fmt::format("serving {} rails and {} power entities of {} over {} on the {} bus",
                    counters->rails().size(), counters->entities().size(), arguments.sysfs,
                    aidl && hidl ? "AIDL and HIDL"
                    : aidl       ? "AIDL"
                                 : "HIDL",
                    arguments.bus));
    if (server->run(stopFd, &error)) return 0;
    say(error);
    return 1;
}

int run(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("Offers this machine's power counters as a service on D-Bus.", "powerstatsd");
    app.set_version_flag("--version", "powerstatsd " POWERSTATS_VERSION);
    app.add_option("--hal", arguments.hal, "Interfaces to serve")
        ->check(CLI::IsMember({"aidl", "hidl", "both"}))
        ->capture_default_str();
    app.add_option("--bus", arguments.bus, "Bus to serve on")
        ->check(CLI::IsMember({"session", "system"}))
        ->capture_default_str();
    addSysfsOption(&app, &arguments.sysfs);
    if (const auto exitCode = parseArguments(&app, argc, argv)) return *exitCode;
    return serve(arguments);
}

}  // namespace

}  // namespace powerstats

int main(int argc, char** argv) {
    return powerstats::runProgram("powerstatsd", powerstats::run, argc, argv);
}
