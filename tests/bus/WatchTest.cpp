// SPDX-License-Identifier: Apache-2.0
//
// The subcommands that compare readings over time, against a service on a bus whose power is known.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

#include "tests/bus/Support.h"

namespace support {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

std::vector<std::string> powerstats(const std::string& arguments) {
    std::vector<std::string> words = {POWERSTATS_PROGRAM};
    std::istringstream stream(arguments);
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

/// The powers in the lines of CSV, in milliwatts; "-" where there is none.
std::string powers(const std::string& csv) {
    std::istringstream stream(csv);
    std::string text;
    for (std::string line; std::getline(stream, line);) {
        if (line[0] == 't') continue;
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < 4; ++i) std::getline(fields, field, ',');
        text += (field.empty() ? "-" : field) + ' ';
    }
    return text;
}

TEST(Watch, ShowsTheKnownPower) {
    const PrivateBus bus;
    const auto peer = startPeer({"serve", "aidl", "watts"});
    Process csv(powerstats("watch --bus --format csv --interval 0.1 --count 3"));
    EXPECT_EQ(csv.wait(), 0) << csv.text();
    EXPECT_EQ(powers(csv.text()), "2500.000 2500.000 2500.000 ") << csv.text();
    EXPECT_THAT(csv.text(), HasSubstr("timestamp_ms,interval_ms,suspended_ms,rail.VDD_CPU.mw,"
                                      "entity.SOC.S0.percent,entity.SOC.S0.entries_per_s,"));
    const std::pair<const char*, int> limits[] = {{"2.6", 0}, {"2.4", 3}, {"2.5", 0}};
    for (const auto& [watts, status] : limits) {
        Process run(
            powerstats("run --bus -r 3 --max VDD_CPU=" + std::string(watts) + " -- sleep 0.1"));
        EXPECT_EQ(run.wait(), status) << run.text();
        EXPECT_THAT(run.text(), HasSubstr(" ± 0.000")) << run.text();
    }
}

TEST(Watch, NamesDumpWhereAServiceIsThereOverHidlOnly) {
    const PrivateBus bus;
    const auto peer = startPeer({"serve", "hidl", "watts"});
    Process watch(powerstats("watch --bus --wait 0 --count 1"));
    EXPECT_EQ(watch.wait(), 1);
    EXPECT_EQ(watch.text(),
              "powerstats: the service on the session bus has the interface hidl only (powerstats "
              "dump --bus=session shows its totals)\n");
}

TEST(Watch, ShowsThatTheServiceIsGoneAndIsThereAgain) {
    const PrivateBus bus;
    auto peer = startPeer({"serve", "aidl", "watts"});
    Process watch(powerstats("watch --bus --format csv --interval 0.05"));
    ASSERT_TRUE(watch.waitFor(",2500.000,"));
    peer->kill();
    ASSERT_TRUE(watch.waitFor("no power stats service"));
    peer = startPeer({"serve", "aidl", "watts"});
    ASSERT_TRUE(watch.waitFor(",2500.000,", watch.text().size())) << watch.text();
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), -SIGTERM);
    EXPECT_THAT(watch.text(), HasSubstr("VDD_CPU was not read"));
    EXPECT_THAT(watch.text(), HasSubstr("VDD_CPU was reset"));
}

TEST(Watch, ShowsTheRecordedPowerOfADaemonThatPlaysARecording) {
    const PrivateBus bus;
    Process daemon({POWERSTATSD_PROGRAM, "--bus", "session", "--replay", PHONE_RECORDING});
    ASSERT_TRUE(daemon.waitFor("serving 20 rails and 15 power entities of " PHONE_RECORDING));
    Process watch(powerstats("watch --bus --format jsonl --interval 0.3 --count 2"));
    EXPECT_EQ(watch.wait(), 0) << watch.text();
    EXPECT_THAT(watch.text(), HasSubstr("\"power_mw\":510.0")) << "the display's";
}

TEST(Watch, FailsWhenNothingWasRead) {
    const PrivateBus bus;
    const auto peer = startPeer({"answer", "error"});
    Process watch(powerstats("watch --bus --format csv --interval 0.05 --count 2"));
    EXPECT_EQ(watch.wait(), 1) << watch.text();
    // One header.
    EXPECT_THAT(watch.text(),
                MatchesRegex("timestamp_ms,interval_ms,suspended_ms,notes\n"
                             "([0-9]+,[0-9]+,0,\"rails and power entities: [^\"\n]*not today'\"\n)"
                             "{2}"));
}

TEST(Run, PassesSignalsOnAndReturnsTheCommandsStatusOrThatOfTheSignal) {
    for (const auto& [command, status] : {std::pair(9, 9), {0, 128 + SIGTERM}}) {
        std::vector<std::string> words = powerstats("run -r 3 -- sh -c");
        words.push_back("trap 'exit " + std::to_string(command) +
                        "' TERM; echo started; while :; do sleep 0.01; done");
        Process run(words);
        ASSERT_TRUE(run.waitFor("started"));
        run.signal(SIGTERM);
        EXPECT_EQ(run.wait(), status) << run.text();
        EXPECT_THAT(run.text(), HasSubstr(": 1 run of "));
    }
}

}  // namespace
}  // namespace support
