// SPDX-License-Identifier: Apache-2.0

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <string>

#include "power/linux/Counters.h"

namespace powerstats {
namespace {

/// In microwatt-seconds.
constexpr int64_t kJoule = 1000000;
/// The joules that 32 bits of 61 microjoules hold. At 1,000 W a wrap takes 262.144 s.
constexpr int64_t kRange = 262144;

TEST(EnergyCounter, TellsWrapsResetsAndUncoveredTimeApart) {
    EXPECT_EQ(EnergyCounter({nullptr, kRange * kJoule, {}, nullptr}).samplingInterval(),
              std::chrono::milliseconds(65536));
    const struct {
        const char* description;
        int64_t rangeJoules;
        // Seconds of CLOCK_BOOTTIME and CLOCK_MONOTONIC, and the counter's joules; then the joules
        // and seconds that are reported.
        const char* readings;
        unsigned resets = 0;
        bool hasBoot = true;
    } cases[] = {
        {"soon after boot, as much as a zone can have drawn", kRange,
         "20 20 30000 = 30000 20, 90 90 30500 = 30500 90"},
        {"more than a zone can have drawn: a kernel started by another", kRange,
         "20 20 30001 = 0 0, 30 30 30002 = 1 10"},
        {"a start after the shortest wrap", 262000, "262 262 100 = 0 0, 300 300 150 = 50 38"},
        {"a start before it", 262000, "261 261 100 = 100 261"},
        {"a wrap with as much as a zone can have drawn", kRange,
         "20 20 0 = 0 20, 200 200 222144 = 222144 200, 265 265 25000 = 287144 265"},
        {"a joule more, and a second time: resets, with a warning each", kRange,
         "20 20 0 = 0 20, 200 200 222144 = 222144 200, 265 265 25001 = 247145 265, "
         "266 266 1 = 247146 266",
         2},
        {"a reset in a suspend, in which a zone draws nothing", kRange,
         "20 20 0 = 0 20, 80 80 200000 = 200000 80, 30000 130 150000 = 350000 30000", 1},
        {"so late that a wrap may have been missed: the rise", 262000,
         "20 20 100 = 100 20, 282 282 300 = 300 20, 290 290 310 = 310 28"},
        {"the same with a lower value, after a suspend, and again", 262000,
         "20 20 100 = 100 20, 1020 282 50 = 150 20, 1030 292 60 = 160 30, 1400 662 10 = 170 30"},
        {"a value above the range", 10000, "5 5 15000 = 15000 5, 14 14 9000 = 24000 14"},
        {"a range near the greatest number", 9223372036854,
         "9 9 9223372036844 = 0 0, 10 10 9223372036854 = 10 1, "
         "11 11 9223372036853 = 9223372036854 2",
         1},
        {"no range: since boot, and a lower value is a reset", 0,
         "90000 90000 700 = 700 90000, 190000 190000 400 = 1100 190000", 1},
        {"a tree without boot", kRange, "90000 90000 700 = 700 90000, 99000 99000 900 = 900 99000",
         0, false},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.description);
        int64_t boot = 0, running = 0, joules = 0;
        unsigned warnings = 0;
        const auto range = test.rangeJoules == 0
                               ? std::nullopt
                               : std::optional<int64_t>(test.rangeJoules * kJoule);
        const auto readClock = [&](clockid_t clock) {
            return std::chrono::seconds(clock == CLOCK_BOOTTIME ? boot : running);
        };
        EnergyCounter counter({[&] { return joules * kJoule; },
                               range,
                               {test.hasBoot, readClock},
                               [&] { ++warnings; }});
        Energy energy;
        std::string answers;
        std::istringstream readings(test.readings);
        for (std::string one; std::getline(readings, one, ',');) {
            std::istringstream(one) >> boot >> running >> joules;
            energy = counter.read().value();
            answers +=
                fmt::format("{}{} {} {} = {} {}", answers.empty() ? "" : ", ",
                            toMilliseconds(energy.time) / 1000, running, joules,
                            energy.energyUWs / kJoule, toMilliseconds(energy.duration) / 1000);
        }
        EXPECT_EQ(answers, test.readings);
        EXPECT_EQ(energy.resets, test.resets);
        EXPECT_EQ(warnings, test.resets);
    }
}

}  // namespace
}  // namespace powerstats
