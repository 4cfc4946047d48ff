// SPDX-License-Identifier: Apache-2.0
//
// From what a service answers to the bytes of the result, for both backends.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/Scenario.h"

namespace support {
namespace {

using namespace std::string_literals;

struct DataCase {
    const char* name;
    Call call;
    Machine machine;
    std::string expected;

    friend std::ostream& operator<<(std::ostream& out, const DataCase& test) {
        return out << test.name;
    }
};

/// A HIDL service without entities is not used, by rails neither.
const Entity kUnused{99, "unused"};

DataCase rails(const char* name, const std::vector<Rail>& rails,
               const std::vector<Energy>& energies, const std::string& expected) {
    return {name, Call::kRails, {rails, energies, {kUnused}}, expected};
}
DataCase residencies(const char* name, const std::vector<Entity>& entities,
                     const std::vector<EntityTotals>& totals, const std::string& expected) {
    return {name, Call::kResidencies, {{}, {}, entities, totals}, expected};
}

/// A rail, or an entity and its state, that bear one name.
DataCase railNamed(const char* caseName, const std::string& name) {
    return rails(caseName, {{1, name}}, {{1, 1000}}, rail(name, 1));
}
DataCase entityNamed(const char* caseName, const std::string& name) {
    return residencies(caseName, {{1, name, {{1, name}}}}, {{1, {{1, 2, 3}}}},
                       entity(name, {residency(name, 2, 3)}));
}

const DataCase kDataCases[] = {
    rails("railsInTheServicesOrderNotMerged", {{1, "b"}, {2, "a"}, {3, "unused"}},
          {{2, 2000}, {1, 5000}, {2, 3000}}, rail("a", 2) + rail("b", 5) + rail("a", 3)),
    rails("firstOfTwoRailsWithOneId", {{1, "first"}, {1, "second"}}, {{1, 1000}}, rail("first", 1)),
    rails("railIdsOfAnyBits",
          {{0x80000000, "min"}, {0xffffffff, "minus one"}, {0, "zero"}, {0x7fffffff, "max"}},
          {{0x7fffffff, 1000}, {0, 0}, {0xffffffff, 2000}, {0x80000000, 3000}},
          rail("max", 1) + rail("zero", 0) + rail("minus one", 2) + rail("min", 3)),
    rails("railNamesEndAtTheirFirstNul", {{1, "VDD\0hidden"s}, {2, "\0"s}}, {{1, 1000}, {2, 1000}},
          rail("VDD", 1) + rail("", 1)),
    rails("noEnergies", {{1, "rail"}}, {}, ""),
    residencies(
        "entitiesAndStatesInTheServicesOrderNotMerged",
        {{1, "b", {{1, "y"}, {2, "x"}}}, {2, "a", {{1, "z"}}}},
        {{2, {{1, 10, 11}}}, {1, {{2, 20, 21}, {1, 30, 31}, {2, 40, 41}}}, {2, {{1, 5, 6}}}},
        entity("a", {residency("z", 10, 11)}) +
            entity("b", {residency("x", 20, 21), residency("y", 30, 31), residency("x", 40, 41)}) +
            entity("a", {residency("z", 5, 6)})),
    residencies("firstOfTwoEntitiesOrStatesWithOneId",
                {{1, "first", {{1, "old"}, {1, "new"}}}, {1, "second", {{1, "other"}}}},
                {{1, {{1, 2, 3}}}}, entity("first", {residency("old", 2, 3)})),
    residencies("entityIdsOfAnyBits",
                {{0x80000000, "min", {{0xffffffff, "minus one"}, {0x7fffffff, "max"}}},
                 {0xffffffff, "last", {{0, "0"}}}},
                {{0xffffffff, {{0, 1, 2}}}, {0x80000000, {{0x7fffffff, 5, 6}, {0xffffffff, 3, 4}}}},
                entity("last", {residency("0", 1, 2)}) +
                    entity("min", {residency("max", 5, 6), residency("minus one", 3, 4)})),
    residencies("entityWithoutStates", {{1, "none"}, {2, "some", {{1, "on"}}}},
                {{1}, {2}, {2, {{1, 1, 1}}}},
                entity("none", {}) + entity("some", {}) + entity("some", {residency("on", 1, 1)})),
    residencies("onlyAnEntityWithoutStates", {{1, "none"}}, {{1}}, entity("none", {})),
    residencies("totalsBitForBit", {{1, "SOC", {{1, "on"}}}},
                {{1, {{1, 0, 0}, {1, 1ull << 63, ~0ull}, {1, INT64_MAX, INT64_MAX}}},
                 {1, {{1, 1234, 5, 0}, {1, 1234, 5, ~0ull}}}},
                entity("SOC", {residency("on", 0, 0), residency("on", INT64_MIN, -1),
                               residency("on", INT64_MAX, INT64_MAX)}) +
                    entity("SOC", {residency("on", 1234, 5), residency("on", 1234, 5)})),
    railNamed("railNameEmpty", ""),
    railNamed("railNameNotUtf8", "\xff\xfe\x80\xc3\x28"),
    railNamed("railName127", std::string(127, 'n')),
    railNamed("railName128", std::string(128, 'n')),
    railNamed("railName100000", std::string(100000, '\xe9')),
    entityNamed("entityNameEmpty", ""),
    entityNamed("entityNameNotUtf8", "\xff\xfe\x80\xc3\x28"),
    entityNamed("entityNameWithNuls", "a\0b\0"s),
    entityNamed("entityName127", std::string(127, 'n')),
    entityNamed("entityName128", std::string(128, 'n')),
    entityNamed("entityName100000", std::string(100000, '\xe9')),
};

class Data : public testing::TestWithParam<std::tuple<Backend, DataCase>>, public Scenario {};

TEST_P(Data, ReachesJava) {
    const auto& [backend, test] = GetParam();
    serve(backend, test.machine);
    EXPECT_EQ(call(test.call),
              array(test.expected, firstTraffic(backend, test.call), {chosenLine(backend)}));
    EXPECT_EQ(call(test.call), array(test.expected, steadyTraffic(backend, test.call)));
}

INSTANTIATE_TEST_SUITE_P(
    Both, Data, testing::Combine(testing::ValuesIn(kBackends), testing::ValuesIn(kDataCases)),
    [](const auto& info) {
        return testing::PrintToString(std::get<0>(info.param)) + "_" + std::get<1>(info.param).name;
    });

class BothBackends : public testing::TestWithParam<Backend>, public Scenario {
  protected:
    /// The energies go through one rail, and are expected to come out so.
    void expectMillijoules(const std::vector<std::pair<uint64_t, int64_t>>& energies) {
        Machine machine{{{1, "rail"}}, {}, {kUnused}};
        std::string expected;
        for (const auto& [microwattSeconds, millijoules] : energies) {
            machine.energies.push_back({1, microwattSeconds});
            expected += rail("rail", millijoules);
        }
        serve(GetParam(), machine);
        const Outcome outcome = call(Call::kRails);
        ASSERT_TRUE(outcome.bytes.has_value());
        EXPECT_EQ(toHex(*outcome.bytes), toHex(expected));
    }
};
INSTANTIATE_TEST_SUITE_P(Test, BothBackends, testing::ValuesIn(kBackends),
                         testing::PrintToStringParamName());

TEST_P(BothBackends, EnergyThroughAFloatInto32Bits) {
    expectMillijoules(
        {{0, 0},
         {999, 0},
         {1000, 1},
         {1999, 1},
         {16777219, 16777},
         {16777216999, 16777218},
         {123456789012, 123456792},
         // Where rounding the energy to a float comes out in the value.
         {35067579525, 35067580},
         {1888894980369, 1888894976},
         // Where a division in double, a product with 0.001, and a division of integers differ.
         {638675311015, 638675328},
         {106784333046, 106784336},
         {1465249041865, 1465249024},
         {262489155568, 262489168},
         // The last float below 2^31 and its neighbours.
         {2147483400000, 2147483392},
         {2147483582463, 2147483520},
         {2147483582464, 2147483647},
         {2147483647000, 2147483647},
         {2147483648000, 2147483647},
         {3000000000000, 2147483647},
         {INT64_MAX, 2147483647}});
}

TEST_P(BothBackends, EnergyAbove63BitsIsOneBackendsNegative) {
    const bool isSigned = GetParam() == Backend::kAidl;
    expectMillijoules({{1ull << 63, isSigned ? INT32_MIN : INT32_MAX},
                       {~0ull, isSigned ? 0 : INT32_MAX},
                       {static_cast<uint64_t>(-999), isSigned ? 0 : INT32_MAX},
                       {static_cast<uint64_t>(-1000), isSigned ? -1 : INT32_MAX},
                       {static_cast<uint64_t>(-1999), isSigned ? -1 : INT32_MAX},
                       {static_cast<uint64_t>(-2147483582463), isSigned ? -2147483520 : INT32_MAX},
                       {static_cast<uint64_t>(-2147483582464), isSigned ? INT32_MIN : INT32_MAX},
                       {static_cast<uint64_t>(-2147483904000), isSigned ? INT32_MIN : INT32_MAX},
                       {static_cast<uint64_t>(-3000000000000), isSigned ? INT32_MIN : INT32_MAX}});
}

TEST_P(BothBackends, OnlyAidlLeavesOutWhatWasNotMeasuredSinceBoot) {
    const Machine machine{{{1, "a"}, {2, "b"}},
                          {{1, 1000, 5001, 5000},
                           {2, 2000, 5001, 5001},
                           {1, 3000, 5000, 5001},
                           {1, 4000, 0, 0},
                           {1, 5000, -1, -1},
                           {1, 6000, (1ll << 32) + 7, 7}},
                          {kUnused}};
    serve(GetParam(), machine);
    std::string expected;
    const bool filtered = GetParam() == Backend::kAidl;
    if (!filtered) expected += rail("a", 1);
    expected += rail("b", 2);
    if (!filtered) expected += rail("a", 3);
    expected += rail("a", 4) + rail("a", 5);
    if (!filtered) expected += rail("a", 6);
    EXPECT_EQ(call(Call::kRails),
              array(expected, firstTraffic(GetParam(), Call::kRails), {chosenLine(GetParam())}));
}

class AidlData : public testing::Test, public Scenario {};

TEST_F(AidlData, FilteredRailNeedsNoName) {
    serve(Backend::kAidl, {{{1, "a"}}, {{2, 1000, 1, 2}, {3, 1000, 2, 1}}});
    EXPECT_EQ(call(Call::kRails),
              array("", firstTraffic(Backend::kAidl, Call::kRails), {chosenLine(Backend::kAidl)}));
}

TEST_P(BothBackends, OneTimestampReadAfterTheServiceAnswered) {
    // As late as the clock goes, where that fits 32 bits.
    constexpr int64_t kLateSeconds = sizeof(time_t) > 4 ? 9000000000 : 2147483647;
    struct {
        std::optional<timespec> now;
        int64_t timestampMs;
    } const kCases[] = {
        {timespec{0, 999999}, 0},
        {timespec{0, 1000000}, 1},
        {timespec{1, 999999999}, 1999},
        {timespec{static_cast<time_t>(kLateSeconds), 1999999}, kLateSeconds * 1000 + 1},
        {std::nullopt, 0},
    };
    Machine machine{{{1, "rail"}},
                    {{1, 1000}, {1, 2000}},
                    {{7, "SOC", {{0, "S0"}}}},
                    {{7, {{0, 1, 2}}}, {7, {{0, 3, 4}}}}};
    serve(GetParam(), machine);
    for (const auto& test : kCases) {
        // The right time shows only from the last transaction of a call on.
        const Hook advance = [&](const std::string& method) {
            bootClock().now = timespec{42, 0};
            if (method == "readEnergyMeter" || method == "getStateResidency" ||
                method == "getEnergyData" || method == "getPowerEntityStateResidencyData") {
                bootClock().now = test.now;
            }
        };
        (GetParam() == Backend::kAidl ? aidl->onCall : hidl->onCall) = advance;
        const int64_t at = test.timestampMs;
        SCOPED_TRACE(at);
        const Outcome rails = call(Call::kRails);
        EXPECT_EQ(rails.bytes, railElement("rail", at, 1) + railElement("rail", at, 2));
        EXPECT_EQ(std::count(rails.events.begin(), rails.events.end(), "clock"), 1);
        const Outcome residencies = call(Call::kResidencies);
        EXPECT_EQ(residencies.bytes, entityElement("SOC", at, {residency("S0", 1, 2)}) +
                                         entityElement("SOC", at, {residency("S0", 3, 4)}));
        EXPECT_EQ(std::count(residencies.events.begin(), residencies.events.end(), "clock"), 1);
    }
}

// Any other result is written to the array, and a null one ends the process.
TEST_P(BothBackends, NullOfAFullJavaHeapIsHandedOnWithoutEntities) {
    Machine machine = smallMachine();
    machine.totals.clear();
    serve(GetParam(), machine);
    env.heapIsFull = true;
    const Outcome empty = call(Call::kResidencies);
    EXPECT_EQ(empty.bytes, std::nullopt);
    EXPECT_EQ(empty.events.back(), "NewByteArray(0)");
}

TEST_P(BothBackends, NoEntitiesGiveAnEmptyArrayAndALine) {
    Machine machine = smallMachine();
    machine.totals.clear();
    serve(GetParam(), machine);
    const std::string line =
        GetParam() == Backend::kAidl
            ? "E: getResidenciesAidl failed: No residences were obtained from PowerStats AIDL."
            : "E: getResidenciesV1_0 failed: No residences were obtained from PowerStats HAL.";
    EXPECT_EQ(call(Call::kResidencies),
              (Outcome{"",
                       {chosenLine(GetParam()), "clock", line, "NewByteArray(0)"},
                       firstTraffic(GetParam(), Call::kResidencies)}));
    EXPECT_EQ(call(Call::kResidencies), (Outcome{"",
                                                 {"clock", line, "NewByteArray(0)"},
                                                 steadyTraffic(GetParam(), Call::kResidencies)}));
}

}  // namespace
}  // namespace support
