// SPDX-License-Identifier: Apache-2.0
//
// Hostile users of the bus, and resources that run short: the daemon and the clients of the library
// keep working.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "tests/bus/Support.h"
#include "tests/power/TemporaryTree.h"
#include "tests/support/ChildProcess.h"

namespace support {
namespace {

using std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

/// @param key [in] "VmSize" or "VmHWM".
long kibibytesOf(pid_t process, const std::string& key) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(key + ":", 0) == 0) return std::stol(line.substr(key.size() + 1));
    }
    return 0;
}

/// The length of an attack. A figure for documents needs a minute.
Seconds attackTime() {
    const char* text = std::getenv("POWERSTATS_ATTACK_SECONDS");
    return Seconds(text != nullptr ? std::stod(text) : 2);
}

class Client : public testing::TestWithParam<Backend> {};
INSTANTIATE_TEST_SUITE_P(Test, Client, testing::ValuesIn(kBackends),
                         testing::PrintToStringParamName());

TEST_P(Client, IgnoresForgedSignalsAndReconnectsAfterALoss) {
    const PrivateBus bus;
    const auto service = startPeer({"serve", GetParam() == Backend::kAidl ? "aidl" : "hidl", "1"});
    const Ended ended = runInChild([&] {
        BusScenario scenario;
        const auto expectResults = [&](const char* when) {
            for (const Call call : kCalls) {
                EXPECT_EQ(scenario.call(call).bytes, busResult(call, 1)) << when;
            }
        };
        expectResults("in peace");
        // A signal that the client believes shows at once, and one that it queues shows in memory.
        for (const char* attack : {"forge", "junk"}) {
            const auto attacker = startPeer({"attack", attack});
            const long before = kibibytesOf(getpid(), "VmHWM");
            std::this_thread::sleep_for(attackTime());
            EXPECT_TRUE(host::waitForDeathNotices());
            expectResults(attack);
            const long growth = kibibytesOf(getpid(), "VmHWM") - before;
            EXPECT_LT(growth, kJudgeMemory ? 8 * 1024L : LONG_MAX) << attack;
        }
        for (int fd = 3; fd < 256; ++fd) shutdown(fd, SHUT_RDWR);  // sockets only
        EXPECT_TRUE(host::waitForDeathNotices());
        expectResults("after the loss of every connection");
    });
    EXPECT_EQ(ended.exitCode, kReturned) << ended.errors;
}

TEST(Shortage, OfDescriptorsOrThreadsFailsOneCall) {
    if (!kJudgeMemory) GTEST_SKIP() << "a sanitizer needs descriptors and addresses of its own";
    const PrivateBus bus;
    powerstats::TemporaryTree tree;
    tree.writeZone("intel-rapl:0", "package-0", 4500000);
    const auto daemon = startDaemon("both", tree.root());
    constexpr size_t kNoThread = 5;  // up to this, a number of spare descriptors
    for (size_t spare = 0; spare <= kNoThread; ++spare) {
        const auto resource = spare == kNoThread ? RLIMIT_AS : RLIMIT_NOFILE;
        const Ended ended = runInChild([&] {
            BusScenario scenario;
            scenario.load();
            rlimit before{};
            getrlimit(resource, &before);
            // Room for data, and none for the stack of a thread.
            const auto size = static_cast<rlim_t>(kibibytesOf(getpid(), "VmSize") + 4096) * 1024;
            const rlimit little{spare == kNoThread ? size : 64, before.rlim_max};
            setrlimit(resource, &little);
            std::vector<int> taken;
            for (int fd; spare < kNoThread && (fd = dup(0)) >= 0;) taken.push_back(fd);
            for (size_t i = 0; i < taken.size(); ++i) {
                if (i == spare) scenario.call(Call::kRails);
                close(taken[i]);
            }
            if (taken.empty()) scenario.call(Call::kRails);
            setrlimit(resource, &before);
            EXPECT_EQ(scenario.call(Call::kRails).bytes, rail("package-0", 4500));
        });
        EXPECT_EQ(ended.exitCode, kReturned) << spare << ": " << ended.errors;
    }
}

class DaemonAttacked : public testing::Test {
  protected:
    DaemonAttacked() {
        // With a range so small that the daemon samples it all the time.
        mTree.writeZone("intel-rapl:0", "package-0", 4500000, 10'000'000);
        mTree.writeIdleState(0, 0, "POLL", 1000, 1);  // the power entity 0, which attackers ask for
    }

    /// @return the time of a legitimate call, which must succeed.
    static Seconds ask() {
        Process client({POWERSTATS_PROGRAM, "dump", "--bus", "--hal", "aidl", "--wait", "300"});
        const auto start = steady_clock::now();
        EXPECT_EQ(client.wait(), 0) << client.text();
        return steady_clock::now() - start;
    }

    const PrivateBus mBus{host::Bus::kSystem};
    powerstats::TemporaryTree mTree;
};

TEST_F(DaemonAttacked, AnswersOthersAndEndsWhenAsked) {
    const auto daemon = startDaemon("both", mTree.root(), host::Bus::kSystem);
    std::vector<std::unique_ptr<Process>> attackers;
    for (const char* attack : {"repeat", "flood", "flood", "lazy", "greedy"}) {
        attackers.push_back(startPeer({"attack", attack}));
    }
    Seconds slowest{0};
    for (const auto end = steady_clock::now() + attackTime(); steady_clock::now() < end;) {
        slowest = std::max(slowest, ask());
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    const long most = kibibytesOf(daemon->pid(), "VmHWM");
    std::printf("slowest answer %.3f s, at most %ld KiB of memory\n", slowest.count(), most);
    EXPECT_LT(most, kJudgeMemory ? 64 * 1024L : LONG_MAX);
    // It has answers queued, for a bus that stands still.
    mBus.signal(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0) << daemon->text();
}

TEST_F(DaemonAttacked, SurvivesAShortageOfMemory) {
    if (!kJudgeMemory) GTEST_SKIP() << "a sanitizer has an address space of its own";
    const auto daemon = startDaemon("both", mTree.root(), host::Bus::kSystem);
    const auto size = static_cast<rlim_t>(kibibytesOf(daemon->pid(), "VmSize") + 12 * 1024L) * 1024;
    const rlimit little{size, size};
    ASSERT_EQ(prlimit(daemon->pid(), RLIMIT_AS, &little, nullptr), 0);
    startPeer({"attack", "repeat"});  // ends after its first attack
    ask();
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait(), 0) << daemon->text();
}

TEST_F(DaemonAttacked, SurvivesTheLossOfItsStandardStreams) {
    const std::string serve = "exec " POWERSTATSD_PROGRAM " --sysfs " + mTree.root();
    const std::string file = mTree.path("errors").string();
    for (const std::string& command :
         {serve + " <&- >&- 2>&-", serve + " 2>/dev/full", serve + " 2> >(true)",
          fmt::format("ulimit -f 0; {} 2>{}", serve, file)}) {
        SCOPED_TRACE(command);
        Process daemon({"bash", "-c", command});
        ask();
        daemon.signal(SIGHUP);
        // It writes a warning now, also from the thread that samples.
        mTree.write("class/powercap/intel-rapl:0/energy_uj", "garbage");
        ask();
        daemon.signal(SIGTERM);
        EXPECT_EQ(daemon.wait(), 0);
        mTree.write("class/powercap/intel-rapl:0/energy_uj", 4500000);
    }
}

}  // namespace
}  // namespace support
