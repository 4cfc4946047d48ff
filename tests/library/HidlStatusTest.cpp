// SPDX-License-Identifier: Apache-2.0
//
// The effect of a HIDL service's status on the data that comes with it. Each data call has a rule
// of its own.

#include <gtest/gtest.h>

#include "tests/support/Scenario.h"

namespace support {
namespace {

using Status = FakeHidl::Status;

const char kNoRails[] = "W: Rail names are empty because rail energy is not supported.";
const char kEntitiesFailed[] =
    "E: getResidenciesV1_0 failed: No residences were obtained from PowerStats HAL.";
const char kRails[] = "getRailInfo";
const char kEnergy[] = "getEnergyData";
const char kResidencies[] = "getPowerEntityStateResidencyData";

const std::string kBoth = steadyTraffic(Backend::kHidl, Call::kRails);
const std::string kOne = steadyTraffic(Backend::kHidl, Call::kResidencies);
const Outcome kRailsUsed = array(smallResult(Call::kRails), kBoth);
const Outcome kRailsNotSupported =
    nothing({"W: getRailInfo() is not supported.", kNoRails}, "hidl:getRailInfo");
const Outcome kEnergyFailed = nothing({"E: Error getting rail energy data."}, kBoth);
const Outcome kResidenciesUsed = array(smallResult(Call::kResidencies), kOne);
const Outcome kUnsupported{
    "",
    {"W: getPowerEntityStateResidencyData is not supported.", kEntitiesFailed, "NewByteArray(0)"},
    kOne};

struct StatusCase {
    const char* name;
    const char* method;
    Status status;
    Outcome expected;

    friend std::ostream& operator<<(std::ostream& out, const StatusCase& test) {
        return out << test.name;
    }
};

const StatusCase kStatusCases[] = {
    {"railsNotSupported", kRails, Status::NOT_SUPPORTED, kRailsNotSupported},
    {"railsInvalid", kRails, Status::INVALID_INPUT, kRailsUsed},
    {"energyNotSupported", kEnergy, Status::NOT_SUPPORTED, kEnergyFailed},
    {"energyInvalid", kEnergy, Status::INVALID_INPUT, kEnergyFailed},
    {"residenciesNotSupported", kResidencies, Status::NOT_SUPPORTED, kUnsupported},
    {"residenciesInvalid", kResidencies, Status::INVALID_INPUT, kResidenciesUsed},
};

class HidlStatuses : public testing::TestWithParam<StatusCase>, public Scenario {};
INSTANTIATE_TEST_SUITE_P(All, HidlStatuses, testing::ValuesIn(kStatusCases),
                         testing::PrintToStringParamName());

TEST_P(HidlStatuses, DecidesOnItsOwnCallOnly) {
    const StatusCase& test = GetParam();
    const Call which = test.method == kResidencies ? Call::kResidencies : Call::kRails;
    serve(Backend::kHidl, smallMachine());
    call(which);
    hidl->statuses[test.method] = test.status;
    EXPECT_EQ(call(which), test.expected);
    EXPECT_EQ(call(which), test.expected);
    hidl->statuses.clear();
    EXPECT_EQ(call(which), array(smallResult(which), steadyTraffic(Backend::kHidl, which)));
}

TEST_F(HidlStatuses, EveryCallAsksForRailNames) {
    serve(Backend::kHidl, smallMachine());
    call(Call::kRails);
    hidl->rails[0].railName = "renamed";
    EXPECT_EQ(call(Call::kRails), array(rail("renamed", 4500), kBoth));
    hidl->rails = {};
    EXPECT_EQ(call(Call::kRails), nothing({kNoRails}, "hidl:getRailInfo"));
}

}  // namespace
}  // namespace support
