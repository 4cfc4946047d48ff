// SPDX-License-Identifier: Apache-2.0
//
// How each service puts the counters into its interface's records and statuses. The tests of the
// tool compare the two services with each other.

#include <fmt/format.h>
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

class ServicesTest : public testing::Test {
  protected:
    std::shared_ptr<const LinuxCounters> makeCounters() {
        LinuxCounters::Options options;
        options.root = mTree.root();
        options.hasBoot = true;
        options.readClock = [this](clockid_t) { return mNow; };
        return std::make_shared<const LinuxCounters>(options);
    }

    /// Makes a HIDL callback that notes the status and each record as text.
    template <typename Describe>
    auto note(Describe describe) {
        return [this, describe](const auto& records, Status status) {
            mAnswer = {"status " + std::to_string(static_cast<int>(status))};
            for (const auto& record : records) mAnswer.push_back(describe(record));
        };
    }
    std::vector<std::string> rails(LinuxPowerStatsHidl& service) {
        const auto describe = [](const auto& rail) {
            return fmt::format("{} {} of {} {}", rail.index, rail.railName.c_str(),
                               rail.subsysName.c_str(), rail.samplingRate);
        };
        EXPECT_TRUE(service.getRailInfo(note(describe)).isOk());
        return mAnswer;
    }
    std::vector<std::string> energies(LinuxPowerStatsHidl& service,
                                      const std::vector<uint32_t>& ids = {}) {
        const auto describe = [](const auto& rail) {
            return fmt::format("{} {} at {}", rail.index, rail.energy, rail.timestamp);
        };
        EXPECT_TRUE(service.getEnergyData(ids, note(describe)).isOk());
        return mAnswer;
    }

    TemporaryTree mTree;
    std::chrono::milliseconds mNow{20000};
    std::vector<std::string> mAnswer;
};

TEST_F(ServicesTest, AidlAnswersWithItsRecordsOrIllegalArgument) {
    const auto service = ndk::SharedRefBase::make<LinuxPowerStatsAidl>([this] {
        mTree.writeZone("zone:39751", "package-0", 42, 262144000000);
        mTree.writeIdleState(2, 4, "C6", 5000, 6);
        return makeCounters();
    }());
    mNow = std::chrono::seconds(320);  // a wrap may have been missed
    std::vector<aidl_stats::Channel> channels(1);
    std::vector<aidl_stats::EnergyMeasurement> energies(1);
    std::vector<aidl_stats::PowerEntity> entities(1);
    std::vector<aidl_stats::StateResidencyResult> residencies(1);
    EXPECT_TRUE(service->getEnergyMeterInfo(&channels).isOk());
    EXPECT_THAT(channels, ElementsAre(aidl_stats::Channel{kZone, "package-0", "powercap"}));
    EXPECT_TRUE(service->readEnergyMeter({}, &energies).isOk());
    EXPECT_THAT(energies, ElementsAre(aidl_stats::EnergyMeasurement{kZone, 320000, 20000, 42}));
    EXPECT_TRUE(service->getPowerEntityInfo(&entities).isOk());
    ASSERT_EQ(entities.size(), 2u);
    EXPECT_EQ(entities[1], (aidl_stats::PowerEntity{2, "cpu2", {{4, "C6"}}}));
    EXPECT_TRUE(service->getStateResidency({2}, &residencies).isOk());
    EXPECT_THAT(residencies, ElementsAre(aidl_stats::StateResidencyResult{2, {{4, 5, 6, 0}}}));

    const auto refused = service->readEnergyMeter({77}, &energies);
    EXPECT_EQ(refused.getExceptionCode(), EX_ILLEGAL_ARGUMENT);
    EXPECT_STREQ(refused.getMessage(), "no rail has the id 77");
    EXPECT_EQ(energies.size(), 0u);
    EXPECT_EQ(service->getStateResidency({77}, &residencies).getExceptionCode(),
              EX_ILLEGAL_ARGUMENT);
    mTree.remove("class");
    EXPECT_TRUE(service->readEnergyMeter({kZone}, &energies).isOk());
    EXPECT_EQ(energies.size(), 0u) << "a rail that cannot be read";
    std::vector<aidl_stats::EnergyConsumerResult> consumed(1);
    EXPECT_TRUE(service->getEnergyConsumed({}, &consumed).isOk());
    EXPECT_EQ(consumed.size(), 0u);
    EXPECT_EQ(service->getEnergyConsumed({77}, &consumed).getExceptionCode(), EX_ILLEGAL_ARGUMENT);
}

