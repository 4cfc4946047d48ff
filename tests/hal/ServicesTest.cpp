// SPDX-License-Identifier: Apache-2.0
//
// The statuses of the two services, and the rules in which they differ. The tests of the tool
// compare the records of both.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hal/LinuxPowerStats.h"
#include "tests/hal/TemporaryTree.h"

namespace powerstats {
namespace {

namespace aidl_stats = aidl::android::hardware::power::stats;
using android::hardware::power::stats::V1_0::Status;
using testing::ElementsAre;

constexpr int32_t kZone = 962335114;  // the id of "zone:39751"
/// A counter with this range may have wrapped after 262 s.
constexpr long long kRangeUj = 262144000000;

class ServicesTest : public testing::Test {
  protected:
    std::shared_ptr<const LinuxCounters> makeCounters() {
        LinuxCounters::Options options;
        options.root = mTree.root();
        options.hasBoot = true;
        options.readClock = [this](clockid_t) { return mNow; };
        return std::make_shared<const LinuxCounters>(options);
    }

    /// Makes a HIDL callback that keeps the status and the number of records.
    auto keep() {
        return [this](const auto& records, Status status) {
            mStatus = status;
            mCount = records.size();
        };
    }
    /// Asks for rails, and expects a status and a number of rails.
    void expectRails(LinuxPowerStatsHidl& service, Status status, size_t count) {
        EXPECT_TRUE(service.getRailInfo(keep()).isOk());
        EXPECT_EQ(std::make_pair(mStatus, mCount), std::make_pair(status, count));
    }
    void expectEnergies(LinuxPowerStatsHidl& service, Status status, size_t count,
                        const std::vector<uint32_t>& ids = {}) {
        EXPECT_TRUE(service.getEnergyData(ids, keep()).isOk());
        EXPECT_EQ(std::make_pair(mStatus, mCount), std::make_pair(status, count));
    }

    TemporaryTree mTree;
    std::chrono::milliseconds mNow{20000};
    Status mStatus = Status::SUCCESS;
    size_t mCount = 0;
};

TEST_F(ServicesTest, AidlTellsTheTimeThatARailCoversAndRefusesUnknownIds) {
    mTree.writeZone("zone:39751", "package-0", 42, kRangeUj);
    const auto service = ndk::SharedRefBase::make<LinuxPowerStatsAidl>(makeCounters());
    mNow = std::chrono::seconds(320);
    std::vector<aidl_stats::EnergyMeasurement> energies;
    EXPECT_TRUE(service->readEnergyMeter({kZone}, &energies).isOk());
    ASSERT_EQ(energies.size(), 1u);
    EXPECT_EQ(std::tie(energies[0].id, energies[0].timestampMs, energies[0].durationMs,
                       energies[0].energyUWs),
              std::make_tuple(kZone, 320000, 20000, 42));
    const auto refused = service->readEnergyMeter({77}, &energies);
    EXPECT_EQ(refused.getExceptionCode(), EX_ILLEGAL_ARGUMENT);
    EXPECT_STREQ(refused.getMessage(), "no rail has the id 77");
    EXPECT_EQ(energies.size(), 0u);
    std::vector<aidl_stats::StateResidencyResult> residencies(1);
    EXPECT_EQ(service->getStateResidency({77}, &residencies).getExceptionCode(),
              EX_ILLEGAL_ARGUMENT);
    EXPECT_EQ(residencies.size(), 0u);
    mTree.remove("class");
    EXPECT_TRUE(service->readEnergyMeter({kZone}, &energies).isOk());
    EXPECT_EQ(energies.size(), 0u) << "a rail that cannot be read";
}

TEST_F(ServicesTest, HidlHasAStatusForARefusalAndForUnreadableCounters) {
    mTree.writeIdleState(2, 4, "C6", 5000, 6);
    mTree.writeZone("zone:39751", "package-0", 42);
    LinuxPowerStatsHidl service(makeCounters());
    expectEnergies(service, Status::SUCCESS, 1, {kZone});
    expectEnergies(service, Status::INVALID_INPUT, 0, {77});
    expectEnergies(service, Status::INVALID_INPUT, 0, {kZone, kZone});
    EXPECT_TRUE(service
                    .getPowerEntityInfo([](const auto& entities, Status) {
                        using Type = android::hardware::power::stats::V1_0::PowerEntityType;
                        EXPECT_EQ(entities[0].type, Type::SUBSYSTEM);
                        EXPECT_EQ(entities[1].type, Type::POWER_DOMAIN);
                    })
                    .isOk());
    EXPECT_TRUE(service.getPowerEntityStateInfo({77}, keep()).isOk());
    EXPECT_EQ(mStatus, Status::INVALID_INPUT);
    EXPECT_TRUE(service.getPowerEntityStateResidencyData({2, 2}, keep()).isOk());
    EXPECT_EQ(mStatus, Status::INVALID_INPUT);
    mTree.remove("class");
    mTree.remove("devices");
    expectEnergies(service, Status::FILESYSTEM_ERROR, 0);
    EXPECT_TRUE(service.getPowerEntityStateResidencyData({2}, keep()).isOk());
    EXPECT_EQ(mStatus, Status::FILESYSTEM_ERROR);
}

TEST_F(ServicesTest, HidlHasOnlyRailsThatAreSinceBoot) {
    const std::string meter = "class/hwmon/hwmon0/energy1_input";
    mTree.write(meter, 42);
    mTree.writeZone("zone:39751", "package-0", 1000, kRangeUj);
    const auto counters = makeCounters();
    LinuxPowerStatsHidl early(counters), unserved(counters, HidlRails::kNotServed);
    expectEnergies(early, Status::SUCCESS, 2);
    expectRails(unserved, Status::NOT_SUPPORTED, 0);
    expectEnergies(unserved, Status::NOT_SUPPORTED, 0, {77});

    mNow = std::chrono::seconds(320);  // more than a wrap may take
    expectEnergies(early, Status::SUCCESS, 1);
    expectEnergies(early, Status::NOT_SUPPORTED, 0, {kZone});
    expectRails(early, Status::SUCCESS, 2);  // a list that clients keep
    LinuxPowerStatsHidl late(counters);
    expectRails(late, Status::SUCCESS, 1);
    expectEnergies(late, Status::INVALID_INPUT, 0, {kZone});  // never announced

    mTree.remove(meter);
    mNow = std::chrono::seconds(20);
    LinuxPowerStatsHidl ending(makeCounters());
    expectRails(ending, Status::SUCCESS, 1);
    mNow = std::chrono::seconds(320);
    expectEnergies(ending, Status::NOT_SUPPORTED, 0);
    expectRails(ending, Status::NOT_SUPPORTED, 0);
}

}  // namespace
}  // namespace powerstats
