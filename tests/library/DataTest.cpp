// SPDX-License-Identifier: Apache-2.0
//
// From a service's answers to the bytes of the result, for both backends.

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
    std::string name;
    Call call;
    Machine machine;
    std::string expected;

    friend std::ostream& operator<<(std::ostream& out, const DataCase& test) {
        return out << test.name;
    }
};

/// A HIDL service without entities is not used, not even for rails.
const stats::PowerEntity kUnused{99, "unused", {}};

/// Rails by id and name, and energies in microwatt-seconds by id.
DataCase rails(const std::string& name, const std::vector<std::pair<int32_t, std::string>>& rails,
               const std::vector<std::pair<int32_t, int64_t>>& energies,
               const std::string& expected) {
    Machine machine{{}, {}, {kUnused}};
    for (const auto& [id, railName] : rails) machine.rails.push_back({id, railName, ""});
    for (const auto& [id, energy] : energies) machine.energies.push_back({id, 5000, 5000, energy});
    return {name, Call::kRails, machine, expected};
}
DataCase residencies(const std::string& name, const std::vector<stats::PowerEntity>& entities,
                     const std::vector<stats::StateResidencyResult>& totals,
                     const std::string& expected) {
    return {name, Call::kResidencies, {{}, {}, entities, totals}, expected};
}

std::vector<DataCase> allDataCases() {
    std::vector<DataCase> all = {
        rails("railsInTheServicesOrderNotMerged", {{1, "b"}, {2, "a"}, {3, "unused"}},
              {{2, 2000}, {1, 5000}, {2, 3000}}, rail("a", 2) + rail("b", 5) + rail("a", 3)),
        rails("firstOfTwoRailsWithOneId", {{1, "first"}, {1, "second"}}, {{1, 1000}},
              rail("first", 1)),
        rails("railIdsOfAnyBits",
              {{INT32_MIN, "min"}, {-1, "minus one"}, {0, "zero"}, {INT32_MAX, "max"}},
              {{INT32_MAX, 1000}, {0, 0}, {-1, 2000}, {INT32_MIN, 3000}},
              rail("max", 1) + rail("zero", 0) + rail("minus one", 2) + rail("min", 3)),
        rails("railNamesEndAtTheirFirstNul", {{1, "VDD\0hidden"s}, {2, "\0"s}},
              {{1, 1000}, {2, 1000}}, rail("VDD", 1) + rail("", 1)),
        rails("noEnergies", {{1, "rail"}}, {}, ""),
        residencies("entitiesAndStatesInTheServicesOrderNotMerged",
                    {{1, "b", {{1, "y"}, {2, "x"}}}, {2, "a", {{1, "z"}}}},
                    {{2, {{1, 10, 11, 0}}},
                     {1, {{2, 20, 21, 0}, {1, 30, 31, 0}, {2, 40, 41, 0}}},
                     {2, {{1, 5, 6, 0}}}},
                    entity("a", {residency("z", {1, 10, 11, 0})}) +
                        entity("b", {residency("x", {2, 20, 21, 0}), residency("y", {1, 30, 31, 0}),
                                     residency("x", {2, 40, 41, 0})}) +
                        entity("a", {residency("z", {1, 5, 6, 0})})),
        residencies("firstOfTwoEntitiesOrStatesWithOneId",
                    {{1, "first", {{1, "old"}, {1, "new"}}}, {1, "second", {{1, "other"}}}},
                    {{1, {{1, 2, 3, 0}}}}, entity("first", {residency("old", {1, 2, 3, 0})})),
        residencies(
            "entityIdsOfAnyBits",
            {{INT32_MIN, "min", {{-1, "minus one"}, {INT32_MAX, "max"}}}, {-1, "last", {{0, "0"}}}},
            {{-1, {{0, 1, 2, 0}}}, {INT32_MIN, {{INT32_MAX, 5, 6, 0}, {-1, 3, 4, 0}}}},
            entity("last", {residency("0", {0, 1, 2, 0})}) +
                entity("min", {residency("max", {INT32_MAX, 5, 6, 0}),
                               residency("minus one", {-1, 3, 4, 0})})),
        residencies("onlyAnEntityWithoutStates", {{1, "none", {}}}, {{1, {}}}, entity("none", {})),
        residencies(
            "totalsBitForBit", {{1, "SOC", {{1, "on"}}}},
            {{1, {{1, 0, 0, 9}, {1, INT64_MIN, -1, 9}, {1, -1, INT64_MAX, 9}}}},
            entity("SOC", {residency("on", {1, 0, 0, 9}), residency("on", {1, INT64_MIN, -1, 9}),
                           residency("on", {1, -1, INT64_MAX, 9})})),
        residencies("entityNameWithNuls", {{1, "a\0b\0"s, {{1, "a\0b\0"s}}}}, {{1, {{1, 2, 3, 0}}}},
                    entity("a\0b\0"s, {residency("a\0b\0"s, {1, 2, 3, 0})})),
    };
    const std::pair<const char*, std::string> names[] = {
        {"Empty", ""},
        {"NotUtf8", "\xff\xfe\x80\xc3\x28"},
        {"100000", std::string(100000, '\xe9')},
    };
    for (const auto& [kind, name] : names) {
        all.push_back(rails("railName"s + kind, {{1, name}}, {{1, 1000}}, rail(name, 1)));
        all.push_back(residencies("entityName"s + kind, {{1, name, {{1, name}}}},
                                  {{1, {{1, 2, 3, 0}}}},
                                  entity(name, {residency(name, {1, 2, 3, 0})})));
    }
    return all;
}