TEST_F(ServicesTest, HidlAnswersWithItsRecordsOrAStatus) {
    const std::string kRefused = fmt::format("status {}", static_cast<int>(Status::INVALID_INPUT));
    const std::string kNone = fmt::format("status {}", static_cast<int>(Status::FILESYSTEM_ERROR));
    mTree.writeIdleState(2, 4, "C6", 5000, 6);
    mTree.writeDevice("pci0", 1, 1);
    mTree.writeZone("zone:39751", "package-0", 42);
    LinuxPowerStatsHidl service(makeCounters());
    const auto entity = [](const auto& entity) {
        return fmt::format("{} {} {}", entity.powerEntityId, entity.powerEntityName.c_str(),
                           static_cast<int>(entity.type));
    };
    const auto space = [](const auto& space) {
        const auto& state = space.states[0];
        return fmt::format("{}: {} {}", space.powerEntityId, state.powerEntityStateId,
                           state.powerEntityStateName.c_str());
    };
    const auto residency = [](const auto& result) {
        const auto& state = result.stateResidencyData[0];
        return fmt::format("{}: {}={}ms,{}x,{}", result.powerEntityId, state.powerEntityStateId,
                           state.totalTimeInStateMs, state.totalStateEntryCount,
                           state.lastEntryTimestampMs);
    };
    EXPECT_THAT(rails(service), ElementsAre("status 0", "962335114 package-0 of powercap 0"));
    EXPECT_THAT(energies(service, {kZone}), ElementsAre("status 0", "962335114 42 at 20000"));
    EXPECT_THAT(energies(service, {77}), ElementsAre(kRefused));
    EXPECT_TRUE(service.getPowerEntityInfo(note(entity)).isOk());
    EXPECT_THAT(mAnswer, ElementsAre("status 0", "65536 system 0", "2 cpu2 2",
                                     testing::EndsWith(" pci0 1")));
    EXPECT_TRUE(service.getPowerEntityStateInfo({2}, note(space)).isOk());
    EXPECT_THAT(mAnswer, ElementsAre("status 0", "2: 4 C6"));
    EXPECT_TRUE(service.getPowerEntityStateInfo({77}, note(space)).isOk());
    EXPECT_THAT(mAnswer, ElementsAre(kRefused));
    EXPECT_TRUE(service.getPowerEntityStateResidencyData({2}, note(residency)).isOk());
    EXPECT_THAT(mAnswer, ElementsAre("status 0", "2: 4=5ms,6x,0"));
    EXPECT_TRUE(service.getPowerEntityStateResidencyData({2, 2}, note(residency)).isOk());
    EXPECT_THAT(mAnswer, ElementsAre(kRefused));
    mTree.remove("class");
    mTree.remove("devices");
    EXPECT_THAT(energies(service), ElementsAre(kNone));
    EXPECT_TRUE(service.getPowerEntityStateResidencyData({2}, note(residency)).isOk());
    EXPECT_THAT(mAnswer, ElementsAre(kNone));
}

TEST_F(ServicesTest, HidlHasOnlyRailsThatAreSinceBoot) {
    const std::string kNone = fmt::format("status {}", static_cast<int>(Status::NOT_SUPPORTED));
    constexpr long long kRangeUj = 262144000000;
    const std::string meter = "class/hwmon/hwmon0/energy1_input";
    mTree.write(meter, 42);
    mTree.writeZone("zone:39751", "package-0", 1000, kRangeUj);
    const auto counters = makeCounters();
    LinuxPowerStatsHidl early(counters), unserved(counters, HidlRails::kNotServed);
    const std::string meterId = std::to_string(counters->rails().front().id);
    EXPECT_THAT(energies(early),
                ElementsAre("status 0", meterId + " 42 at 20000", "962335114 1000 at 20000"));
    EXPECT_THAT(rails(unserved), ElementsAre(kNone));
    EXPECT_THAT(energies(unserved, {77}), ElementsAre(kNone));

    mNow = std::chrono::seconds(320);  // more than a wrap may take
    EXPECT_THAT(energies(early), ElementsAre("status 0", meterId + " 42 at 320000"));
    EXPECT_THAT(energies(early, {kZone}), ElementsAre(kNone));
    EXPECT_THAT(rails(early), testing::SizeIs(3)) << "a list that clients keep";
    LinuxPowerStatsHidl late(counters);
    EXPECT_THAT(rails(late), testing::SizeIs(2));
    EXPECT_THAT(energies(late), testing::SizeIs(2));
    EXPECT_THAT(energies(late, {kZone}), ElementsAre(testing::Ne(kNone))) << "never announced";

    mTree.remove(meter);
    mNow = std::chrono::seconds(20);
    LinuxPowerStatsHidl ending(makeCounters());
    EXPECT_THAT(rails(ending), testing::SizeIs(2));
    mNow = std::chrono::seconds(320);
    EXPECT_THAT(energies(ending), ElementsAre(kNone));
    EXPECT_THAT(rails(ending), ElementsAre(kNone));
}

}  // namespace
}  // namespace powerstats
