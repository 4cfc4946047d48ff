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
using Service = stats_V1_0::IPowerStats;
using Hidl = android::sp<Service>;
using Ids = std::vector<uint32_t>;

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
    template <typename Method, typename... Ids>
    static Got ask(const Hidl& service, Method method, const Ids&... ids) {
        Got got;
        const auto keep = [&](const auto& records, Status status) {
            got = {status, records.size()};
        };
        EXPECT_TRUE((service.get()->*method)(ids..., keep).isOk());
        return got;
    }
    static inline const Got kInvalid{Status::INVALID_INPUT, 0};
    static inline const Got kUnsupported{Status::NOT_SUPPORTED, 0};
    static Got rails(const Hidl& service) { return ask(service, &Service::getRailInfo); }
    static Got energies(const Hidl& service, const Ids& ids = {}) {
        return ask(service, &Service::getEnergyData, ids);
    }

    TemporaryTree mTree;
    std::chrono::milliseconds mNow{20000};
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
        EXPECT_EQ(energies(hidl, {ids.begin(), ids.end()}), kInvalid);
    }
    std::vector<stats_aidl::StateResidencyResult> residencies(1);
    EXPECT_STREQ(aidl->getStateResidency({77}, &residencies).getMessage(),
                 "no power entity has the id 77");
    EXPECT_EQ(residencies.size(), 0u);
    EXPECT_EQ(ask(hidl, &Service::getPowerEntityStateInfo, Ids{77}), kInvalid);
    EXPECT_EQ(ask(hidl, &Service::getPowerEntityStateResidencyData, Ids{2, 2}), kInvalid);
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
    EXPECT_EQ(ask(hidl, &Service::getPowerEntityStateResidencyData, Ids{2}),
              Got(Status::FILESYSTEM_ERROR, 0));
}

TEST_F(ServicesTest, HidlHasOnlyRailsThatAreSinceBoot) {
    const std::string meter = "class/hwmon/hwmon0/energy1_input";
    mTree.write(meter, 42);
    mTree.writeZone("zone:39751", "package-0", 1000, kRangeUj);
    const auto source = makeSource();
    const Hidl early = serveHidl(source), unserved = serveHidl(source, HidlRails::kNotServed);
    EXPECT_EQ(energies(early), Got(Status::SUCCESS, 2));
    EXPECT_EQ(rails(unserved), kUnsupported);
    EXPECT_EQ(energies(unserved, {77}), kUnsupported);

    mNow = std::chrono::seconds(320);
    EXPECT_EQ(energies(early), Got(Status::SUCCESS, 1));
    EXPECT_EQ(energies(early, {kZone}), kUnsupported);
    EXPECT_EQ(rails(early), Got(Status::SUCCESS, 2)) << "a list that clients keep";
    const Hidl late = serveHidl(source);
    EXPECT_EQ(rails(late), Got(Status::SUCCESS, 1));
    EXPECT_EQ(energies(late, {kZone}), kInvalid) << "never announced";

    mTree.remove(meter);
    mNow = std::chrono::seconds(20);
    const Hidl ending = serveHidl(makeSource());
    EXPECT_EQ(rails(ending), Got(Status::SUCCESS, 1));
    mNow = std::chrono::seconds(320);
    EXPECT_EQ(energies(ending), kUnsupported);
    EXPECT_EQ(rails(ending), kUnsupported);
}

}  // namespace
}  // namespace powerstats
