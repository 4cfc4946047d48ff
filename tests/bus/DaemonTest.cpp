// SPDX-License-Identifier: Apache-2.0
//
// powerstatsd as its users see it: what it says, how it ends, and what powerstats shows of it.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>

#include "tests/bus/Support.h"
#include "tests/hal/TemporaryTree.h"

namespace support {
namespace {

struct Said {
    int exitCode;
    std::string text;
};

Said run(const std::vector<std::string>& command) {
    Process process(command, true);
    const int exitCode = process.wait();
    return {exitCode, process.text()};
}

struct SmallTree : powerstats::TemporaryTree {
    SmallTree() {
        writeZone("intel-rapl:0", "package-0", 4500000);
        writeIdleState(0, 1, "C1", 5000000, 12);
    }
};

TEST(Daemon, SaysWhatItServesAndEndsWhenAsked) {
    const PrivateBus bus;
    const SmallTree tree;
    for (const int number : {SIGTERM, SIGINT}) {
        const auto daemon = startDaemon("both", tree.root());
        daemon->signal(number);
        EXPECT_EQ(daemon->wait(), 0);
        EXPECT_EQ(daemon->text(), "powerstatsd: serving 1 rails and 2 power entities of " +
                                      tree.root() + " over AIDL and HIDL on the session bus\n");
    }
}

TEST(Daemon, RefusesInOneLine) {
    const PrivateBus bus;
    const SmallTree tree;
    const auto daemon = startDaemon("hidl", tree.root());
    const struct {
        std::vector<std::string> arguments;
        const char* text;
    } cases[] = {
        {{"--bus", "session"}, "android.hardware.power.stats.V1_0.IPowerStats: the name is taken"},
        {{"--bus", "none"}, "--bus"},
        {{"--hal", "none"}, "--hal"},
        {{"--sysfs", "/nonexistent"}, "/nonexistent: not a folder"},
        {{"more"}, "more"},
    };
    for (const auto& row : cases) {
        std::vector<std::string> command{POWERSTATSD_PROGRAM};
        command.insert(command.end(), row.arguments.begin(), row.arguments.end());
        const Said said = run(command);
        EXPECT_EQ(said.exitCode, 2);
        EXPECT_EQ(said.text.rfind("powerstatsd: ", 0), 0u) << said.text;
        EXPECT_NE(said.text.find(row.text), std::string::npos) << said.text;
        EXPECT_EQ(std::count(said.text.begin(), said.text.end(), '\n'), 1) << said.text;
    }
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    const Said said = run({POWERSTATSD_PROGRAM, "--bus", "session"});
    EXPECT_EQ(said.exitCode, 2);
    EXPECT_EQ(said.text,
              "powerstatsd: the session bus cannot be reached: No such file or directory (is "
              "DBUS_SESSION_BUS_ADDRESS set? dbus-run-session starts a bus)\n");
}

TEST(Daemon, EndsWithItsBus) {
    PrivateBus bus;
    const SmallTree tree;
    const auto daemon = startDaemon("both", tree.root());
    bus.kill();
    EXPECT_EQ(daemon->wait(), 1);
    EXPECT_NE(daemon->text().find("powerstatsd: the bus went away\n"), std::string::npos);
}

TEST(Daemon, IsFoundOnEitherBusAndItsNamesAreSafe) {
    const PrivateBus session;
    const PrivateBus system(host::Bus::kSystem);
    const SmallTree tree;
    tree.writeIdleState(0, 2, "C2\xb5\xef\xbf\xbe", 1, 1);
    const struct {
        std::string hal;
        host::Bus bus;
        std::vector<std::string> arguments;
        int exitCode;
    } cases[] = {
        {"aidl", host::Bus::kSession, {"--bus"}, 0},
        {"hidl", host::Bus::kSession, {"--hal", "bus"}, 0},
        {"aidl", host::Bus::kSystem, {"--bus"}, 0},
        {"both", host::Bus::kSession, {"--bus=session", "--hal", "hidl"}, 0},
        {"aidl", host::Bus::kSystem, {"--bus", "session", "--wait", "0"}, 1},
        {"aidl", host::Bus::kSession, {"--bus=system", "--wait", "0"}, 1},
        {"aidl", host::Bus::kSession, {"--bus", "--hal", "hidl", "--wait", "0"}, 1},
        {"aidl", host::Bus::kSession, {"--bus", "--sysfs", tree.root()}, 2},
    };
    for (const auto& row : cases) {
        // It is not waited for: powerstats does that.
        const auto daemon = launchDaemon(row.hal, tree.root(), row.bus);
        EXPECT_TRUE(row.exitCode == 0 || daemon->waitFor(kServing));
        std::vector<std::string> dump{POWERSTATS_PROGRAM, "dump"};
        dump.insert(dump.end(), row.arguments.begin(), row.arguments.end());
        const Said said = run(dump);
        EXPECT_EQ(said.exitCode, row.exitCode) << said.text;
        if (row.exitCode == 2) continue;
        const bool aidl = row.hal == "aidl" && row.exitCode == 0;
        const char* const chosen = aidl ? "Using power.stats AIDL" : "Using power.stats 1.0";
        EXPECT_NE(said.text.find(chosen), std::string::npos) << said.text;
        for (const char* text : {"package-0", " 4500\n", "cpu0", "C2\\xB5\\u{FFFE}", " 5000 "}) {
            EXPECT_EQ(said.text.find(text) != std::string::npos, row.exitCode == 0)
                << text << " in " << said.text;
        }
    }
}

}  // namespace
}  // namespace support
