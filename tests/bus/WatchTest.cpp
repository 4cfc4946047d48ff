// SPDX-License-Identifier: Apache-2.0
//
// The subcommands that compare readings over time, against a service on a bus whose power is known.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "tests/bus/Support.h"

namespace support {
namespace {

using testing::HasSubstr;

std::vector<std::string> powerstats(const std::string& arguments) {
    return wordsOf(POWERSTATS_PROGRAM " " + arguments);
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

TEST(Run, JudgesTheKnownPower) {
    const PrivateBus bus;
    const auto peer = startPeer({"serve", "aidl", "watts"});
    const std::pair<const char*, int> limits[] = {{"2.6", 0}, {"2.4", 3}, {"2.5", 0}};
    for (const auto& [watts, status] : limits) {
        Process run(
            powerstats("run --bus -r 3 --max VDD_CPU=" + std::string(watts) + " -- sleep 0.1"));
        EXPECT_EQ(run.wait(), status) << run.text();
        EXPECT_THAT(run.text(), HasSubstr(" ± 0.000"));
    }
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
