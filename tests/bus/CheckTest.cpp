// SPDX-License-Identifier: Apache-2.0
//
// powerstats check, against services on a bus whose faults are known.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/bus/Support.h"

namespace support {
namespace {

using testing::HasSubstr;

TEST(Check, FindsTheFaultsOfAServiceAndNoOther) {
    const struct {
        std::vector<std::string> peer;
        int status;
        std::vector<const char*> lines;
    } cases[] = {
        {{"serve", "aidl", "watts"},
         0,
         {" 0 broken, 0 legal, ", "Library: Java receives 1 rail and 1 power"}},
        {{"serve", "hidl", "watts"}, 0, {" 0 broken, 0 legal, "}},
        {{"serve", "aidl", "faults"},
         1,
         {" 4 broken, ", "; it looks like seconds;", "state-entries-monotonic          broken",
          "readEnergyMeter, rail 900 at ", "so this library's process would end",
          "Library: signal 6 (Aborted) ended its process: out_of_range"}},
        {{"serve", "aidl", "many"},
         1,
         {"rail-ids-unique                * broken",
          "getEnergyMeterInfo, rail 2 \"\\x07\\x0A4\" at "}},
        {{"serve", "aidl", "watts", "getStateResidency"},
         1,
         {"the service is gone", "Library: not called"}},
        {{"answer", "error"},
         1,
         {" 1 broken, ", "com.example.No: not today", "Library: Java receives null"}},
        {{"answer", "signature"}, 1, {"its signature is \"s\", not \"a(iss)\""}},
        {{"answer", "never"}, 1, {"TIMED_OUT", "Library: not called"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.peer.back());
        const PrivateBus bus;
        const auto peer = startPeer(test.peer);
        const bool isSilent = test.peer.back() == "never";
        Process check({POWERSTATS_PROGRAM, "check", "--bus", "--duration", "0.2", "--timeout",
                       isSilent ? "0.3" : "300"});
        EXPECT_EQ(check.wait(), test.status) << check.text();
        for (const char* line : test.lines) EXPECT_THAT(check.text(), HasSubstr(line));
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
        EXPECT_THAT(client.text(), HasSubstr(row.line));
        const size_t line = client.text().find("powerstats: ");
        EXPECT_EQ(client.text().find("powerstats: ", line + 1), std::string::npos) << client.text();
    }
}

TEST(Check, NamesAServiceThatIsNotThere) {
    const PrivateBus bus;
    Process check({POWERSTATS_PROGRAM, "check", "--bus", "session", "--wait", "0"});
    EXPECT_EQ(check.wait(), 2);
    EXPECT_THAT(check.text(), HasSubstr("nobody owns the name android.hardware.power.stats."));
}

}  // namespace
}  // namespace support
