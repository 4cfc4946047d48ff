// SPDX-License-Identifier: Apache-2.0
//
// Both services serve one reader, so both must say the same. What they answer is written as text to
// be compared: one line per record.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hal/LinuxPowerStats.h"
#include "tests/hal/TemporaryTree.h"

namespace powerstats {
namespace {

namespace aidl_stats = aidl::android::hardware::power::stats;
namespace hidl_stats = android::hardware::power::stats::V1_0;
using android::hardware::hidl_vec;
using testing::ElementsAre;

using Lines = std::vector<std::string>;

/// What a client can ask of either service. A refused request is one line that begins "refused".
class Client {
  public:
    virtual ~Client() = default;
    virtual Lines rails() = 0;
    virtual Lines energies(const std::vector<int32_t>& ids) = 0;
    virtual Lines entities() = 0;
    virtual Lines residencies(const std::vector<int32_t>& ids) = 0;
};

class AidlClient : public Client {
  public:
    explicit AidlClient(const std::shared_ptr<const LinuxCounters>& counters)
        : mService(ndk::SharedRefBase::make<LinuxPowerStatsAidl>(counters)) {}

    Lines rails() override {
        std::vector<aidl_stats::Channel> channels;
        EXPECT_TRUE(mService->getEnergyMeterInfo(&channels).isOk());
        Lines lines;
        for (const auto& rail : channels) {
            lines.push_back(fmt::format("{} {} of {}", rail.id, rail.name, rail.subsystem));
        }
        return lines;
    }

    Lines energies(const std::vector<int32_t>& ids) override {
        std::vector<aidl_stats::EnergyMeasurement> measurements;
        const ndk::ScopedAStatus status = mService->readEnergyMeter(ids, &measurements);
        if (!status.isOk()) return refused(status, measurements.size());
        Lines lines;
        for (const auto& rail : measurements) {
            lines.push_back(fmt::format("{} {} at {}", rail.id, rail.energyUWs, rail.timestampMs));
            if (rail.durationMs == rail.timestampMs) continue;
            lines.back() += fmt::format(" of {} ms", rail.durationMs);
        }
        return lines;
    }

    Lines entities() override {
        std::vector<aidl_stats::PowerEntity> entities;
        EXPECT_TRUE(mService->getPowerEntityInfo(&entities).isOk());
        Lines lines;
        for (const auto& entity : entities) {
            lines.push_back(fmt::format("{} {}", entity.id, entity.name));
            for (const auto& state : entity.states) {
                lines.back() += fmt::format(" {}={}", state.id, state.name);
            }
        }
        return lines;
    }

    Lines residencies(const std::vector<int32_t>& ids) override {
        std::vector<aidl_stats::StateResidencyResult> results;
        const ndk::ScopedAStatus status = mService->getStateResidency(ids, &results);
        if (!status.isOk()) return refused(status, results.size());
        Lines lines;
        for (const auto& result : results) {
            lines.push_back(fmt::format("{}:", result.id));
            for (const auto& state : result.stateResidencyData) {
                lines.back() += fmt::format(" {}={}ms,{}x,{}", state.id, state.totalTimeInStateMs,
                                            state.totalStateEntryCount, state.lastEntryTimestampMs);
            }
        }
        return lines;
    }

  private:
    static Lines refused(const ndk::ScopedAStatus& status, size_t records) {
        EXPECT_EQ(status.getExceptionCode(), EX_ILLEGAL_ARGUMENT);
        EXPECT_EQ(records, 0u);
        return {std::string("refused: ") + status.getMessage()};
    }

    const std::shared_ptr<LinuxPowerStatsAidl> mService;
};

class HidlClient : public Client {
  public:
    explicit HidlClient(const std::shared_ptr<const LinuxCounters>& counters)
        : mService(new LinuxPowerStatsHidl(counters)) {}