class Data : public testing::TestWithParam<std::tuple<Backend, DataCase>>, public Scenario {};

TEST_P(Data, ReachesJava) {
    const auto& [backend, test] = GetParam();
    serve(backend, test.machine);
    EXPECT_EQ(call(test.call),
              asFirst(backend, array(test.expected, reconnectTraffic(backend, test.call))));
    EXPECT_EQ(call(test.call), array(test.expected, steadyTraffic(backend, test.call)));
}

INSTANTIATE_TEST_SUITE_P(
    Both, Data, testing::Combine(testing::ValuesIn(kBackends), testing::ValuesIn(allDataCases())),
    [](const auto& info) {
        return testing::PrintToString(std::get<0>(info.param)) + "_" + std::get<1>(info.param).name;
    });

class BothBackends : public testing::TestWithParam<Backend>, public Scenario {};
INSTANTIATE_TEST_SUITE_P(Test, BothBackends, testing::ValuesIn(kBackends),
                         testing::PrintToStringParamName());

TEST_P(BothBackends, EnergyThroughAFloatInto32Bits) {
    // Microwatt-seconds, and their millijoules over AIDL and HIDL. A negative number over AIDL is
    // one above 63 bits over HIDL.
    const int64_t kCases[][3] = {
        {1999, 1, 1},
        // A division in double, one of integers and a product with 0.001 differ here.
        {16777216999, 16777218, 16777218},
        {123456789012, 123456792, 123456792},
        // The last energy below 2^31 mJ as a float, and the next one.
        {2147483582463, 2147483520, 2147483520},
        {2147483582464, INT32_MAX, INT32_MAX},
        {INT64_MAX, INT32_MAX, INT32_MAX},
        {-1999, -1, INT32_MAX},
        {-2147483582463, -2147483520, INT32_MAX},
        {-2147483582464, INT32_MIN, INT32_MAX},
        {INT64_MIN, INT32_MIN, INT32_MAX}};
    Machine machine{{{1, "rail", ""}}, {}, {kUnused}};
    std::string expected;
    for (const auto& [energy, overAidl, overHidl] : kCases) {
        machine.energies.push_back({1, 5000, 5000, energy});
        expected += rail("rail", GetParam() == Backend::kAidl ? overAidl : overHidl);
    }
    serve(GetParam(), machine);
    EXPECT_EQ(call(Call::kRails).bytes, expected);
}

