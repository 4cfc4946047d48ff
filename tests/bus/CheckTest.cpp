// SPDX-License-Identifier: Apache-2.0
//
// The tools, against services on a bus whose faults are known.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace support