    Lines rails() override {
        Lines lines;
        const auto callback = [&](const hidl_vec<hidl_stats::RailInfo>& rails,
                                  hidl_stats::Status status) {
            noteStatus(status, &lines);
            for (const auto& rail : rails) {
                EXPECT_EQ(rail.samplingRate, 0u);
                lines.push_back(fmt::format("{} {} of {}", rail.index, rail.railName.c_str(),
                                            rail.subsysName.c_str()));
            }
        };
        EXPECT_TRUE(mService->getRailInfo(callback).isOk());
        return lines;
    }

    Lines energies(const std::vector<int32_t>& ids) override {
        Lines lines;
        const auto callback = [&](const hidl_vec<hidl_stats::EnergyData>& data,
                                  hidl_stats::Status status) {
            for (const auto& rail : data) {
                lines.push_back(
                    fmt::format("{} {} at {}", rail.index, rail.energy, rail.timestamp));
            }
            noteStatus(status, &lines);
        };
        EXPECT_TRUE(mService->getEnergyData(unsignedIds(ids), callback).isOk());
        return lines;
    }

    Lines entities() override {
        Lines lines;
        std::vector<uint32_t> ids;
        const auto callback = [&](const hidl_vec<hidl_stats::PowerEntityInfo>& entities,
                                  hidl_stats::Status status) {
            EXPECT_EQ(status, hidl_stats::Status::SUCCESS);
            for (const auto& entity : entities) {
                ids.push_back(entity.powerEntityId);
                lines.push_back(fmt::format("{} {}", ids.back(), entity.powerEntityName.c_str()));
            }
        };
        EXPECT_TRUE(mService->getPowerEntityInfo(callback).isOk());
        const auto stateCallback = [&](const hidl_vec<hidl_stats::PowerEntityStateSpace>& spaces,
                                       hidl_stats::Status status) {
            EXPECT_EQ(status, hidl_stats::Status::SUCCESS);
            for (size_t i = 0; i < spaces.size(); ++i) {
                EXPECT_EQ(spaces[i].powerEntityId, ids.at(i));
                for (const auto& state : spaces[i].states) {
                    lines.at(i) += fmt::format(" {}={}", state.powerEntityStateId,
                                               state.powerEntityStateName.c_str());
                }
            }
        };
        EXPECT_TRUE(mService->getPowerEntityStateInfo({}, stateCallback).isOk());
        return lines;
    }

    Lines residencies(const std::vector<int32_t>& ids) override {
        Lines lines;
        const auto callback =
            [&](const hidl_vec<hidl_stats::PowerEntityStateResidencyResult>& results,
                hidl_stats::Status status) {
                for (const auto& result : results) {
                    lines.push_back(fmt::format("{}:", result.powerEntityId));
                    for (const auto& state : result.stateResidencyData) {
                        lines.back() += fmt::format(
                            " {}={}ms,{}x,{}", state.powerEntityStateId, state.totalTimeInStateMs,
                            state.totalStateEntryCount, state.lastEntryTimestampMs);
                    }
                }
                noteStatus(status, &lines);
            };
        EXPECT_TRUE(mService->getPowerEntityStateResidencyData(unsignedIds(ids), callback).isOk());
        return lines;
    }

  private:
    static hidl_vec<uint32_t> unsignedIds(const std::vector<int32_t>& ids) {
        return std::vector<uint32_t>(ids.begin(), ids.end());
    }

    static void noteStatus(hidl_stats::Status status, Lines* lines) {
        if (status == hidl_stats::Status::SUCCESS) return;
        lines->push_back(status == hidl_stats::Status::INVALID_INPUT      ? "refused"
                         : status == hidl_stats::Status::NOT_SUPPORTED    ? "NOT_SUPPORTED"
                         : status == hidl_stats::Status::FILESYSTEM_ERROR ? "FILESYSTEM_ERROR"
                                                                          : "?");
    }

