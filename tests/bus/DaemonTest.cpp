// SPDX-License-Identifier: Apache-2.0
//
// powerstatsd as its users see it: its messages, its end, and its counters in the tool and in a
// Java virtual machine.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "tests/bus/Support.h"
#include "tests/power/TemporaryTree.h"

namespace support {
namespace {

/// Runs a program and expects an exit code.
/// @return the program's output.
std::string run(int exitCode, std::vector<std::string> command,
                const std::vector<std::string>& arguments = {}) {
    command.insert(command.end(), arguments.begin(), arguments.end());
    Process process(command);
    EXPECT_EQ(process.wait(), exitCode) << process.text();
    return process.text();
}

class Daemon : public testing::Test {
  protected:
    Daemon() {
        mTree.writeZone("intel-rapl:0", "package-0", 4500000);
        mTree.writeIdleState(0, 2, "C2\xb5\xef\xbf\xbe", 5000000, 12);
    }

    PrivateBus mSession;
    powerstats::TemporaryTree mTree;
};

TEST_F(Daemon, NamesItsCountersAndEndsWithASignalOrItsBus) {
    for (const int number : {SIGTERM, SIGINT, 0}) {
        const auto daemon = startDaemon("both", mTree.root());
        if (number != 0) daemon->signal(number);
        if (number == 0) mSession.kill();
        EXPECT_EQ(daemon->wait(), number == 0 ? 1 : 0);
        EXPECT_EQ(daemon->text(), "powerstatsd: serving 1 rails and 2 power entities of " +
                                      mTree.root() + " over AIDL and HIDL on the session bus\n" +
                                      (number == 0 ? "powerstatsd: the bus went away\n" : ""));
    }
}

TEST_F(Daemon, RefusesInOneLine) {
    const auto daemon = startDaemon("hidl", mTree.root());
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--bus", "session"}, "android.hardware.power.stats.V1_0.IPowerStats: the name is taken"},
        {{"--sysfs", "/nonexistent"}, "/nonexistent: not a folder"},
        {{}, "the system bus cannot be reached: No such file or directory"},
    };
    for (const auto& [arguments, reason] : cases) {
        const std::string text = run(2, {POWERSTATSD_PROGRAM}, arguments);
        EXPECT_EQ(text.rfind("powerstatsd: ", 0), 0u) << text;
        EXPECT_NE(text.find(reason), std::string::npos) << text;
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    }
}

TEST_F(Daemon, IsFoundOnEitherBusAndItsNamesAreSafe) {
    const PrivateBus system(host::Bus::kSystem);
    const struct {
        std::string hal;
        std::vector<std::string> arguments;
        host::Bus bus;
        int exitCode;
    } cases[] = {
        {"aidl", {"--bus"}, host::Bus::kSession, 0},
        {"hidl", {"--bus"}, host::Bus::kSession, 0},
        {"aidl", {"--bus"}, host::Bus::kSystem, 0},
        {"both", {"--bus=session", "--hal", "hidl"}, host::Bus::kSession, 0},
        {"aidl", {"--bus", "session", "--wait", "0"}, host::Bus::kSystem, 1},
        {"aidl", {"--bus=system", "--wait", "0"}, host::Bus::kSession, 1},
        {"aidl", {"--bus", "--hal", "hidl", "--wait", "0"}, host::Bus::kSession, 1},
        {"aidl", {"--bus", "--sysfs", mTree.root()}, host::Bus::kSession, 2},
    };
    for (const auto& row : cases) {
        // powerstats itself waits for a service.
        const auto daemon = startDaemon(row.hal, mTree.root(), row.bus, row.exitCode != 0);
        const std::string text = run(row.exitCode, {POWERSTATS_PROGRAM, "dump"}, row.arguments);
        if (row.exitCode == 2) continue;
        const bool aidl = row.hal == "aidl" && row.exitCode == 0;
        const char* const chosen = aidl ? "Using power.stats AIDL" : "Using power.stats 1.0";
        EXPECT_NE(text.find(chosen), std::string::npos) << text;
        for (const char* part : {"package-0", " 4500\n", "cpu0", "C2\\xB5\\u{FFFE}", " 5000 "}) {
            EXPECT_EQ(text.find(part) != std::string::npos, row.exitCode == 0)
                << part << " in " << text;
        }
    }
}

TEST_F(Daemon, IsReadFromJavaAndTheCheckOfJniCallsFindsNoFault) {
#ifndef JAVA_PROGRAM
    GTEST_SKIP() << "no Java reader was built (it needs a JDK and libprotobuf-java)";
#else
    const std::string libraryPath = "-Djava.library.path=" LIBRARY_FOLDER;
    mTree.writeZone("intel-rapl:0:0", "core", 1999);
    mTree.writeIdleState(0, 2, "C2", 5000999, 12);
    mTree.writeDevice("pci0/usb1", 321, 654);
    for (const std::string hal : {"aidl", "hidl"}) {
        const auto daemon = startDaemon(hal, mTree.root());
        std::istringstream lines(
            run(0, {JAVA_PROGRAM, "-Xcheck:jni", libraryPath, "-jar", READER_JAR}));
        // The library's choice, the system's times, and a warning of newer virtual machines about
        // Java's own protobuf runtime.
        const std::regex other(
            R"(.*Native\(.*: Using power.stats .*|  system, .*|.*(sun.misc.Unsafe|com.google.protobuf).*)");
        std::string facts;
        for (std::string line; std::getline(lines, line);) {
            if (std::regex_match(line, other)) continue;
            facts += std::regex_replace(line, std::regex(", [0-9]+ ms after boot"), " now") + '\n';
        }
        EXPECT_EQ(facts,
                  "Rail energy now\n  package-0: 4500 mJ\n  package-0/core: 1 mJ\n"
                  "State residencies now\n  cpu0, C2: 5000 ms, 12 entries\n"
                  "  pci0/usb1, active: 321 ms, 0 entries\n"
                  "  pci0/usb1, suspended: 654 ms, 0 entries\n")
            << hal;
    }
#endif
}

}  // namespace
}  // namespace support
