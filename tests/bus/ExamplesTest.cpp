// SPDX-License-Identifier: Apache-2.0
//
// The examples of services, read and checked as their readers would do it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/bus/Support.h"

namespace support {
namespace {

TEST(Examples, ShowTheirKnownPowerAndSharesAndPassTheCheck) {
    for (const char* program : {EXAMPLE_SERVICE, EXAMPLE_SERVICE_SCRIPT}) {
        SCOPED_TRACE(program);
        const PrivateBus bus;
        Process service({program});
        ASSERT_TRUE(service.waitFor("serving")) << service.text();
        Process watch(
            wordsOf(POWERSTATS_PROGRAM " watch --bus --format csv --interval 0.1 --count 3"));
        EXPECT_EQ(watch.wait(), 0) << watch.text();
        // An interval need not hold whole cycles, so the share of 25 % varies.
        EXPECT_THAT(watch.text(), testing::ContainsRegex(
                                      "rail.VDD_CPU.mw,entity.CPU.ACTIVE.percent(.*\n)+[0-9,]+,"
                                      "2500.000,[1-4][0-9][.]"));
        Process check(wordsOf(POWERSTATS_PROGRAM " check --bus --duration 0.3"));
        EXPECT_EQ(check.wait(), 0) << check.text();
        EXPECT_THAT(check.text(),
                    testing::HasSubstr("40 rules kept, 0 broken, 0 legal, 3 not applicable"));
        EXPECT_THAT(check.text(), testing::HasSubstr("Java receives 1 rail and 1 power entity"));
    }
}

}  // namespace
}  // namespace support
