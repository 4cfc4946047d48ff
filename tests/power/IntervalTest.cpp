// SPDX-License-Identifier: Apache-2.0
//
// The arithmetic of intervals, the formats that show them, and limits of power.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <numeric>
#include <sstream>

#include "power/text/Names.h"
#include "power/text/Page.h"
#include "tools/run/RunReport.h"

namespace powerstats {
namespace {

using testing::DoubleNear;

using std::chrono::milliseconds;

/// One rail of 2 W and one CPU that sleeps half of the time, `seconds` after the first reading.
struct Sample {
    std::vector<Rail> rails = {{1, "soc", "SOC"}};
    std::vector<Entity> entities = {{7, "cpu0", EntityType::kCpu, {{0, "C1"}, {1, "C6"}}}};
    Reading reading = {};

    explicit Sample(int64_t seconds) {
        const milliseconds time(10'000 + seconds * 1000);
        reading.rails = {Energy{time, time, time.count() * 2000, 0}};
        reading.entities = {
            Residencies{time, 0, {{time / 4, seconds * 20, {}}, {time / 4, 5, {}}}}};
        reading.time = time;
    }
    const Reading& get() {
        reading.lists = nameLists(rails, entities, true);
        return reading;
    }
    Energy& energy() { return *reading.rails[0]; }
    Residency& state(size_t i) { return reading.entities[0]->states[i]; }
    void fail() {
        *this = Sample(0);
        rails.clear();
        entities.clear();
        reading.rails.clear();
        reading.entities.clear();
        reading.railsFailure = reading.entitiesFailure = {Failure::Kind::kGone, "gone"};
    }
};

/// A change of the second of two snapshots, two seconds apart, and the trouble that it makes.
struct Case {
    const char* name;
    std::function<void(Sample* before, Sample* after)> change;
    Trouble rail = Trouble::kNone;
    Trouble entity = Trouble::kNone;
};

const Case kCases[] = {
    {"nothing", [](Sample*, Sample*) {}},
    {"energy backwards", [](Sample*, Sample* after) { after->energy().energyUWs = 1; },
     Trouble::kReset},
    {"a reset that the total does not show",
     [](Sample*, Sample* after) {
         after->energy().resets = 1;
         after->reading.entities[0]->resets = 1;
     },
     Trouble::kReset, Trouble::kReset},
    {"a restarted service that overtook its old total",
     [](Sample*, Sample* after) { after->energy().duration = milliseconds(9'999); },
     Trouble::kReset},
    {"the same stamps",
     [](Sample*, Sample* after) {
         after->energy().time = after->reading.entities[0]->time = milliseconds(10'000);
     },
     Trouble::kNoTime, Trouble::kNoTime},
    {"a stamp backwards",
     [](Sample*, Sample* after) { after->energy().time = milliseconds(9'000); }, Trouble::kNoTime},
    {"extremes of 64 bits",
     [](Sample* before, Sample* after) {
         before->energy().energyUWs = INT64_MIN;
         after->energy().energyUWs = -1;
     },
     Trouble::kImplausible},
    {"a rail without energy", [](Sample* before, Sample*) { before->reading.rails[0].reset(); },
     Trouble::kNotRead},
    {"another rail under the same id", [](Sample*, Sample* after) { after->rails[0].name = "gpu"; },
     Trouble::kCame},
    {"a failed reading", [](Sample*, Sample* after) { after->fail(); }, Trouble::kNotRead,
     Trouble::kNotRead},
    {"a reading after a failed one", [](Sample* before, Sample*) { before->fail(); },
     Trouble::kNotRead, Trouble::kNotRead},
    {"an entity that goes",
     [](Sample*, Sample* after) {
         after->entities.clear();
         after->reading.entities.clear();
     },
     Trouble::kNone, Trouble::kWent},
    {"a state that goes",
     [](Sample*, Sample* after) {
         after->entities[0].states.pop_back();
         after->reading.entities[0]->states.pop_back();
     },
     Trouble::kNone, Trouble::kWent},
    {"an entity that was not read",
     [](Sample*, Sample* after) { after->reading.entities[0].reset(); }, Trouble::kNone,
     Trouble::kNotRead},
    {"time backwards", [](Sample*, Sample* after) { after->state(0).totalTime = {}; },
     Trouble::kNone, Trouble::kReset},
    {"entries backwards", [](Sample*, Sample* after) { after->state(1).entryCount = 4; },
     Trouble::kNone, Trouble::kReset},
};

TEST(Interval, SaysWhyAFigureIsMissing) {
    for (const Case& test : kCases) {
        SCOPED_TRACE(test.name);
        Sample before(0);
        Sample after(2);
        test.change(&before, &after);
        const Interval interval = subtract(before.get(), after.get());
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

TEST(Interval, CoversTheWholeTimeAfterAnOutage) {
    // The same lists, as of one source.
    Reading readings[] = {Sample(0).get(), Sample(1).get(), Sample(3).get()};
    for (Reading& reading : readings) reading.lists = readings[0].lists;
    readings[1].rails[0].reset();
    readings[1].entities[0].reset();
    keepFigures(readings[0], &readings[1]);
    const Interval outage = subtract(readings[0], readings[1]);
    EXPECT_EQ(outage.rails[0].trouble, Trouble::kNoTime);
    EXPECT_EQ(outage.entities[0].trouble, Trouble::kNoTime);
    keepFigures(readings[1], &readings[2]);
    const Interval after = subtract(readings[1], readings[2]);
    EXPECT_EQ(after.elapsed, milliseconds(2000));
    EXPECT_EQ(after.rails[0].elapsed, milliseconds(3000));
    EXPECT_EQ(after.rails[0].milliwatts, 2000);
    EXPECT_EQ(after.entities[0].states[0].share, 0.25) << "of 3 s";
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
        Sample after(2);
        after.state(0).totalTime = milliseconds(2500 + test.c1Ms);
        after.state(1).totalTime = milliseconds(2500 + test.c6Ms);
        const auto entity = subtract(Sample(0).get(), after.get()).entities[0];
        EXPECT_THAT(entity.states[1].share, DoubleNear(test.c6Share, 0.001)) << test.c6Ms;
        EXPECT_THAT(entity.noneShare, DoubleNear(test.noneShare, 1e-9)) << test.c6Ms;
        EXPECT_EQ(entity.isOverfull, test.isOverfull) << test.c6Ms;
    }
}

TEST(IntervalPrinter, WritesEveryFormatAsDocumented) {
    std::string text;
    for (const char* format : {"table", "csv", "jsonl"}) {
        Sample first(0), second(1);
        first.rails[0].name = second.rails[0].name = "=1,\"\x1b[2J\xff\u2028";
        second.rails.push_back({2, "g\"pu", "GPU"});
        second.reading.rails.push_back(Energy{});
        Reading third = second.get();
        third.rails[1] = Energy{milliseconds(1000), milliseconds(1000), 1};
        third.time += milliseconds(2000);
        third.entities[0]->time += milliseconds(2000);
        third.suspended = milliseconds(1500);
        third.entities[0]->states[1].totalTime += milliseconds(4000);
        Reading none;
        none.railsFailure =
            none.entitiesFailure = {Failure::Kind::kNoService, "no power stats service"};
        IntervalPrinter printer(format);
        text += printer.print(subtract(first.get(), second.reading));
        text += printer.print(subtract(second.reading, third));
        text += printer.print(subtract(third, none));
    }
    std::ostringstream golden;
    golden << std::ifstream(INTERVALS_FILE).rdbuf();
    EXPECT_EQ(text, golden.str());
}

TEST(RunReport, JudgesALimitByTheIntervalOfTheMean) {
    std::vector<double> twenty(20, 1900);
    std::fill_n(twenty.begin(), 10, 2100);
    const struct {
        std::vector<double> milliwatts;
        double limit;
        LimitVerdict verdict;
        double margin = 0;
    } cases[] = {
        {{2000}, 2, LimitVerdict::kKept},
        {{2000, 2001}, 2, LimitVerdict::kOver},
        // The mean is 2 W, the deviation 0.1 W: 4.303 x 0.1 / sqrt(3).
        {{1900, 2000, 2100}, 2.24, LimitVerdict::kUnclear, 0.2484},
        {{1900, 2000, 2100}, 2.25, LimitVerdict::kKept, 0.2484},
        {{1900, 2000, 2100}, 1.75, LimitVerdict::kOver, 0.2484},
        {{2000, 2000, 2000}, 2, LimitVerdict::kKept},
        // 19 degrees of freedom: 2.093.
        {twenty, 2, LimitVerdict::kUnclear, 0.0480},
    };
    for (const auto& test : cases) {
        Interval run;
        run.lists = nameLists({{1, "soc", ""}}, {}, true);
        run.rails.resize(1);
        run.elapsed = run.rails[0].elapsed = milliseconds(1000);
        run.stampUnit = milliseconds(20);
        std::vector<Interval> runs(test.milliwatts.size(), run);
        for (size_t i = 0; i < runs.size(); ++i) runs[i].rails[0].milliwatts = test.milliwatts[i];
        const LimitJudgement judgement = judge({"soc", test.limit}, runs);
        EXPECT_EQ(judgement.verdict, test.verdict) << test.limit;
        EXPECT_THAT(judgement.margin.value_or(0), DoubleNear(test.margin, 0.0001)) << test.limit;
        EXPECT_EQ(judgement.margin.has_value(), runs.size() >= 3);
        // A run that takes longer counts for more.
        runs[0].rails[0].elapsed = milliseconds(3000);
        const double count = static_cast<double>(runs.size()) + 2;
        const double sum = std::accumulate(test.milliwatts.begin(), test.milliwatts.end(), 0.0);
        EXPECT_DOUBLE_EQ(*judge({"soc", 1000}, runs).mean,
                         (sum + 2 * test.milliwatts[0]) / count / 1000);
        runs.back().elapsed -= milliseconds(1);
        EXPECT_EQ(judge({"soc", 1000}, runs).verdict, LimitVerdict::kUnclear) << "too short";
        runs.back().elapsed = milliseconds(1000);
        EXPECT_EQ(judge({"soc", 1000}, runs).verdict, LimitVerdict::kKept);
        runs.back().rails[0].trouble = Trouble::kNotRead;
        EXPECT_EQ(judge({"soc", 1000}, runs).verdict, LimitVerdict::kUnclear);
    }
    const auto rails =
        nameLists(
            {{1, "soc", "A"}, {2, "A/soc", "B"}, {3, "fan", "A"}, {4, "fan", "B"}, {5, "fan", "B"}},
            {}, false)
            ->rails;
    const std::pair<const char*, std::vector<size_t>> names[] = {
        {"soc", {0}},      {"A/soc", {1}},     {"id:1", {0}}, {"A/fan", {2}}, {"id:4", {3}},
        {"B/fan", {3, 4}}, {"fan", {2, 3, 4}}, {"fans", {}},  {"fa", {}},
    };
    for (const auto& [name, positions] : names) {
        EXPECT_EQ(findRail(rails, name), positions) << name;
    }
    EXPECT_EQ(parseLimit("a=b=1.5")->rail, "a=b");
    for (const char* wrong : {"", "=1", "soc", "soc=", "soc=1W", "soc=nan", "soc=-1"}) {
        EXPECT_FALSE(parseLimit(wrong)) << wrong;
    }
}

}  // namespace
}  // namespace powerstats
