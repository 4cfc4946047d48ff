// SPDX-License-Identifier: Apache-2.0
//
// The tools, against services on a bus whose faults are known.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <sstream>

#include "tests/bus/Support.h"

namespace support {
namespace {

TEST(Check, AndOtherSubcommandsNameTheFaultsOfAService) {
    const char check[] = " check --bus --duration 0.2 --timeout 300";
    const char watch[] = " watch --bus --wait 0 --format csv --interval 0.05 --count 1";
    const struct {
        const char* peer;
        const char* command;
        int status;
        const char* texts;  // separated by bars
    } cases[] = {
        {"serve aidl watts", check, 0, " 0 broken, 0 legal, |: Java receives 1 rail and 1 power"},
        {"serve hidl watts", check, 0, " 0 broken, 0 legal, "},
        {"serve aidl faults", check, 1,
         " 4 broken, |; it looks like seconds;|state-entries-monotonic          broken|"
         "readEnergyMeter, rail 900 at |so this library's process would end|"
         "Library: signal 6 (Aborted) ended its process: out_of_range"},
        {"serve aidl many", check, 1,
         "rail-ids-unique                * broken|getEnergyMeterInfo, rail 2 \"\\x07\\x0A4\" at "},
        {"serve aidl watts getStateResidency", check, 1, "the service is gone|Library: not called"},
        {"answer error", check, 1,
         " 1 broken, |com.example.No: not today|Library: Java receives null"},
        {"answer signature", check, 1, "its signature is \"s\", not \"a(iss)\""},
        {"answer text", check, 1, "FAILED_TRANSACTION|a text is longer than 1048576 bytes"},
        {"answer never", " check --bus --duration 0.2 --timeout 0.3", 1,
         "TIMED_OUT|Library: not called"},
        {"", " check --bus session --wait 0", 2, "nobody owns the name android.hardware.power"},
        {"serve aidl late", " dump --bus --rails", 1,
         "counted from 2 s after boot only: VDD_CPU (start powerstatsd at"},
        {"serve hidl watts", watch, 1,
         "powerstats: the service on the session bus has the interface hidl only (powerstats "
         "dump --bus=session shows its totals)\n"},
        {"answer error", watch, 1, "timestamp_ms,interval_ms,suspended_ms,notes\n|not today'\"\n"},
        {"answer elements", watch, 1, "it has more than 1000000 elements"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.peer);
        const PrivateBus bus;
        const auto peer = *test.peer == 0 ? nullptr : startPeer(wordsOf(test.peer));
        Process tool(wordsOf(POWERSTATS_PROGRAM + std::string(test.command)));
        EXPECT_EQ(tool.wait(), test.status) << tool.text();
        std::istringstream texts(test.texts);
        for (std::string text; std::getline(texts, text, '|');) {
            EXPECT_THAT(tool.text(), testing::HasSubstr(text));
        }
    }
}

TEST(Timeout, EndsACommandWithOneLineThatNamesWhatDidNotAnswer) {
    const struct {
        const char* command;
        const char* peer;  ///< empty: the bus itself does not answer
        const char* wait;
        const char* timeout;
        const char* line;
    } cases[] = {
        {"dump", "", "0", "0.2",
         "the session bus did not answer a new connection in time (restart it"},
        {"dump", "once", "300", "2", "on the session bus did not answer readEnergyMeter in time"},
        {"metrics", "never", "300", "1",
         "the service android.hardware.power.stats.IPowerStats on the session bus did not answer "
         "getEnergyMeterInfo in time (restart it, or give it longer with --timeout "},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.line);
        const PrivateBus bus;
        std::unique_ptr<Process> peer;
        if (*row.peer != '\0') peer = startPeer({"answer", row.peer});
        if (peer == nullptr) bus.signal(SIGSTOP);
        Process client({POWERSTATS_PROGRAM, row.command, "--bus", "--wait", row.wait, "--timeout",
                        row.timeout});
        EXPECT_EQ(client.wait(), 1);
        EXPECT_THAT(client.text(), testing::HasSubstr(row.line));
        const size_t line = client.text().find("powerstats: ");
        EXPECT_EQ(client.text().find("powerstats: ", line + 1), std::string::npos) << client.text();
    }
}

}  // namespace
}  // namespace support
