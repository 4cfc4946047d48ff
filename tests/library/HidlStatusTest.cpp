// SPDX-License-Identifier: Apache-2.0
//
// What a HIDL service's status does to the data that comes with it: each data call has a rule of
// its own.

#include <gtest/gtest.h>

#include "tests/support/Scenario.h"

namespace support {
namespace {

using Status = FakeHidl::Status;

struct StatusCase {
    const char* name;
    Call call;
    const char* method;
    Status status;
    bool empty;  ///< the answer has no records
    Outcome expected;

    friend std::ostream& operator<<(std::ostream& out, const StatusCase& test) {
        return out << test.name;
    }
};

const char kRailsUnsupported[] = "W: getRailInfo() is not supported.";
const char kNoRails[] = "W: Rail names are empty because rail energy is not supported.";
const char kNoEnergy[] = "E: Error getting rail energy data.";
const char kNoEntities[] =
    "E: getResidenciesV1_0 failed: No residences were obtained from PowerStats HAL.";

const char kBoth[] = "hidl:getRailInfo hidl:getEnergyData";
const char kResidencies[] = "hidl:getPowerEntityStateResidencyData";

Outcome unsupportedResidencies() {
    return {
        "",
        {"W: getPowerEntityStateResidencyData is not supported.", kNoEntities, "NewByteArray(0)"},
        kResidencies};
}

StatusCase rails(const char* name, Status status, bool empty, const Outcome& expected) {
    return {name, Call::kRails, "getRailInfo", status, empty, expected};
}
StatusCase energy(const char* name, Status status, bool empty, const Outcome& expected) {
    return {name, Call::kRails, "getEnergyData", status, empty, expected};
}
StatusCase residencies(const char* name, Status status, bool empty, const Outcome& expected) {
    return {name, Call::kResidencies, "getPowerEntityStateResidencyData", status, empty, expected};
}

const Outcome kRailsUsed = array(smallResult(Call::kRails), kBoth);
const Outcome kResidenciesUsed = array(smallResult(Call::kResidencies), kResidencies);
const Outcome kWithoutRails = nothing({kNoRails}, "hidl:getRailInfo");
const Outcome kWithoutEntities{"", {"clock", kNoEntities, "NewByteArray(0)"}, kResidencies};

const StatusCase kStatusCases[] = {
    rails("railsNotSupported", Status::NOT_SUPPORTED, false,
          nothing({kRailsUnsupported, kNoRails}, "hidl:getRailInfo")),
    rails("noRailsNotSupported", Status::NOT_SUPPORTED, true,
          nothing({kRailsUnsupported, kNoRails}, "hidl:getRailInfo")),
    rails("noRails", Status::SUCCESS, true, kWithoutRails),
    rails("railsInvalid", Status::INVALID_INPUT, false, kRailsUsed),
    rails("railsResources", Status::INSUFFICIENT_RESOURCES, false, kRailsUsed),
    energy("energyNotSupported", Status::NOT_SUPPORTED, false, nothing({kNoEnergy}, kBoth)),
    energy("energyInvalid", Status::INVALID_INPUT, false, nothing({kNoEnergy}, kBoth)),
    energy("noEnergyInvalid", Status::INVALID_INPUT, true, nothing({kNoEnergy}, kBoth)),
    energy("noEnergy", Status::SUCCESS, true, array("", kBoth)),
    residencies("residenciesNotSupported", Status::NOT_SUPPORTED, false, unsupportedResidencies()),
    residencies("noResidenciesNotSupported", Status::NOT_SUPPORTED, true, unsupportedResidencies()),
    residencies("noResidencies", Status::SUCCESS, true, kWithoutEntities),
    residencies("residenciesInvalid", Status::INVALID_INPUT, false, kResidenciesUsed),
    residencies("residenciesResources", Status::INSUFFICIENT_RESOURCES, false, kResidenciesUsed),
};

class HidlStatus : public testing::TestWithParam<StatusCase>, public Scenario {};
INSTANTIATE_TEST_SUITE_P(All, HidlStatus, testing::ValuesIn(kStatusCases),
                         [](const auto& info) { return info.param.name; });

TEST_P(HidlStatus, DecidesOnItsOwnCallOnly) {
    const StatusCase& test = GetParam();
    serve(Backend::kHidl, smallMachine());
    EXPECT_EQ(call(test.call),
              array(smallResult(test.call), firstTraffic(Backend::kHidl, test.call),
                    {chosenLine(Backend::kHidl)}));
    hidl->statuses[test.method] = test.status;
    if (test.empty) {
        Machine machine = smallMachine();
        (test.call == Call::kResidencies  ? machine.totals.clear()
         : test.expected.traffic == kBoth ? machine.energies.clear()
                                          : machine.rails.clear());
        hidl->tell(machine);
    }
    EXPECT_EQ(call(test.call), test.expected);
    EXPECT_EQ(call(test.call), test.expected);
    hidl->statuses.clear();
    hidl->tell(smallMachine());
    EXPECT_EQ(call(test.call),
              array(smallResult(test.call), steadyTraffic(Backend::kHidl, test.call)));
}

TEST_F(HidlStatus, EveryCallAsksForRailNames) {
    serve(Backend::kHidl, smallMachine());
    call(Call::kRails);
    hidl->rails[0].railName = "renamed";
    EXPECT_EQ(call(Call::kRails), array(rail("renamed", 4500), kBoth));
}

}  // namespace
}  // namespace support