TEST_P(BothBackends, OnlyAidlLeavesOutEnergyThatWasNotMeasuredSinceBoot) {
    Machine machine{{{1, "a", ""}, {2, "b", ""}},
                    {{1, 5001, 5000, 1000},
                     {2, 5001, 5001, 2000},
                     {1, 5000, 5001, 3000},
                     {1, 0, 0, 4000},
                     {1, -1, -1, 5000},
                     {1, (1ll << 32) + 7, 7, 6000}},
                    {kUnused}};
    std::string expected = rail("b", 2) + rail("a", 4) + rail("a", 5);
    if (GetParam() == Backend::kAidl) {
        machine.energies.push_back({3, 1, 2, 1000});  // needs no name
    } else {
        expected =
            rail("a", 1) + rail("b", 2) + rail("a", 3) + rail("a", 4) + rail("a", 5) + rail("a", 6);
    }
    serve(GetParam(), machine);
    EXPECT_EQ(call(Call::kRails).bytes, expected);
}

TEST_P(BothBackends, OneTimestampReadAfterTheServiceAnswered) {
    // The latest time, where time_t has 32 bits.
    constexpr int64_t kLateSeconds = sizeof(time_t) > 4 ? 9000000000 : 2147483647;
    struct {
        std::optional<timespec> now;
        int64_t timestampMs;
    } const kCases[] = {
        {timespec{1, 999999999}, 1999},
        {timespec{static_cast<time_t>(kLateSeconds), 1999999}, kLateSeconds * 1000 + 1},
        {std::nullopt, 0},
    };
    serve(GetParam(), {{{1, "rail", ""}},
                       {{1, 5000, 5000, 1000}, {1, 5000, 5000, 2000}},
                       {{7, "SOC", {{0, "S0"}}}},
                       {{7, {{0, 1, 2, 0}}}, {7, {{0, 3, 4, 0}}}}});
    for (const auto& test : kCases) {
        // The clock shows the right time only from the last transaction of a call on.
        service(GetParam()).onCall = [&](const std::string& method) {
            bootClock().now = timespec{42, 0};
            if (method == "readEnergyMeter" || method == "getStateResidency" ||
                method == "getEnergyData" || method == "getPowerEntityStateResidencyData") {
                bootClock().now = test.now;
            }
        };
        const int64_t at = test.timestampMs;
        SCOPED_TRACE(at);
        EXPECT_EQ(call(Call::kRails).bytes, rail("rail", 1, at) + rail("rail", 2, at));
        EXPECT_EQ(call(Call::kResidencies).bytes,
                  entity("SOC", {residency("S0", {0, 1, 2, 0})}, at) +
                      entity("SOC", {residency("S0", {0, 3, 4, 0})}, at));
    }
}

TEST_P(BothBackends, NoEntitiesGiveAnEmptyArrayAndALogLine) {
    Machine machine = smallMachine();
    machine.totals.clear();
    serve(GetParam(), machine);
    const Lines log = {
        "clock",
        GetParam() == Backend::kAidl
            ? "E: getResidenciesAidl failed: No residences were obtained from PowerStats AIDL."
            : "E: getResidenciesV1_0 failed: No residences were obtained from PowerStats HAL.",
        "NewByteArray(0)"};
    EXPECT_EQ(call(Call::kResidencies),
              asFirst(GetParam(), {"", log, reconnectTraffic(GetParam(), Call::kResidencies)}));
    // Any other result is written to the array, and a null array ends the process.
    env.heapIsFull = true;
    EXPECT_EQ(call(Call::kResidencies),
              (Outcome{std::nullopt, log, steadyTraffic(GetParam(), Call::kResidencies)}));
}

}  // namespace
}  // namespace support