    const android::sp<LinuxPowerStatsHidl> mService;
};

template <typename ClientType>
class ServicesTest : public testing::Test {
  protected:
    std::shared_ptr<const LinuxCounters> makeCounters() const {
        LinuxCounters::Options options;
        options.root = mTree.root();
        options.readClock = [](clockid_t clock) {
            return std::chrono::milliseconds(clock == CLOCK_BOOTTIME ? 5000 : 3000);
        };
        return std::make_shared<const LinuxCounters>(options);
    }

    TemporaryTree mTree;
};

using Clients = testing::Types<AidlClient, HidlClient>;
struct ClientName {
    template <typename ClientType>
    static std::string GetName(int) {
        return std::is_same_v<ClientType, AidlClient> ? "Aidl" : "Hidl";
    }
};
TYPED_TEST_SUITE(ServicesTest, Clients, ClientName);

TYPED_TEST(ServicesTest, ServeTheSameRecords) {
    this->mTree.writeZone("zone:39751", "package-0", 1234567);
    this->mTree.write("class/hwmon/hwmon0/energy1_input", 42);
    this->mTree.writeIdleState(2, 0, "POLL", 1999, 3);
    this->mTree.writeIdleState(2, 4, "C6", 5000, 6);
    this->mTree.writeDevice("platform/device193059", 70, 80);
    this->mTree.write("power/suspend_stats/success", 9);
    const auto counters = this->makeCounters();
    TypeParam client(counters);

    const std::string meter = std::to_string(counters->rails().front().id);
    EXPECT_THAT(client.rails(),
                ElementsAre(meter + " hwmon0/energy1 of hwmon", "962335114 package-0 of powercap"));
    EXPECT_THAT(client.energies({}),
                ElementsAre(meter + " 42 at 5000", "962335114 1234567 at 5000"));
    EXPECT_THAT(client.entities(),
                ElementsAre("65536 system 0=running 1=suspended", "2 cpu2 0=POLL 4=C6",
                            "1506668702 platform/device193059 0=active 1=suspended"));
    EXPECT_THAT(client.residencies({}),
                ElementsAre("65536: 0=3000ms,10x,0 1=2000ms,9x,0", "2: 0=1ms,3x,0 4=5ms,6x,0",
                            "1506668702: 0=70ms,0x,0 1=80ms,0x,0"));
}

TYPED_TEST(ServicesTest, HonourTheIdsAskedFor) {
    this->mTree.writeZone("zone:39751", "package-0", 1);
    this->mTree.writeZone("zone:61784", "package-1", 2);
    this->mTree.writeIdleState(0, 0, "POLL", 1000, 1);
    this->mTree.writeIdleState(1, 0, "POLL", 2000, 1);
    TypeParam client(this->makeCounters());
    constexpr int32_t kFirst = 962335114;
    constexpr int32_t kSecond = kFirst + 1;

    EXPECT_THAT(client.energies({kSecond, kFirst}),
                ElementsAre("962335115 2 at 5000", "962335114 1 at 5000"));
    EXPECT_THAT(client.residencies({1, 0}), ElementsAre("1: 0=2ms,1x,0", "0: 0=1ms,1x,0"));

    this->mTree.remove("class/powercap/zone:39751");
    this->mTree.remove("devices/system/cpu/cpu1");
    EXPECT_THAT(client.energies({kFirst, kSecond}), ElementsAre("962335115 2 at 5000"));
    EXPECT_THAT(client.residencies({1, 0}), ElementsAre("0: 0=1ms,1x,0"));
}

TYPED_TEST(ServicesTest, RefuseUnknownRepeatedAndTooManyIds) {
    this->mTree.writeZone("zone:39751", "package-0", 1);
    this->mTree.writeZone("zone:61784", "package-1", 2);
    TypeParam client(this->makeCounters());
    constexpr int32_t kFirst = 962335114;
    const struct {
        std::vector<int32_t> ids;
        const char* reason;  // AIDL has words for it
    } cases[] = {
        {{kFirst, 77}, "no rail has the id 77"},
        {{kFirst, kFirst}, "repeats the id 962335114"},
        {{77, kFirst, kFirst}, "has 3 ids, for 2 known (rail)"},
    };
    const auto isRefusal = [](const std::string& reason) {
        const bool hasWords = std::is_same_v<TypeParam, AidlClient>;
        return ElementsAre(testing::AllOf(testing::StartsWith("refused"),
                                          testing::HasSubstr(hasWords ? reason : "refused")));
    };
    for (const auto& test : cases) {
        EXPECT_THAT(client.energies(test.ids), isRefusal(test.reason));
    }
    EXPECT_THAT(client.residencies({77}), isRefusal("no power entity has the id 77"));
}

class ServiceDifferencesTest : public ServicesTest<void> {};

TEST_F(ServiceDifferencesTest, WithoutRailsOneHasAnEmptyListAndTheOtherIsNotSupported) {
    const auto counters = makeCounters();
    EXPECT_THAT(AidlClient(counters).rails(), testing::IsEmpty());
    EXPECT_THAT(AidlClient(counters).energies({}), testing::IsEmpty());

    mTree.writeZone("zone:39751", "package-0", 1);
    const android::sp<LinuxPowerStatsHidl> services[] = {
        new LinuxPowerStatsHidl(counters),
        new LinuxPowerStatsHidl(makeCounters(), HidlRails::kNotServed)};
    int answers = 0;
    const auto expectNotSupported = [&](const auto& records, hidl_stats::Status status) {
        EXPECT_EQ(records.size(), 0u);
        EXPECT_EQ(status, hidl_stats::Status::NOT_SUPPORTED);
        ++answers;
    };
    for (const auto& service : services) {
        EXPECT_TRUE(service->getRailInfo(expectNotSupported).isOk());
        EXPECT_TRUE(service->getEnergyData({}, expectNotSupported).isOk());
        EXPECT_TRUE(service->getEnergyData({77}, expectNotSupported).isOk());
    }
    EXPECT_EQ(answers, 6);
}

TEST_F(ServiceDifferencesTest, WithoutAnythingReadableOneHasNoRecordsAndTheOtherAnError) {
    mTree.writeZone("zone:39751", "package-0", 1);
    mTree.writeIdleState(0, 0, "POLL", 1000, 1);
    const auto counters = makeCounters();
    mTree.remove("class/powercap");
    mTree.remove("devices");
    EXPECT_THAT(AidlClient(counters).energies({}), testing::IsEmpty());
    EXPECT_THAT(AidlClient(counters).residencies({0}), testing::IsEmpty());
    EXPECT_THAT(HidlClient(counters).energies({}), ElementsAre("FILESYSTEM_ERROR"));
    EXPECT_THAT(HidlClient(counters).residencies({0}), ElementsAre("FILESYSTEM_ERROR"));
}

TEST_F(ServiceDifferencesTest, OnlyTheOneWithDurationsHasRailsThatAreNotSinceBoot) {
    using std::chrono::seconds;
    seconds now(20);
    LinuxCounters::Options options;
    options.root = mTree.root();
    options.hasBoot = true;
    options.readClock = [&](clockid_t) { return now; };
    constexpr long long kRangeUj = 262144000000;
    const std::string meter = "class/hwmon/hwmon0/energy1_input";
    mTree.write(meter, 42);
    mTree.writeZone("zone:39751", "package-0", 1000, kRangeUj);
    const auto counters = std::make_shared<const LinuxCounters>(options);
    HidlClient early(counters);
    const std::string meterId = std::to_string(counters->rails().front().id);
    EXPECT_THAT(early.energies({}),
                ElementsAre(meterId + " 42 at 20000", "962335114 1000 at 20000"));

    now = seconds(320);  // more than a wrap may take
    mTree.writeZone("zone:39751", "package-0", 2000, kRangeUj);
    EXPECT_THAT(early.energies({}), ElementsAre(meterId + " 42 at 320000"));
    EXPECT_THAT(early.energies({962335114}), ElementsAre("NOT_SUPPORTED"));
    EXPECT_THAT(early.rails(), testing::SizeIs(2)) << "a list that clients keep";
    EXPECT_THAT(AidlClient(counters).energies({}),
                ElementsAre(meterId + " 42 at 320000", "962335114 2000 at 320000 of 20000 ms"));

    HidlClient late(counters);
    EXPECT_THAT(late.rails(), ElementsAre(meterId + " hwmon0/energy1 of hwmon"));
    EXPECT_THAT(late.energies({}), ElementsAre(meterId + " 42 at 320000"));
    EXPECT_THAT(late.energies({962335114}), ElementsAre("refused")) << "it was not announced";

    mTree.remove(meter);
    now = seconds(20);
    const auto zoneOnly = std::make_shared<const LinuxCounters>(options);
    HidlClient ends(zoneOnly);
    EXPECT_THAT(ends.rails(), testing::SizeIs(1));
    now = seconds(320);
    EXPECT_THAT(ends.energies({}), ElementsAre("NOT_SUPPORTED"));
    EXPECT_THAT(ends.rails(), ElementsAre("NOT_SUPPORTED"));
    EXPECT_THAT(HidlClient(zoneOnly).energies({}), ElementsAre("NOT_SUPPORTED"));
}

TEST_F(ServiceDifferencesTest, EachAnswersWhatOnlyItsInterfaceHas) {
    mTree.writeIdleState(0, 0, "POLL", 1, 1);
    mTree.writeDevice("pci0", 1, 1);
    const auto counters = makeCounters();
    const auto aidl = ndk::SharedRefBase::make<LinuxPowerStatsAidl>(counters);
    std::vector<aidl_stats::EnergyConsumer> consumers(1);
    EXPECT_TRUE(aidl->getEnergyConsumerInfo(&consumers).isOk());
    EXPECT_THAT(consumers, testing::IsEmpty());
    std::vector<aidl_stats::EnergyConsumerResult> energies(1);
    EXPECT_TRUE(aidl->getEnergyConsumed({}, &energies).isOk());
    EXPECT_THAT(energies, testing::IsEmpty());
    EXPECT_EQ(aidl->getEnergyConsumed({77}, &energies).getExceptionCode(), EX_ILLEGAL_ARGUMENT);

    const android::sp<LinuxPowerStatsHidl> hidl = new LinuxPowerStatsHidl(counters);
    std::vector<hidl_stats::PowerEntityType> types;
    EXPECT_TRUE(hidl->getPowerEntityInfo([&](const auto& entities, hidl_stats::Status) {
                        for (const auto& entity : entities) types.push_back(entity.type);
                    })
                    .isOk());
    EXPECT_THAT(types, ElementsAre(hidl_stats::PowerEntityType::SUBSYSTEM,
                                   hidl_stats::PowerEntityType::POWER_DOMAIN,
                                   hidl_stats::PowerEntityType::PERIPHERAL));
    Lines answers;
    EXPECT_TRUE(hidl->getPowerEntityStateInfo({0, 77},
                                              [&](const auto& spaces, hidl_stats::Status status) {
                                                  EXPECT_EQ(spaces.size(), 0u);
                                                  EXPECT_EQ(status,
                                                            hidl_stats::Status::INVALID_INPUT);
                                                  answers.push_back("states");
                                              })
                    .isOk());
    EXPECT_TRUE(
        hidl->streamEnergyData(1, 1,
                               [&](const auto&, uint32_t, uint32_t, hidl_stats::Status status) {
                                   EXPECT_EQ(status, hidl_stats::Status::NOT_SUPPORTED);
                                   answers.push_back("stream");
                               })
            .isOk());
    EXPECT_THAT(answers, ElementsAre("states", "stream"));
}

}  // namespace
}  // namespace powerstats
