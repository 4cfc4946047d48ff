// SPDX-License-Identifier: Apache-2.0
//
// The statuses of the two services, and the rules in which they differ. The tests of the tool
// compare the records of both.

#include <gtest/gtest.h>

#include "power/linux/LinuxSource.h"
#include "power/service/Services.h"
#include "tests/power/TemporaryTree.h"

namespace powerstats {
namespace {

using stats_V1_0::Status;
using Hidl = android::sp<stats_V1_0::IPowerStats>;

constexpr int32_t kZone = 962335114;  // the id of "zone:39751"; "zone:61784" has the next one
/// A counter with this range may have wrapped after 262 s.
constexpr long long kRangeUj = 262144000000;

class ServicesTest : public testing::Test {
  protected:
    std::shared_ptr<LinuxSource> makeSource() {
        LinuxSource::Options options;
        options.root = mTree.root();
        options.hasBoot = true;
        options.readClock = [this](clockid_t) { return mNow; };
        return std::make_shared<LinuxSource>(options);
    }

    /// The HIDL status and the number of records of an answer.
    using Got = std::pair<Status, size_t>;
    auto keep() {
        return [this](const auto& records, Status status) { mGot = {status, records.size()}; };
    }
    Got rails(const Hidl& service) {
        EXPECT_TRUE(service->getRailInfo(keep()).isOk());
        return mGot;
    }
    Got energies(const Hidl& service, const std::vector<int32_t>& ids = {}) {
        EXPECT_TRUE(
            service->getEnergyData(std::vector<uint32_t>(ids.begin(), ids.end()), keep()).isOk());
        return mGot;
    }

    TemporaryTree mTree;
    std::chrono::milliseconds mNow{20000};
    Got mGot;
};

TEST_F(ServicesTest, AnswerInTheOrderAskedForAndRefuseOtherLists) {
    mTree.writeZone("zone:39751", "a", 42, kRangeUj);
    mTree.writeZone("zone:61784", "b", 43);
    mTree.writeIdleState(2, 4, "C6", 5000, 6);
    const auto source = makeSource();
    const auto aidl = serveAidl(source);
    const Hidl hidl = serveHidl(source);
    const std::pair<std::vector<int32_t>, const char*> refusals[] = {
        {{kZone, 77}, "no rail has the id 77"},
        {{kZone, kZone}, "the request repeats the id 962335114 (rail); ask for each once"},
    };
    for (const auto& [ids, message] : refusals) {
        std::vector<stats_aidl::EnergyMeasurement> measurements(1);
        const auto refused = aidl->readEnergyMeter(ids, &measurements);
        EXPECT_EQ(refused.getExceptionCode(), EX_ILLEGAL_ARGUMENT);
        EXPECT_STREQ(refused.getMessage(), message);
        EXPECT_EQ(measurements.size(), 0u);
        EXPECT_EQ(energies(hidl, ids), Got(Status::INVALID_INPUT, 0));
    }
    std::vector<stats_aidl::StateResidencyResult> residencies(1);
    EXPECT_STREQ(aidl->getStateResidency({77}, &residencies).getMessage(),
                 "no power entity has the id 77");
    EXPECT_EQ(residencies.size(), 0u);
    EXPECT_TRUE(hidl->getPowerEntityStateInfo({77}, keep()).isOk());
    EXPECT_EQ(mGot, Got(Status::INVALID_INPUT, 0));
    EXPECT_TRUE(hidl->getPowerEntityStateResidencyData({2, 2}, keep()).isOk());
    EXPECT_EQ(mGot, Got(Status::INVALID_INPUT, 0));
    EXPECT_TRUE(hidl->getPowerEntityInfo([](const auto& entities, Status) {
                        using Type = stats_V1_0::PowerEntityType;
                        EXPECT_EQ(entities[0].type, Type::SUBSYSTEM);
                        EXPECT_EQ(entities[1].type, Type::POWER_DOMAIN);
                    })
                    .isOk());

    mNow = std::chrono::seconds(320);  // more than a wrap may take
    std::vector<stats_aidl::EnergyMeasurement> read;
    EXPECT_TRUE(aidl->readEnergyMeter({kZone + 1, kZone}, &read).isOk());
    ASSERT_EQ(read.size(), 2u);
    EXPECT_EQ(read[0].energyUWs, 43);
    EXPECT_EQ(std::tie(read[1].id, read[1].timestampMs, read[1].durationMs, read[1].energyUWs),
              std::make_tuple(kZone, 320000, 20000, 42));
    mTree.remove("class");
    mTree.remove("devices");
    EXPECT_TRUE(aidl->readEnergyMeter({kZone}, &read).isOk());
    EXPECT_EQ(read.size(), 0u) << "a rail that cannot be read";
    EXPECT_EQ(energies(hidl), Got(Status::FILESYSTEM_ERROR, 0));
    EXPECT_TRUE(hidl->getPowerEntityStateResidencyData({2}, keep()).isOk());
    EXPECT_EQ(mGot, Got(Status::FILESYSTEM_ERROR, 0));
}

TEST_F(ServicesTest, HidlHasOnlyRailsThatAreSinceBoot) {
    const std::string meter = "class/hwmon/hwmon0/energy1_input";
    mTree.write(meter, 42);
    mTree.writeZone("zone:39751", "package-0", 1000, kRangeUj);
    const auto source = makeSource();
    const Hidl early = serveHidl(source), unserved = serveHidl(source, HidlRails::kNotServed);
    EXPECT_EQ(energies(early), Got(Status::SUCCESS, 2));
    EXPECT_EQ(rails(unserved), Got(Status::NOT_SUPPORTED, 0));
    EXPECT_EQ(energies(unserved, {77}), Got(Status::NOT_SUPPORTED, 0));

    mNow = std::chrono::seconds(320);
    EXPECT_EQ(energies(early), Got(Status::SUCCESS, 1));
    EXPECT_EQ(energies(early, {kZone}), Got(Status::NOT_SUPPORTED, 0));
    EXPECT_EQ(rails(early), Got(Status::SUCCESS, 2)) << "a list that clients keep";
    const Hidl late = serveHidl(source);
    EXPECT_EQ(rails(late), Got(Status::SUCCESS, 1));
    EXPECT_EQ(energies(late, {kZone}), Got(Status::INVALID_INPUT, 0)) << "never announced";

    mTree.remove(meter);
    mNow = std::chrono::seconds(20);
    const Hidl ending = serveHidl(makeSource());
    EXPECT_EQ(rails(ending), Got(Status::SUCCESS, 1));
    mNow = std::chrono::seconds(320);
    EXPECT_EQ(energies(ending), Got(Status::NOT_SUPPORTED, 0));
    EXPECT_EQ(rails(ending), Got(Status::NOT_SUPPORTED, 0));
}

}  // namespace
}  // namespace powerstats
