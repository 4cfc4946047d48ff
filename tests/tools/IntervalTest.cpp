// SPDX-License-Identifier: Apache-2.0
//
// The arithmetic of intervals, the formats that show them, and limits of power.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <sstream>

#include "tools/IntervalPrinter.h"
#include "tools/RunReport.h"

namespace powerstats {
namespace {

using testing::DoubleNear;

/// One rail of 2 W and one CPU that sleeps half of the time, `seconds` after the first reading.
Snapshot snapshotAt(int64_t seconds) {
    const int64_t ms = 10'000 + seconds * 1000;
    Snapshot snapshot;
    snapshot.rails = {{1, "soc", "SOC", Snapshot::Energy{ms, ms, ms * 2000}}};
    snapshot.entities = {{7,
                          "cpu0",
                          {{0, "C1", Snapshot::Residency{ms / 4, seconds * 20, 0}},
                           {1, "C6", Snapshot::Residency{ms / 4, 5, 0}}}}};
    snapshot.timestampMs = ms;
    return snapshot;
}

/// A change of the second of two snapshots, two seconds apart, and the trouble that it makes.
struct Case {
    const char* name;
    std::function<void(Snapshot* before, Snapshot* after)> change;
    Trouble rail = Trouble::kNone;
    Trouble entity = Trouble::kNone;
};

const Case kCases[] = {
    {"nothing", [](Snapshot*, Snapshot*) {}},
    {"energy backwards", [](Snapshot*, Snapshot* after) { after->rails[0].energy->energyUWs = 1; },
     Trouble::kReset},
    {"a restarted service that overtook its old total",
     [](Snapshot*, Snapshot* after) { after->rails[0].energy->durationMs = 9'999; },
     Trouble::kReset},
    {"the same stamp",
     [](Snapshot*, Snapshot* after) { after->rails[0].energy->timestampMs = 10'000; },
     Trouble::kNoTime},
    {"a stamp backwards",
     [](Snapshot*, Snapshot* after) { after->rails[0].energy->timestampMs = 9'000; },
     Trouble::kNoTime},
    {"extremes of 64 bits",
     [](Snapshot* before, Snapshot* after) {
         before->rails[0].energy->energyUWs = INT64_MIN;
         after->rails[0].energy->energyUWs = -1;
     },
     Trouble::kImplausible},
    {"a rail without energy", [](Snapshot* before, Snapshot*) { before->rails[0].energy.reset(); },
     Trouble::kNotRead},
    {"a new rail", [](Snapshot* before, Snapshot*) { before->rails.clear(); }, Trouble::kCame},
    {"another rail under the same id",
     [](Snapshot*, Snapshot* after) { after->rails[0].name = "gpu"; }, Trouble::kCame},
    {"a failed reading",
     [](Snapshot*, Snapshot* after) {
         after->rails.clear();
         after->entities.clear();
         after->railsError = after->entitiesError = "gone";
     },
     Trouble::kNotRead, Trouble::kNotRead},
    {"a reading after a failed one",
     [](Snapshot* before, Snapshot*) {
         before->rails.clear();
         before->entities.clear();
         before->railsError = before->entitiesError = "gone";
     },
     Trouble::kNotRead, Trouble::kNotRead},
    {"an entity that goes", [](Snapshot*, Snapshot* after) { after->entities.clear(); },
     Trouble::kNone, Trouble::kWent},
    {"a state that goes", [](Snapshot*, Snapshot* after) { after->entities[0].states.pop_back(); },
     Trouble::kNone, Trouble::kWent},
    {"a state without a time",
     [](Snapshot*, Snapshot* after) { after->entities[0].states[1].residency.reset(); },
     Trouble::kNone, Trouble::kNotRead},
    {"time backwards",
     [](Snapshot*, Snapshot* after) { after->entities[0].states[0].residency->totalTimeMs = 0; },
     Trouble::kNone, Trouble::kReset},
    {"entries backwards",
     [](Snapshot*, Snapshot* after) { after->entities[0].states[1].residency->entryCount = 4; },
     Trouble::kNone, Trouble::kReset},
};

TEST(Interval, SaysWhyAFigureIsMissing) {
    for (const Case& test : kCases) {
        SCOPED_TRACE(test.name);
        Snapshot before = snapshotAt(0);
        Snapshot after = snapshotAt(2);
        test.change(&before, &after);
        const Interval interval = subtract(before, after);
        ASSERT_FALSE(interval.rails.empty());
        ASSERT_EQ(interval.entities.size(), 1u);
        const auto& rail = interval.rails[0];
        const auto& entity = interval.entities[0];
        EXPECT_EQ(rail.trouble, test.rail);
        EXPECT_EQ(entity.trouble, test.entity);
        EXPECT_EQ(rail.milliwatts, test.rail == Trouble::kNone ? 2000 : 0);
        EXPECT_EQ(entity.states[0].share, test.entity == Trouble::kNone ? 0.25 : 0);
        EXPECT_EQ(entity.states[0].entriesPerSecond, test.entity == Trouble::kNone ? 20 : 0);
        EXPECT_EQ(entity.noneShare, test.entity == Trouble::kNone ? 0.5 : 0);
    }
}

TEST(Interval, SharesNeverExceedTheWholeAndRoundingIsNoTime) {
    const struct {
        int64_t c1Ms, c6Ms;
        double c6Share, noneShare;
        bool isOverfull;
    } cases[] = {
        {3000, 9000, 0.75, 0, true},    // stays that began before the interval
        {999, 999, 0.5, 0, false},      // 2 ms of 2000 ms are cut off
        {1001, 1002, 0.5, 0, false},    // and here they were cut off before
        {0, 1990, 0.995, 0.005, false}  // a CPU that ran for 10 ms
    };
    for (const auto& test : cases) {
        Snapshot after = snapshotAt(2);
        after.entities[0].states[0].residency->totalTimeMs = 2500 + test.c1Ms;
        after.entities[0].states[1].residency->totalTimeMs = 2500 + test.c6Ms;
        const Interval::Entity entity = subtract(snapshotAt(0), after).entities[0];
        EXPECT_THAT(entity.states[1].share, DoubleNear(test.c6Share, 0.001)) << test.c6Ms;
        EXPECT_THAT(entity.noneShare, DoubleNear(test.noneShare, 1e-9)) << test.c6Ms;
        EXPECT_EQ(entity.isOverfull, test.isOverfull) << test.c6Ms;
    }
}

TEST(IntervalPrinter, WritesEveryFormatAsDocumented) {
    std::string text;
    for (const char* format : {"table", "csv", "jsonl"}) {
        Snapshot first = snapshotAt(0);
        first.rails[0].name = "=1,\"\x1b[2J\xff\u2028";
        Snapshot second = snapshotAt(1);
        second.rails[0].name = first.rails[0].name;
        second.rails.push_back({2, "gpu", "GPU", Snapshot::Energy{0, 0, 0}});
        Snapshot third = second;
        third.rails[1].energy = Snapshot::Energy{1000, 1000, 1};
        third.timestampMs += 2000;
        third.suspendedMs = 1500;
        third.entities[0].states[1].residency->totalTimeMs += 4000;
        Snapshot none;
        none.railsError = none.entitiesError = "no power stats service";
        IntervalPrinter printer(format);
        text += printer.print(subtract(first, second));
        text += printer.print(subtract(second, third));
        text += printer.print(subtract(third, none));
    }
    std::ostringstream golden;
    golden << std::ifstream(INTERVALS_FILE).rdbuf();
    EXPECT_EQ(text, golden.str());
}

TEST(RunReport, JudgesALimitByTheIntervalOfTheMean) {
    const struct {
        std::vector<double> milliwatts;
        double limit;
        LimitVerdict verdict;
        double margin;
    } cases[] = {
        {{2000}, 2, LimitVerdict::kKept, 0},
        {{2000, 2001}, 2, LimitVerdict::kOver, 0},
        // The mean is 2 W, the deviation 0.1 W: 4.303 x 0.1 / sqrt(3).
        {{1900, 2000, 2100}, 2.24, LimitVerdict::kUnclear, 0.2484},
        {{1900, 2000, 2100}, 2.25, LimitVerdict::kKept, 0.2484},
        {{1900, 2000, 2100}, 1.75, LimitVerdict::kOver, 0.2484},
        {{2000, 2000, 2000}, 2, LimitVerdict::kUnclear, 0},
        // 19 degrees of freedom: 2.093.
        {std::vector<double>{1900, 2100, 1900, 2100, 1900, 2100, 1900, 2100, 1900, 2100,
                             1900, 2100, 1900, 2100, 1900, 2100, 1900, 2100, 1900, 2100},
         2, LimitVerdict::kUnclear, 0.0480},
    };
    for (const auto& test : cases) {
        std::vector<Interval> runs(test.milliwatts.size());
        for (size_t i = 0; i < runs.size(); ++i) {
            runs[i].rails = {{1, "soc", "", Trouble::kNone, 0, 1000, 0, test.milliwatts[i]}};
        }
        const LimitJudgement judgement = judge({"soc", test.limit}, runs);
        EXPECT_EQ(judgement.verdict, test.verdict) << test.limit;
        EXPECT_THAT(judgement.margin.value_or(0), DoubleNear(test.margin, 0.0001)) << test.limit;
        EXPECT_EQ(judgement.margin.has_value(), runs.size() >= 3);
        runs.back().rails[0].trouble = Trouble::kNotRead;
        EXPECT_EQ(judge({"soc", 1000}, runs).verdict, LimitVerdict::kUnclear);
    }
    EXPECT_EQ(parseLimit("a=b=1.5")->rail, "a=b");
    for (const char* wrong : {"", "=1", "soc", "soc=", "soc=1W", "soc=nan", "soc=-1"}) {
        EXPECT_FALSE(parseLimit(wrong)) << wrong;
    }
}

}  // namespace
}  // namespace powerstats
