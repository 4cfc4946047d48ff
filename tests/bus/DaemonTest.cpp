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

TEST(Daemon, IsWhatPowerstatsShowsOfTheBus) {
    const PrivateBus bus;
    const SmallTree tree;
    const std::vector<std::string> dump{POWERSTATS_PROGRAM, "dump", "--hal", "bus"};
    for (const std::string hal : {"aidl", "hidl"}) {
        const auto daemon = startDaemon(hal, tree.root());
        const Said said = run(dump);
        EXPECT_EQ(said.exitCode, 0);
        for (const char* text : {hal == "aidl" ? "Using power.stats AIDL" : "Using power.stats 1.0",
                                 "package-0", " 4500\n", "cpu0", "C1", " 5000 "}) {
            EXPECT_NE(said.text.find(text), std::string::npos) << text << " in " << said.text;
        }
    }
    EXPECT_EQ(run(dump).exitCode, 1);
    EXPECT_EQ(run({POWERSTATS_PROGRAM, "dump", "--hal", "bus", "--sysfs", tree.root()}).exitCode,
              2);
}

}  // namespace
}  // namespace support
